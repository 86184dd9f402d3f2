#include "kernel/tunnel_programming.h"

#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "base/log.h"
#include "kernel/rp_status.h"
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"

namespace cpa {
namespace {

constexpr uint8_t kPolicyAllow = 0;
constexpr uint8_t kPolicyBlock = 1;
constexpr uint8_t kTunnelMode = 1;
constexpr uint32_t kDelete = 1;
constexpr uint32_t kReplace = 1;
constexpr uint8_t kXfrmPolicyFwd = 2;
constexpr uint32_t kBySelector = 0;  // the kernel index of a delete that names the selector

// The kernel directions one ACE entry stands for.
std::span<const uint8_t> kernel_dirs(const KernelBackend& backend, uint32_t ace_dir) {
  static constexpr uint8_t kOut[] = {kAceDirOut};
  static constexpr uint8_t kIn[] = {kAceDirIn};
  static constexpr uint8_t kInAndFwd[] = {kAceDirIn, kXfrmPolicyFwd};
  if (ace_dir == kAceDirOut) return kOut;
  return backend.forward_copies ? std::span<const uint8_t>(kInAndFwd) : std::span<const uint8_t>(kIn);
}

// Only permit and deny ACEs can be installed.
std::optional<uint8_t> kernel_action(uint32_t ace_type) {
  if (ace_type == kestrix_ace_permit) return kPolicyAllow;
  if (ace_type == kestrix_ace_deny_action) return kPolicyBlock;
  cpa_log(LOG_ERR, "ERROR: wrong ace type");
  return std::nullopt;
}

// The ACE of an inbound twin: addresses, prefixes and first ports of the ACE
// swapped, the same protocol, everything else zero.
kestrix_crypto_ace mirrored(const kestrix_crypto_ace& ace) {
  const kestrix_crypto_ace_ipv4& from = ace.selector.ipv4;
  kestrix_crypto_ace twin{};
  kestrix_crypto_ace_ipv4& to = twin.selector.ipv4;
  to.local_addr = from.remote_addr;
  to.local_mask = from.remote_mask;
  to.remote_addr = from.local_addr;
  to.remote_mask = from.local_mask;
  to.local_port.port[0] = from.remote_port.port[0];
  to.remote_port.port[0] = from.local_port.port[0];
  to.protocol = from.protocol;
  return twin;
}

// The inbound twin record of `ace`, or null when memory is exhausted.
std::unique_ptr<ace_netlink_t> twin_of(const ace_netlink_t& ace) {
  std::unique_ptr<ace_netlink_t> twin = new_record<ace_netlink_t>();
  if (!twin) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    cpa_log(LOG_ERR, "Null ace_node");
    return nullptr;
  }
  twin->ace = mirrored(ace.ace);
  twin->dir = kAceDirIn;
  return twin;
}

cpa_netlink_ctr_t* delete_counter(cpa_netlink_global_ctr_t& ctrs, uint32_t dir) {
  if (dir == kAceDirOut) return &ctrs.n_outbound_policy_del;
  if (dir == kAceDirIn) return &ctrs.n_inbound_policy_del;
  return nullptr;
}

}  // namespace

// What ties a kernel policy to its tunnel: the device, the SAs' request id,
// and the template.
struct TunnelKernelProgram::Binding {
  uint32_t tunnelid;
  uint32_t reqid;
  PolicyTemplate tmpl;

  // The kernel policy an ACE stands for in direction `dir`, from its fields
  // as they are (a twin's are already swapped).
  XfrmPolicyArgs policy(const kestrix_crypto_ace& ace, uint32_t dir, uint8_t action) const {
    const kestrix_crypto_ace_ipv4& ip4 = ace.selector.ipv4;
    XfrmPolicyArgs p;
    p.src = ip4.local_addr;
    p.smask = ip4.local_mask;
    p.dst = ip4.remote_addr;
    p.dmask = ip4.remote_mask;
    p.sport = ip4.local_port.port[0];
    p.dport = ip4.remote_port.port[0];
    p.family = AF_INET;
    p.dir = static_cast<uint8_t>(dir);
    p.proto = static_cast<uint8_t>(ip4.protocol);
    p.action = action;
    p.tunnelid = tunnelid;
    p.reqid = reqid;
    p.tun_mode = tmpl.mode;
    p.sec_protocol = tmpl.protocol;
    // Inbound SAs come from the peer: the template's endpoints turn round.
    const bool outbound = dir == kAceDirOut;
    p.tmpl_src = outbound ? tmpl.local : tmpl.remote;
    p.tmpl_dst = outbound ? tmpl.remote : tmpl.local;
    return p;
  }
};

