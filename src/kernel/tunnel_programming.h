// What a tunnel holds in the kernel, programmed in one place: its SAs; its
// policies, each ACE standing for one outbound and one inbound kernel policy
// (the inbound one remembered in the policy as a twin ACE, with a forward
// copy where the backend wants one); the policies' template, re-programmed on
// a negotiated mode and protocol or following the SAs; and their removal.
// The handlers call it once per request, after their table work.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/counters.h"
#include "kernel/kernel_backend.h"
#include "kernel/netlink_transport.h"
#include "state/cipher_record.h"
#include "state/policy_records.h"
#include "state/tunnel_table.h"
#include "wire/cp_dp_msg.h"

namespace cpa {

// The template of a tunnel's kernel policies: mode (0 transport, 1 tunnel),
// IPsec protocol, and in tunnel mode the outer addresses seen from this host
// (host order; 0 otherwise). The platform reads mode and protocol only.
struct PolicyTemplate {
  uint8_t mode = 0;
  uint8_t protocol = kIpProtoEsp;
  uint32_t local = 0;
  uint32_t remote = 0;
  bool operator==(const PolicyTemplate&) const = default;
};

// The template that resolves to the SA of this cipher record.
PolicyTemplate sa_policy_template(const kestrix_ce_cipher_info& ci);

class TunnelKernelProgram {
 public:
  TunnelKernelProgram(NetlinkTransport& nl, const KernelBackend& backend,
                      cpa_netlink_global_ctr_t& counters, int replay_window)
      : nl_(nl), backend_(backend), counters_(counters), replay_window_(replay_window) {}

  // Installs the kernel policies of every ACE of a new policy of `tunnel`
  // (transport mode and ESP, or the template of the tunnel's outbound SAs
  // where templates follow them) and puts the inbound twins at the head of
  // its ACE list. `update` 0 adds, non-zero replaces. At the first failing
  // ACE every kernel policy the call added is deleted again (that ACE's own
  // at once, the earlier ACEs' then, one line telling how many), so after an
  // add the kernel holds what it held before the call (a replaced kernel
  // policy is not put back).
  ce_status_t install_policy(const cpa_interface_t& tunnel, cpa_spd_policy_t* policy,
                             uint32_t update);

  // Removes the kernel policies of the newest policy of `tunnel` (in slot
  // `slot`, which the log lines name), in list order (twins first), stopping
  // at the first refusal. The policy record stays with the caller.
  ce_status_t remove_newest_policy(const cpa_interface_t& tunnel, uint32_t slot);

  // Re-programs every kernel policy of the tunnel's newest policy with the
  // negotiated mode (0 transport, 1 tunnel) and IPsec protocol. 0 on
  // success or when the templates follow the SAs instead (endpoints
  // included: mode and protocol alone would undo that); non-zero when there
  // is nothing to re-program or the kernel refused.
  int reprogram(const cpa_interface_t& tunnel, uint8_t mode, uint8_t protocol);

  // Hands one cipher record of `tunnel` to the kernel, counted in `counter`.
  // 0 when the kernel took the SA (or there was no record: nothing is sent),
  // non-zero otherwise. Where templates follow the SAs, the tunnel's
  // policies are then re-programmed from a new outbound SA whose template
  // differs from theirs; a failure there is this call's result.
  int add_sa(const cpa_interface_t& tunnel, const kestrix_ce_cipher_list_t* record,
             cpa_netlink_ctr_t& counter);

  // Removes the SA with destination `dst`, SPI `spi` (host order) and
  // protocol `proto`, counted in `counter`. 0, or non-zero on a refusal.
  int delete_sa(const kestrix_addr& dst, uint32_t spi, uint8_t proto, cpa_netlink_ctr_t& counter);

 private:
  struct Binding;
  PolicyTemplate current_template(const cpa_interface_t& tunnel,
                                  const kestrix_ce_cipher_list_t* skip = nullptr) const;
  int reprogram_with(const cpa_interface_t& tunnel, const PolicyTemplate& tmpl);
  int follow_sa(const cpa_interface_t& tunnel, const kestrix_ce_cipher_list_t& record);
  ce_status_t install_ace(const kestrix_crypto_ace& ace, uint32_t update, const Binding& binding);
  int add_inbound(uint32_t update, XfrmPolicyArgs in);
  void take_back(const cpa_spd_policy_t& policy, const ace_netlink_t* failed, const Binding& binding);
  size_t delete_policies(const ace_netlink_t& ace, const Binding& binding, uint32_t index);

  NetlinkTransport& nl_;
  const KernelBackend& backend_;
  cpa_netlink_global_ctr_t& counters_;
  int replay_window_;
};

}  // namespace cpa
