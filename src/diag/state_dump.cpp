#include "diag/state_dump.h"

#include "base/log.h"

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

template <class Sa>
void dump_sa_list(const ObjectList<Sa>& list, const char* empty, const char* title,
                  void (*dump)(const Sa&)) {
  if (list.empty()) {
    cpa_log(LOG_DEBUG, "%s", empty);
    return;
  }
  for (const Sa& sa : list) {
    cpa_log(LOG_INFO, "%s", title);
    dump(sa);
  }
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
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs BEGIN<<<");
  kestrix_dump_inb_sa_lst(cpa_elem->inb_sa_list);
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs END<<<");
  cpa_log(LOG_INFO, ">>>KESTRIX OUTBOUND SAs BEGIN<<<");
  kestrix_dump_outb_sa_lst(cpa_elem->outb_sa_list);
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

void kestrix_dump_inb_sa_lst(const InboundSaList& sa) {
  dump_sa_list(sa, "No Inbound SAs in list to display!", "***INBOUND SA:", kestrix_dump_inb_sa);
}

void kestrix_dump_inb_sa(const cpa_inbound_sa_t& sa) {
  char dest[16];
  char src[16];
  cpa_log(LOG_DEBUG,
          "\n spi [0x%x], protocol [%d], dest_addr [%s], src_addr [%s] ipsec_sa [%x] \nsrc_mask "
          "[%d] dest_mask [%d], static_seqno [%d], dyn_seq_no [%d]\nfvrf [%d], ace_index [%d]",
          sa.spi, sa.protocol, kestrix_num2ip4(sa.dest_addr.ip_address, dest),
          kestrix_num2ip4(sa.src_addr.ip_address, src), sa.sa, sa.src_mask, sa.dest_mask,
          sa.static_seqno, sa.dyn_seq_no, sa.fvrf, sa.ace_index);
  cpa_log(LOG_DEBUG, "INBOUND action:");
  kestrix_dump_action(sa.action);
  kestrix_dump_cipher_info(sa.sa_info.get());
}

void kestrix_dump_outb_sa_lst(const OutboundSaList& sa) {
  dump_sa_list(sa, "No Outbound SAs in list to display!", "***OUTBOUND SA:", kestrix_dump_outb_sa);
}

void kestrix_dump_outb_sa(const cpa_outbound_sa_t& sa) {
  char dest[16];
  char src[16];
  // The flow id is shown by its low 32 bits.
  cpa_log(LOG_DEBUG,
          "\nspi [0x%x], protocol [%d], dest_addr [%s], src_addr [%s] sa [%d]\nstatic_seqno [%d], "
          "dyn_seq_no [%d], ivrf [%d], ace_index [%d]\n",
          sa.spi, sa.protocol, kestrix_num2ip4(sa.dest_addr.ip_address, dest),
          kestrix_num2ip4(sa.src_addr.ip_address, src), static_cast<uint32_t>(sa.sa),
          sa.static_seq_no, sa.dyn_seqno, sa.ivrf, sa.ace_index);
  cpa_log(LOG_DEBUG, "INBOUND action:");
  kestrix_dump_action(sa.inbound);
  cpa_log(LOG_DEBUG, "OUTBOUND action:");
  kestrix_dump_action(sa.outbound);
  kestrix_dump_cipher_info(sa.sa_info.get());
}

// Every field of the cipher information block in its order, two to a line.
void kestrix_dump_cipher_info(const kestrix_ce_cipher_list_t* ce_info) {
  if (!ce_info) return;
  const kestrix_ce_cipher_info& c = ce_info->ce_cipher;
  char source[16];
  char dest[16];
  char orig_remote[16];
  using u64 = unsigned long long;
  cpa_log(LOG_DEBUG,
          "\noutbound [%d], esp_used [%d],\nesp_cipher [%d], esp_cipher_key_length [%d],\n"
          "esp_mac [%d], esp_spi [0x%x],\nah_used [%d], ah_mac [%d],\n"
          "ah_spi [0x%x], ippcp_used [%d],\ncpi [%d], antireplay_window_size [%d],\n"
          "source [%s], dest [%s],\npreserve_header [%d], tunnel_id [%d],\n"
          "mode [%d], inner_format [%d],\nouter_format [%d], ipv4_df_setting [%d],\n"
          "ipv6_flow_label [%d], do_antireplay_check [%d],\n"
          "extended_sequence_number [%d], replay_enabled [%d],\n"
          "tunnel_mode [%d], ipsec_inline_tagging_enabled [%d],\n"
          "udp_encaps [%d], udp_source_port [%d],\nudp_dest_port [%d], orig_remote_ip_addr [%s],\n"
          "ctcp_encaps [%d], standby [%d],\npeer_handle [%d], soft_time_lifetime [%llu],\n"
          "hard_time_lifetime [%llu], soft_volume_lifetime [%llu],\n"
          "hard_volume_lifetime [%llu], negotiated_lifetime [%llu],\n"
          "sa_handle [%d], prefrag_setting [%d],\ninitial_mtu [%d], plaintext_mtu [%d],\n"
          "cmd_handle [%d], qos_group [%d],\nqos_preclassify [%d], HA_ipsec_update_interval [%d],\n"
          "gcm_iv_low_value [%llu], gcm_iv_high_value [%llu],\n"
          "gcm_iv_warning_count [%llu], transform_negotiated_flags [%d],\n"
          "support_dummy_packet [%d]",
          c.outbound, c.esp_used, c.esp_cipher, c.esp_cipher_key_length, c.esp_mac, c.esp_spi,
          c.ah_used, c.ah_mac, c.ah_spi, c.ippcp_used, c.cpi, c.antireplay_window_size,
          kestrix_num2ip4(c.source.ip_address, source), kestrix_num2ip4(c.dest.ip_address, dest),
          c.preserve_header, c.tunnel_id, c.mode, c.inner_format, c.outer_format,
          c.ipv4_df_setting, c.ipv6_flow_label, c.do_antireplay_check, c.extended_sequence_number,
          c.kestrix_timebased_replay_check.replay_enabled,
          c.kestrix_timebased_replay_check.tunnel_mode, c.ipsec_inline_tagging_enabled,
          c.udp_encaps, c.udp_source_port, c.udp_dest_port,
          kestrix_num2ip4(c.orig_remote_ip_addr.ip_address, orig_remote), c.ctcp_encaps, c.standby,
          c.peer_handle, u64{c.soft_time_lifetime}, u64{c.hard_time_lifetime},
          u64{c.soft_volume_lifetime}, u64{c.hard_volume_lifetime}, u64{c.negotiated_lifetime},
          c.sa_handle, c.prefrag_setting, c.initial_mtu, c.plaintext_mtu, c.cmd_handle,
          c.qos_group, c.qos_preclassify, c.HA_ipsec_update_interval, u64{c.gcm_iv_low_value},
          u64{c.gcm_iv_high_value}, u64{c.gcm_iv_warning_count}, c.transform_negotiated_flags,
          c.support_dummy_packet);
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