// The template the kernel resolves to the tunnel's SAs: where templates
// follow the SAs, that of its newest outbound SA other than `skip`; else,
// and before it has one, the default (transport, ESP).
PolicyTemplate TunnelKernelProgram::current_template(const cpa_interface_t& tunnel,
                                                     const kestrix_ce_cipher_list_t* skip) const {
  if (backend_.templates_follow_sas)
    for (const cpa_outbound_sa_t& sa : tunnel.outb_sa_list)
      if (sa.sa_info && sa.sa_info.get() != skip) return sa_policy_template(sa.sa_info->ce_cipher);
  return PolicyTemplate{};
}

// The inbound policy of an ACE in each of its kernel directions, counted
// once; a refusal takes back the directions added before it.
int TunnelKernelProgram::add_inbound(uint32_t update, XfrmPolicyArgs in) {
  const std::span<const uint8_t> dirs = kernel_dirs(backend_, kAceDirIn);
  for (size_t i = 0; i < dirs.size(); ++i) {
    in.dir = dirs[i];
    cpa_netlink_ctr_t* counted = i == 0 ? &counters_.n_inbound_policy_add : nullptr;
    if (kestrix_nlink_policy_add(nl_, update, in, counted) == 0) continue;
    for (size_t added = 0; added < i; ++added) {
      in.dir = dirs[added];
      kestrix_nlink_policy_getordel(nl_, kDelete, in, 0, nullptr);
    }
    return 1;
  }
  return 0;
}

// Both kernel policies of one ACE of a new policy. When the inbound one is
// refused the outbound one is taken back, by selector: its kernel index has
// not reached the agent yet.
ce_status_t TunnelKernelProgram::install_ace(const kestrix_crypto_ace& ace, uint32_t update,
                                             const Binding& binding) {
  if (ace.ip_type != crypto_ace_ipv4) return CRYPTO_ERR_INVALID;
  const std::optional<uint8_t> action = kernel_action(ace.type);
  if (!action) return CRYPTO_ERR_UNSUPPORTED;
  const XfrmPolicyArgs out = binding.policy(ace, kAceDirOut, *action);
  cpa_log(LOG_DEBUG, "GOING FOR OUT NETLINK POLICY");
  if (const ce_status_t added = rp_status(kestrix_nlink_policy_add(nl_, update, out, &counters_.n_outbound_policy_add),
                                          CRYPTO_ERR_INTERNAL);
      added != CRYPTO_NO_ERR) {
    cpa_log(LOG_ERR, "Error in outbound policy creation");
    return added;
  }
  cpa_log(LOG_DEBUG, "GOING FOR IN NETLINK POLICY");
  if (const ce_status_t added =
          rp_status(add_inbound(update, binding.policy(mirrored(ace), kAceDirIn, *action)), CRYPTO_ERR_INTERNAL);
      added != CRYPTO_NO_ERR) {
    cpa_log(LOG_ERR, "Error in inbound policy creation");
    kestrix_nlink_policy_getordel(nl_, kDelete, out, 0, &counters_.n_outbound_policy_del);
    return added;
  }
  return CRYPTO_NO_ERR;
}

