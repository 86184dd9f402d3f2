// Kernel IPsec policies: adding or replacing one for a tunnel, and reading or
// removing one by selector, direction and index.
#pragma once

#include <cstdint>

#include "base/counters.h"
#include "kernel/kernel_dialect.h"
#include "kernel/netlink_transport.h"

namespace cpa {

// Adds (`update` 0) or replaces (non-zero) the policy. The kernel's index of
// the new policy reaches the agent later, with the kernel's notification.
// Counts in `stat_ctr` when given. Returns 0 when the kernel accepted it,
// else a negative errno.
int kestrix_nlink_policy_add(NetlinkTransport& nl, uint32_t update, const XfrmPolicyArgs& policy,
                             cpa_netlink_ctr_t* stat_ctr);

// Reads (`del` 0) or removes (non-zero) the policy with that selector and
// direction, or with kernel index `index` when it is not 0. Only `del` 1
// counts in `stat_ctr`. Returns 0 when the kernel accepted the request, else
// a negative errno.
int kestrix_nlink_policy_getordel(NetlinkTransport& nl, uint32_t del, const XfrmPolicyArgs& policy,
                                  uint32_t index, cpa_netlink_ctr_t* stat_ctr);

}  // namespace cpa
