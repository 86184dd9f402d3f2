// Kernel IPsec policies: adding or replacing one for a tunnel, and reading or
// removing one by selector, direction and index.
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "diag/counters.h"
#include "kernel/netlink_transport.h"
#include "state/tunnel_table.h"

namespace cpa {

// One IPv4 policy as the policy code describes it (one ACE, one direction).
// A get or delete uses the selector, the direction and the tunnel id only.
struct XfrmPolicyArgs {
  uint32_t src = 0;    // selector source address, host order
  uint32_t smask = 0;  // source prefix length (low byte used)
  uint32_t dst = 0;    // selector destination address, host order
  uint32_t dmask = 0;  // destination prefix length (low byte used)
  uint16_t sport = 0;  // host order
  uint16_t dport = 0;  // host order
  uint16_t family = AF_INET;
  uint8_t dir = 0;    // 0 in, 1 out, 2 forward
  uint8_t proto = 0;  // selector IP protocol
  uint32_t tunnelid = 0;  // selects the tunnel's SVTI device
  uint8_t action = 0;     // 0 allow, 1 block
  uint32_t reqid = 0;     // the template's request id: the tunnel's
  uint8_t tun_mode = 0;   // the template's mode: 0 transport, 1 tunnel
  uint8_t sec_protocol = kIpProtoEsp;  // the template's protocol: 50 ESP, 51 AH
};

// Adds (`update` 0) or replaces (non-zero) the policy. The kernel's index of
// the new policy reaches the agent later, with the kernel's notification.
// Counts in `stat_ctr` when given. Returns 0 when the kernel accepted it, 1
// otherwise.
int kestrix_nlink_policy_add(NetlinkTransport& nl, uint32_t update, const XfrmPolicyArgs& policy,
                             cpa_netlink_ctr_t* stat_ctr);

// Reads (`del` 0) or removes (non-zero) the policy with that selector and
// direction, or with kernel index `index` when it is not 0. Only `del` 1
// counts in `stat_ctr`. Returns 0 when the kernel accepted the request, 1
// otherwise.
int kestrix_nlink_policy_getordel(NetlinkTransport& nl, uint32_t del, const XfrmPolicyArgs& policy,
                                  uint32_t index, cpa_netlink_ctr_t* stat_ctr);

}  // namespace cpa