ce_status_t TunnelKernelProgram::install_policy(const cpa_interface_t& tunnel,
                                                cpa_spd_policy_t* policy, uint32_t update) {
  if (!policy) {
    cpa_log(LOG_ERR, "Null Policy");
    return CRYPTO_ERR_INTERNAL;
  }
  const kestrix_cdh_action& outbound = policy->outbound;
  cpa_log(LOG_DEBUG, "what_changed %d, policy->outbound.action %d,outbound notify_rp_handle 0x%x",
          policy->desc.what_changed, outbound.action, outbound.data.notify_rp_handle);
  // Without a handle to quote, the RP could not be asked for the SAs.
  if (outbound.action != CDH_ACTION_DISCARD_PACKET_NOTIFY_RP ||
      outbound.data.notify_rp_handle == 0) {
    cpa_log(LOG_ERR, "ERROR: Can't update/add policy");
    return CRYPTO_ERR_INVALID;
  }
  const Binding binding{tunnel.tunnelid, tunnel.reqid, current_template(tunnel)};
  // Twins go to the head of the list, so the walk over the request's ACEs
  // goes on through the successors they had before: none of them changes.
  // The twin is made first: once an ACE is in the kernel, its twin is listed.
  for (ace_netlink_t* ace = policy->ace_entry.head(); ace; ace = ace->next.get()) {
    std::unique_ptr<ace_netlink_t> twin = twin_of(*ace);
    const ce_status_t status = twin ? install_ace(ace->ace, update, binding) : CRYPTO_ERR_RESOURCES;
    if (status != CRYPTO_NO_ERR) {
      take_back(*policy, ace, binding);
      return status;
    }
    insert_node_ace(policy->ace_entry, std::move(twin));
  }
  return CRYPTO_NO_ERR;
}

// The ACEs listed before `failed` are the twins of the ACEs installed so far
// (at the head) and those ACEs: the policies they stand for are deleted, by
// selector as their kernel indexes may not have reached the agent yet, so
// that the kernel holds what it held before the request.
void TunnelKernelProgram::take_back(const cpa_spd_policy_t& policy, const ace_netlink_t* failed,
                                    const Binding& binding) {
  size_t taken = 0;
  for (const ace_netlink_t* ace = policy.ace_entry.head(); ace != failed; ace = ace->next.get())
    taken += delete_policies(*ace, binding, kBySelector);
  if (taken != 0) cpa_log(LOG_ERR, "Took back %zu kernel policies of the refused ACL", taken);
}

// Deletes the kernel policies `ace` stands for, by kernel index `index` or
// by selector (kBySelector), stopping at the first refusal. Returns how many
// went.
size_t TunnelKernelProgram::delete_policies(const ace_netlink_t& ace, const Binding& binding, uint32_t index) {
  size_t deleted = 0;
  for (const uint8_t dir : kernel_dirs(backend_, ace.dir)) {
    const XfrmPolicyArgs selector = binding.policy(ace.ace, dir, kPolicyAllow);
    if (kestrix_nlink_policy_getordel(nl_, kDelete, selector, index, delete_counter(counters_, dir)) != 0) break;
    ++deleted;
  }
  return deleted;
}

// On the platform only the first ACE of each direction ever receives a
// kernel index, so an ACE's k_index may name the kernel policy of another
// ACE of the policy; the others are deleted by selector. Removed by
// selector, each ACE removes exactly its own.
ce_status_t TunnelKernelProgram::remove_newest_policy(const cpa_interface_t& tunnel, uint32_t slot) {
  const cpa_spd_policy_t* policy = tunnel.head_policy.head();
  if (!policy) {
    cpa_log(LOG_DEBUG, "ERROR: no policy in sadb [%d] to delete", slot);
    return CRYPTO_ERR_INTERNAL;
  }
  if (policy->ace_entry.empty()) {
    cpa_log(LOG_ERR, "ERROR: no ace for policy at index %d", slot);
    return CRYPTO_ERR_INTERNAL;
  }
  const Binding binding{tunnel.tunnelid, tunnel.reqid, PolicyTemplate{}};
  for (const ace_netlink_t& ace : policy->ace_entry) {
    cpa_log(LOG_DEBUG, "DEL ACE  %x next %x", log_addr(&ace), log_addr(ace.next.get()));
    const uint32_t index = backend_.remove_by_selector ? kBySelector : static_cast<uint32_t>(ace.k_index);
    if (delete_policies(ace, binding, index) != kernel_dirs(backend_, ace.dir).size()) {
      cpa_log(LOG_ERR, " %s", "ERROR: Could not delete policy");
      return CRYPTO_ERR_INTERNAL;
    }
  }
  cpa_log(LOG_INFO, "Returning success from kestrix_nl_policy_delete");
  return CRYPTO_NO_ERR;
}

