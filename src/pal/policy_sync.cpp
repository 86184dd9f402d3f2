#include "pal/policy_sync.h"

#include <optional>
#include <span>
#include <utility>

#include "base/log.h"
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"

namespace cpa {
namespace {

constexpr uint8_t kPolicyAllow = 0;
constexpr uint8_t kPolicyBlock = 1;
constexpr uint8_t kTunnelMode = 1;
constexpr uint32_t kDelete = 1;
constexpr uint8_t kXfrmPolicyFwd = 2;

// What ties a kernel policy to its tunnel: the device, the SAs' request id,
// and the template.
struct TunnelBinding {
  uint32_t tunnelid;
  uint32_t reqid;
  PolicyTemplate tmpl;
};

bool linux_mode(const Agent& agent) { return agent.settings.kernel_flavour == KernelFlavour::kLinux; }

// The kernel directions one ACE entry stands for. A stock kernel checks the
// decrypted traffic it forwards to the sites behind the host against
// forward policies, so there every inbound policy has a forward copy.
std::span<const uint8_t> kernel_dirs(const Agent& agent, uint32_t ace_dir) {
  static constexpr uint8_t kOut[] = {kAceDirOut};
  static constexpr uint8_t kIn[] = {kAceDirIn};
  static constexpr uint8_t kInAndFwd[] = {kAceDirIn, kXfrmPolicyFwd};
  if (ace_dir == kAceDirOut) return kOut;
  return linux_mode(agent) ? std::span<const uint8_t>(kInAndFwd) : std::span<const uint8_t>(kIn);
}

// The template a stock kernel resolves to the tunnel's SAs: that of its
// newest outbound SA other than `skip`, or the default (transport, ESP)
// before it has one. The platform always starts from the default.
PolicyTemplate current_template(const Agent& agent, const cpa_interface_t* tunnel,
                                const kestrix_ce_cipher_list_t* skip = nullptr) {
  if (linux_mode(agent) && tunnel)
    for (const cpa_outbound_sa_t& sa : tunnel->outb_sa_list)
      if (sa.sa_info && sa.sa_info.get() != skip) return sa_policy_template(sa.sa_info->ce_cipher);
  return PolicyTemplate{};
}

// Only permit and deny ACEs can be installed.
std::optional<uint8_t> kernel_action(uint32_t ace_type) {
  if (ace_type == kestrix_ace_permit) return kPolicyAllow;
  if (ace_type == kestrix_ace_deny_action) return kPolicyBlock;
  cpa_log(LOG_ERR, "ERROR: wrong ace type");
  return std::nullopt;
}

// The kernel policy an ACE stands for in direction `dir`, from its fields as
// they are (a twin's are already swapped).
XfrmPolicyArgs kernel_policy(const kestrix_crypto_ace& ace, uint32_t dir, uint8_t action,
                             const TunnelBinding& tunnel) {
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
  p.tunnelid = tunnel.tunnelid;
  p.reqid = tunnel.reqid;
  p.tun_mode = tunnel.tmpl.mode;
  p.sec_protocol = tunnel.tmpl.protocol;
  // Inbound SAs come from the peer: the template's endpoints turn round.
  const bool outbound = dir == kAceDirOut;
  p.tmpl_src = outbound ? tunnel.tmpl.local : tunnel.tmpl.remote;
  p.tmpl_dst = outbound ? tunnel.tmpl.remote : tunnel.tmpl.local;
  return p;
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

cpa_netlink_ctr_t* delete_counter(cpa_netlink_global_ctr_t& ctrs, uint32_t dir) {
  if (dir == kAceDirOut) return &ctrs.n_outbound_policy_del;
  if (dir == kAceDirIn) return &ctrs.n_inbound_policy_del;
  return nullptr;
}

// The inbound policy of an ACE in each of its kernel directions, counted
// once; a refusal takes back the directions added before it.
int add_inbound(Agent& agent, uint32_t update, XfrmPolicyArgs in) {
  const std::span<const uint8_t> dirs = kernel_dirs(agent, kAceDirIn);
  for (size_t i = 0; i < dirs.size(); ++i) {
    in.dir = dirs[i];
    cpa_netlink_ctr_t* counted = i == 0 ? &agent.counters.netlink_dbg_ctrs.n_inbound_policy_add : nullptr;
    if (kestrix_nlink_policy_add(agent.nlink, update, in, counted) == 0) continue;
    for (size_t added = 0; added < i; ++added) {
      in.dir = dirs[added];
      kestrix_nlink_policy_getordel(agent.nlink, kDelete, in, 0, nullptr);
    }
    return 1;
  }
  return 0;
}

// Both kernel policies of one ACE of a new policy. When the inbound one is
// refused the outbound one is taken back, by selector: its kernel index has
// not reached the agent yet.
ce_status_t install_ace(Agent& agent, const kestrix_crypto_ace& ace, uint32_t update,
                        const TunnelBinding& tunnel) {
  if (ace.ip_type != crypto_ace_ipv4) return CRYPTO_ERR_INVALID;
  const std::optional<uint8_t> action = kernel_action(ace.type);
  if (!action) return CRYPTO_ERR_UNSUPPORTED;
  cpa_netlink_global_ctr_t& ctrs = agent.counters.netlink_dbg_ctrs;
  const XfrmPolicyArgs out = kernel_policy(ace, kAceDirOut, *action, tunnel);
  cpa_log(LOG_DEBUG, "GOING FOR OUT NETLINK POLICY");
  if (kestrix_nlink_policy_add(agent.nlink, update, out, &ctrs.n_outbound_policy_add) != 0) {
    cpa_log(LOG_ERR, "Error in outbound policy creation");
    return CRYPTO_ERR_INTERNAL;
  }
  cpa_log(LOG_DEBUG, "GOING FOR IN NETLINK POLICY");
  if (add_inbound(agent, update, kernel_policy(mirrored(ace), kAceDirIn, *action, tunnel)) != 0) {
    cpa_log(LOG_ERR, "Error in inbound policy creation");
    kestrix_nlink_policy_getordel(agent.nlink, kDelete, out, 0, &ctrs.n_outbound_policy_del);
    return CRYPTO_ERR_INTERNAL;
  }
  return CRYPTO_NO_ERR;
}

}  // namespace

ce_status_t kestrix_nl_policy_update(Agent& agent, cpa_spd_policy_t* policy, uint32_t tunnid,
                                     uint32_t update, uint32_t reqid) {
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
  uint32_t slot = 0;
  const bool known = agent.tunnels.kestrix_sadb_lookup_by_reqid(&slot, reqid) == 0;
  const TunnelBinding tunnel{tunnid, reqid, current_template(agent, known ? agent.tunnels.at(slot) : nullptr)};
  // Twins go to the head of the list, so the walk over the request's ACEs
  // goes on through the successors they had before: none of them changes.
  for (ace_netlink_t* ace = policy->ace_entry.head(); ace; ace = ace->next.get()) {
    ce_status_t status = install_ace(agent, ace->ace, update, tunnel);
    if (status == CRYPTO_NO_ERR) status = kestrix_alloc_append_inb_ace(policy, ace);
    if (status != CRYPTO_NO_ERR) return status;
  }
  return CRYPTO_NO_ERR;
}

ce_status_t kestrix_alloc_append_inb_ace(cpa_spd_policy_t* policy, const ace_netlink_t* ace_ptr) {
  if (!policy || !ace_ptr) {
    cpa_log(LOG_DEBUG, "Null policy or ace_ptr");
    return CRYPTO_ERR_INTERNAL;
  }
  std::unique_ptr<ace_netlink_t> twin = new_record<ace_netlink_t>();
  if (!twin) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    cpa_log(LOG_ERR, "Null ace_node");
    return CRYPTO_ERR_RESOURCES;
  }
  twin->ace = mirrored(ace_ptr->ace);
  twin->dir = kAceDirIn;
  insert_node_ace(policy->ace_entry, std::move(twin));
  return CRYPTO_NO_ERR;
}

// Only the first ACE of each direction ever receives a kernel index, so on
// the platform an ACE's k_index may name the kernel policy of another ACE of
// the policy; the others are deleted by selector. A stock kernel finds each
// policy by selector, direction and interface id, so there every ACE
// removes exactly its own.
ce_status_t kestrix_nl_policy_delete(Agent& agent, uint32_t cpa_indx) {
  if (cpa_indx < 1 || cpa_indx >= TunnelTable::kSlots) {
    cpa_log(LOG_DEBUG, "Invalid index");
    return CRYPTO_ERR_INTERNAL;
  }
  const cpa_interface_t* entry = agent.tunnels.at(cpa_indx);
  if (!entry) {
    cpa_log(LOG_DEBUG, "ERROR: no cpa info @ given index [%d]", cpa_indx);
    return CRYPTO_ERR_INTERNAL;
  }
  const cpa_spd_policy_t* policy = entry->head_policy.head();
  if (!policy) {
    cpa_log(LOG_DEBUG, "ERROR: no policy in sadb [%d] to delete", cpa_indx);
    return CRYPTO_ERR_INTERNAL;
  }
  if (policy->ace_entry.empty()) {
    cpa_log(LOG_ERR, "ERROR: no ace for policy at index %d", cpa_indx);
    return CRYPTO_ERR_INTERNAL;
  }
  const TunnelBinding tunnel{entry->tunnelid, entry->reqid, PolicyTemplate{}};
  const uint32_t by_selector = 0;
  for (const ace_netlink_t& ace : policy->ace_entry) {
    cpa_log(LOG_DEBUG, "DEL ACE  %x next %x", log_addr(&ace), log_addr(ace.next.get()));
    const uint32_t index = linux_mode(agent) ? by_selector : static_cast<uint32_t>(ace.k_index);
    for (const uint8_t dir : kernel_dirs(agent, ace.dir)) {
      const XfrmPolicyArgs selector = kernel_policy(ace.ace, dir, kPolicyAllow, tunnel);
      if (kestrix_nlink_policy_getordel(agent.nlink, kDelete, selector, index,
                                        delete_counter(agent.counters.netlink_dbg_ctrs, dir)) != 0) {
        cpa_log(LOG_ERR, " %s", "ERROR: Could not delete policy");
        return CRYPTO_ERR_INTERNAL;
      }
    }
  }
  cpa_log(LOG_INFO, "Returning success from kestrix_nl_policy_delete");
  return CRYPTO_NO_ERR;
}

// In linux mode the policies follow the outbound SAs as the kernel takes
// them (kestrix_nl_sa_add), endpoints included; mode and protocol alone would
// undo that.
int kestrix_upd_policies(Agent& agent, const cpa_interface_t* cpa_elem, uint8_t tunn_mode,
                         uint8_t ah_proto) {
  if (linux_mode(agent)) return 0;
  return kestrix_upd_policies(agent, cpa_elem, PolicyTemplate{tunn_mode, ah_proto, 0, 0});
}

// A twin (type 0) is re-programmed as allow, also when it mirrors a deny ACE.
int kestrix_upd_policies(Agent& agent, const cpa_interface_t* cpa_elem, const PolicyTemplate& tmpl) {
  const cpa_spd_policy_t* policy = cpa_elem ? cpa_elem->head_policy.head() : nullptr;
  if (!policy) {
    cpa_log(LOG_ERR, "No Policies found");
    return 1;
  }
  cpa_log(LOG_DEBUG, "Policy head 0x%x\n", log_addr(policy));
  if (policy->ace_entry.empty()) return 1;
  const TunnelBinding tunnel{cpa_elem->tunnelid, cpa_elem->reqid, tmpl};
  for (const ace_netlink_t& ace : policy->ace_entry) {
    cpa_log(LOG_DEBUG, "Updating policy 0x%x in dir %d\n", log_addr(&ace), ace.dir);
    const std::optional<uint8_t> action = kernel_action(ace.ace.type);
    if (!action) return 1;
    for (const uint8_t dir : kernel_dirs(agent, ace.dir)) {
      cpa_netlink_ctr_t* counted =
          dir == kAceDirOut ? &agent.counters.netlink_dbg_ctrs.n_outbound_policy_add : nullptr;
      const int rc = kestrix_nlink_policy_add(agent.nlink, 1,
                                              kernel_policy(ace.ace, dir, *action, tunnel), counted);
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

int kestrix_policies_follow_sa(Agent& agent, const cpa_interface_t* tunnel,
                               const kestrix_ce_cipher_list_t& sa_info) {
  if (!linux_mode(agent) || !sa_info.ce_cipher.outbound) return 0;
  const PolicyTemplate wanted = sa_policy_template(sa_info.ce_cipher);
  if (wanted == current_template(agent, tunnel, &sa_info)) return 0;
  // A tunnel without policies has nothing to re-program; its ACLs take the
  // SA's template when they come.
  const cpa_spd_policy_t* policy = tunnel ? tunnel->head_policy.head() : nullptr;
  if (!policy || policy->ace_entry.empty()) return 0;
  cpa_log(LOG_DEBUG, "Updating policies to the SA: mode %d proto %d", wanted.mode, wanted.protocol);
  return kestrix_upd_policies(agent, tunnel, wanted);
}

int kestrix_nl_sa_add(Agent& agent, const kestrix_ce_cipher_list_t* sa_info, uint32_t tunnid,
                      uint32_t reqid, cpa_netlink_ctr_t* sptr) {
  if (!sa_info) {
    cpa_log(LOG_DEBUG, "Null sa info");
    return 0;
  }
  const int rc = kestrix_nlink_sa_add(agent.nlink, *sa_info, tunnid, reqid, sptr,
                                     agent.settings.g_replay_window_size);
  if (rc != 0) return rc;
  uint32_t slot = 0;
  if (agent.tunnels.kestrix_sadb_lookup_by_reqid(&slot, reqid) != 0) return 0;
  return kestrix_policies_follow_sa(agent, agent.tunnels.at(slot), *sa_info);
}

}  // namespace cpa
