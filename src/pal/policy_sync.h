// The kernel's copy of a tunnel's policies: each ACE of an installed policy
// stands for one outbound and one inbound kernel policy, the inbound one
// remembered in the policy as a twin ACE. Installing, removing and
// re-programming them, and handing cipher records to the kernel SA builder.
#pragma once

#include <cstdint>

#include "agent/agent.h"
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

// Installs the kernel policies of every ACE of a new policy (transport mode,
// ESP, or in linux mode the template of the tunnel's outbound SAs; bound to
// tunnel `tunnid`'s device and request id `reqid`) and puts
// the inbound twins at the head of its ACE list. `update` 0 adds, non-zero
// replaces. At the first failing ACE only that ACE's outbound policy is
// taken back; the kernel policies of the ACEs before it stay.
ce_status_t kestrix_nl_policy_update(Agent& agent, cpa_spd_policy_t* policy, uint32_t tunnid,
                                     uint32_t update, uint32_t reqid);

// Puts the inbound twin of `ace_ptr` at the head of the policy's ACE list.
ce_status_t kestrix_alloc_append_inb_ace(cpa_spd_policy_t* policy, const ace_netlink_t* ace_ptr);

// Removes the kernel policies of the newest policy of the tunnel in slot
// `cpa_indx`, in list order (twins first), stopping at the first refusal.
// The policy record itself stays with the caller.
ce_status_t kestrix_nl_policy_delete(Agent& agent, uint32_t cpa_indx);

// Re-programs every kernel policy of the tunnel's newest policy with the
// negotiated mode (0 transport, 1 tunnel) and IPsec protocol. 0 on success,
// else the first failing kernel result (or 1 when there is nothing to do).
// Nothing to do in linux mode, where the policies follow the SAs instead.
int kestrix_upd_policies(Agent& agent, const cpa_interface_t* cpa_elem, uint8_t tunn_mode,
                         uint8_t ah_proto);
// The same with a whole template, endpoints included.
int kestrix_upd_policies(Agent& agent, const cpa_interface_t* cpa_elem, const PolicyTemplate& tmpl);

// The template that resolves to the SA of this cipher record.
PolicyTemplate sa_policy_template(const kestrix_ce_cipher_info& ci);

// Linux mode: a stock kernel resolves a policy only to SAs of its template's
// protocol and mode (and, in tunnel mode, endpoints). When the outbound SA
// of `sa_info` wants another template than the tunnel's policies carry (the
// tunnel's other outbound SAs', or transport and ESP before the first), the
// policies are re-programmed from it. Later ACLs of the tunnel are installed
// with its outbound SAs' template. 0 when nothing was needed (always on the
// platform, for inbound SAs, and for a tunnel without policies) or the
// re-programming succeeded, else its result. kestrix_nl_sa_add calls it for
// every SA the kernel took.
int kestrix_policies_follow_sa(Agent& agent, const cpa_interface_t* tunnel,
                               const kestrix_ce_cipher_list_t& sa_info);

// Hands one cipher record to the kernel SA builder. 0 when the kernel took
// the SA (or there was no record: nothing is sent), non-zero otherwise. In
// linux mode the tunnel's policies then follow an outbound SA (see
// kestrix_policies_follow_sa); a failure there is this call's result.
int kestrix_nl_sa_add(Agent& agent, const kestrix_ce_cipher_list_t* sa_info, uint32_t tunnid,
                      uint32_t reqid, cpa_netlink_ctr_t* sptr);

}  // namespace cpa