int TunnelKernelProgram::reprogram(const cpa_interface_t& tunnel, uint8_t mode, uint8_t protocol) {
  if (backend_.templates_follow_sas) return 0;
  return reprogram_with(tunnel, PolicyTemplate{mode, protocol, 0, 0});
}

// A twin (type 0) is re-programmed as allow, also when it mirrors a deny ACE.
int TunnelKernelProgram::reprogram_with(const cpa_interface_t& tunnel, const PolicyTemplate& tmpl) {
  const cpa_spd_policy_t* policy = tunnel.head_policy.head();
  if (!policy) {
    cpa_log(LOG_ERR, "No Policies found");
    return 1;
  }
  cpa_log(LOG_DEBUG, "Policy head 0x%x\n", log_addr(policy));
  if (policy->ace_entry.empty()) return 1;
  const Binding binding{tunnel.tunnelid, tunnel.reqid, tmpl};
  for (const ace_netlink_t& ace : policy->ace_entry) {
    cpa_log(LOG_DEBUG, "Updating policy 0x%x in dir %d\n", log_addr(&ace), ace.dir);
    const std::optional<uint8_t> action = kernel_action(ace.ace.type);
    if (!action) return 1;
    for (const uint8_t dir : kernel_dirs(backend_, ace.dir)) {
      cpa_netlink_ctr_t* counted = dir == kAceDirOut ? &counters_.n_outbound_policy_add : nullptr;
      const int rc = kestrix_nlink_policy_add(nl_, kReplace, binding.policy(ace.ace, dir, *action), counted);
      cpa_log(LOG_DEBUG, "policy update returns status %d\n", rc);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

PolicyTemplate sa_policy_template(const kestrix_ce_cipher_info& ci) {
  PolicyTemplate tmpl;
  tmpl.mode = ci.mode == CE_TUNNEL ? kTunnelMode : 0;
  // The protocol the SA add gives the kernel SA: ESP when used, else AH.
  tmpl.protocol = ci.esp_used ? kIpProtoEsp : ci.ah_used ? kIpProtoAh : 0;
  // Transport-mode SAs are found by the packet's own addresses.
  if (tmpl.mode == kTunnelMode) {
    tmpl.local = ci.source.ip_address;
    tmpl.remote = ci.dest.ip_address;
  }
  return tmpl;
}

// When the outbound SA of `record` wants another template than the tunnel's
// policies carry (the tunnel's other outbound SAs', or transport and ESP
// before the first), the policies are re-programmed from it. A tunnel
// without policies has nothing to re-program; its ACLs take the SA's
// template when they come.
int TunnelKernelProgram::follow_sa(const cpa_interface_t& tunnel, const kestrix_ce_cipher_list_t& record) {
  if (!backend_.templates_follow_sas || !record.ce_cipher.outbound) return 0;
  const PolicyTemplate wanted = sa_policy_template(record.ce_cipher);
  if (wanted == current_template(tunnel, &record)) return 0;
  const cpa_spd_policy_t* policy = tunnel.head_policy.head();
  if (!policy || policy->ace_entry.empty()) return 0;
  cpa_log(LOG_DEBUG, "Updating policies to the SA: mode %d proto %d", wanted.mode, wanted.protocol);
  return reprogram_with(tunnel, wanted);
}

int TunnelKernelProgram::add_sa(const cpa_interface_t& tunnel, const kestrix_ce_cipher_list_t* record,
                                cpa_netlink_ctr_t& counter) {
  if (!record) {
    cpa_log(LOG_DEBUG, "Null sa info");
    return 0;
  }
  const int rc = kestrix_nlink_sa_add(nl_, *record, tunnel.tunnelid, tunnel.reqid, &counter, replay_window_);
  if (rc != 0) return rc;
  return follow_sa(tunnel, *record);
}

int TunnelKernelProgram::delete_sa(const kestrix_addr& dst, uint32_t spi, uint8_t proto,
                                   cpa_netlink_ctr_t& counter) {
  return kestrix_nlink_sa_getordel(nl_, kDelete, dst, spi, proto, &counter);
}

}  // namespace cpa
