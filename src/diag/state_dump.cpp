#include "diag/state_dump.h"

#include "diag/log.h"

namespace cpa {
namespace {

struct TitledAction {
  const char* title;
  kestrix_cdh_action cpa_spd_policy_t::*action;
};
constexpr TitledAction kPolicyActions[] = {
    {"INBOUND action:", &cpa_spd_policy_t::inbound},
    {"OUTBOUND action:", &cpa_spd_policy_t::outbound},
    {"INBOUND_DENY action:", &cpa_spd_policy_t::inbound_deny},
    {"OUTBOUND_DENY action:", &cpa_spd_policy_t::outbound_deny},
};

void dump_policy(const cpa_spd_policy_t& policy, int n) {
  cpa_log(LOG_INFO, "***POLICY %d:", n);
  cpa_log(LOG_DEBUG, "STATIC_SEQNO [%d] DYNAMIC_SEQNO [%d] ", policy.static_seqno,
          policy.dynamic_seqno);
  for (const TitledAction& slot : kPolicyActions) {
    cpa_log(LOG_INFO, "%s", slot.title);
    kestrix_dump_action(policy.*slot.action);
  }
  cpa_log(LOG_INFO, "    KESTRIX ACES BEGIN");
  kestrix_dump_ace_lst(policy.ace_entry);
  cpa_log(LOG_INFO, "    KESTRIX ACES END");
}

void dump_ipv4_selector(const kestrix_crypto_ace_ipv4& ip4) {
  char local[16];
  char remote[16];
  cpa_log(LOG_DEBUG,
          "local_addr4 [%s], local_mask4 [%d], remote_addr4 [%s], remote_mask4 [%d]\nprotocol "
          "[%d], any_port [%d]",
          kestrix_num2ip4(ip4.local_addr, local), ip4.local_mask,
          kestrix_num2ip4(ip4.remote_addr, remote), ip4.remote_mask, ip4.protocol, ip4.any_port);
}

}  // namespace

void kestrix_dump_cpa_intf(const cpa_interface_t* cpa_elem, int i) {
  if (!cpa_elem) {
    cpa_log(LOG_DEBUG, "NULL cpa elem!");
    return;
  }
  cpa_log(LOG_DEBUG, "[%d]CPA_INTERFACE_DUMP[%d]", i, i);
  cpa_log(LOG_DEBUG, "SADBHANDLE [%d] REQID [%d] TUNNELID [%d]", cpa_elem->sadb_handle,
          cpa_elem->reqid, cpa_elem->tunnelid);
  cpa_log(LOG_DEBUG, "CALLBACK_HANDLLE [0x%x], CREATE_HANDLE [0x%x], CMD_STATE [%d], HINT [%d]",
          cpa_elem->callback_handle, cpa_elem->create_handle, cpa_elem->cmd_state, cpa_elem->hint);
  cpa_log(LOG_DEBUG, "ATTRIBUTE [%d], VALUE [%d] IS_V6 [%d]", cpa_elem->attribute, cpa_elem->value,
          cpa_elem->is_v6);
  cpa_log(LOG_INFO, ">>>KESTRIX POLICIES BEGIN<<<");
  kestrix_dump_policy_lst(cpa_elem->head_policy);
  cpa_log(LOG_INFO, ">>>KESTRIX POLICIES END<<<");
  // SAs are not kept yet: every tunnel's SA lists are empty.
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs BEGIN<<<");
  cpa_log(LOG_DEBUG, "No Inbound SAs in list to display!");
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs END<<<");
  cpa_log(LOG_INFO, ">>>KESTRIX OUTBOUND SAs BEGIN<<<");
  cpa_log(LOG_DEBUG, "No Outbound SAs in list to display!");
  cpa_log(LOG_INFO, ">>>KESTRIX OUTBOUND SAs END<<<");
}

void kestrix_dump_policy_lst(const PolicyList& head) {
  if (head.empty()) {
    cpa_log(LOG_DEBUG, "NO policy in list to display!");
    return;
  }
  int n = 0;
  for (const cpa_spd_policy_t& policy : head) dump_policy(policy, n++);
}

void kestrix_dump_ace_lst(const AceList& ace_entry) {
  if (ace_entry.empty()) {
    cpa_log(LOG_DEBUG, "NO ace in list to display!");
    return;
  }
  for (const ace_netlink_t& ace : ace_entry) {
    cpa_log(LOG_INFO, "calling ace dump routne!");
    kestrix_dump_ace(ace);
  }
}

void kestrix_dump_ace(const ace_netlink_t& entry) {
  const kestrix_crypto_ace& ace = entry.ace;
  cpa_log(LOG_INFO, "Kernel Index [%d], direction [%s](%d)", entry.k_index,
          entry.dir ? "OUT" : "IN", entry.dir);
  cpa_log(LOG_DEBUG, "IP_TYPE [%d] TYPE [%d] seqno [%d] reverse [%d] handle [%d] hint [%d]\n",
          ace.ip_type, ace.type, ace.seqno, ace.reverse, ace.handle, ace.hint);
  if (ace.ip_type == crypto_ace_ipv4) dump_ipv4_selector(ace.selector.ipv4);
  log_ace_summary(
      "ACE: ip_type %d, type %d, seqno %d, reverse %d,handle %d, hint %d, ip4_local_addr 0x%x \n "
      "ip4_local_mask %d, ip4_rem_addr 0x%x, ip4_rem_mask %d, protocol %d, any_port %d",
      ace);
}

void kestrix_dump_action(const kestrix_cdh_action& act) {
  const kestrix_cdh_action_data& data = act.data;
  switch (act.action) {
    case CDH_ACTION_DISCARD_PACKET:
      cpa_log(LOG_DEBUG, "action: DISCARD_PACKET");
      break;
    case CDH_ACTION_DISCARD_PACKET_NOTIFY_RP:
      cpa_log(LOG_DEBUG, "action: DISCARD_PACKET_NOTIFY_RP");
      cpa_log(LOG_DEBUG, "notify_rp_handle [0x%x]", data.notify_rp_handle);
      break;
    case CDH_ACTION_FORWARD_PACKET:
      cpa_log(LOG_DEBUG, "action: FORWARD_PACKET");
      break;
    case CDH_ACTION_DECRYPT_PACKET:
      cpa_log(LOG_DEBUG, "action: DECRYPT_PACKET");
      cpa_log(LOG_DEBUG,
              "decrypt sa [0x%x] post_decrypt_check [0x%x]  post_decrypt_ivrf [0x%x]reinject [%d] "
              "tunnel_id [%d]",
              data.decrypt.sa, static_cast<uint32_t>(data.decrypt.post_decrypt_check),
              data.decrypt.post_decrypt_ivrf, data.decrypt.reinject, data.decrypt.tunnel_id);
      break;
    case CDH_ACTION_ENCRYPT_PACKET:
      cpa_log(LOG_DEBUG, "action: ENCRYPT_PACKET");
      cpa_log(LOG_DEBUG, "encrypt.sa [%d], encrypt.post_encrypt_fvrf [%d], dummy_generate [%d] ",
              data.encrypt.sa, data.encrypt.post_encrypt_fvrf, data.encrypt.dummy_generate);
      break;
    default:
      cpa_log(LOG_ERR, "action: INVALID");
  }
}

void kestrix_dump_cpa_peer_params(const cdh_peer_parameters* peer) {
  if (!peer) {
    cpa_log(LOG_DEBUG, "NULL peer!");
    return;
  }
  cpa_log(LOG_DEBUG,
          "do_idle_timer [%d], idle_timer_settings [%d], idle_timer_handle [%d]\ndo_dpd [%d], "
          "dpd_threshold [%d], dpd_handle [%d], do_translation [%d]\ninside_remort_port [%d], "
          "outside_remote_port [%d]",
          peer->do_idle_timer, peer->idle_timer_setting, peer->idle_timer_handle, peer->do_dpd,
          peer->dpd_threshold, peer->dpd_handle, peer->do_translation, peer->inside_remote_port,
          peer->outside_remote_port);
}

void kestrix_dump_all_tunnels(const TunnelTable& tunnels) {
  int n = 0;
  for (uint32_t slot = 0; slot < TunnelTable::kSlots; ++slot)
    if (const cpa_interface_t* entry = tunnels.at(slot)) kestrix_dump_cpa_intf(entry, n++);
}

}  // namespace cpa
