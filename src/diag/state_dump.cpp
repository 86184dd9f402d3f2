#include "diag/state_dump.h"

#include "diag/log.h"

namespace cpa {

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
  // Policies and SAs are not kept yet: every tunnel's lists are empty.
  cpa_log(LOG_INFO, ">>>KESTRIX POLICIES BEGIN<<<");
  cpa_log(LOG_DEBUG, "NO policy in list to display!");
  cpa_log(LOG_INFO, ">>>KESTRIX POLICIES END<<<");
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs BEGIN<<<");
  cpa_log(LOG_DEBUG, "No Inbound SAs in list to display!");
  cpa_log(LOG_INFO, ">>>KESTRIX INBOUND SAs END<<<");
  cpa_log(LOG_INFO, ">>>KESTRIX OUTBOUND SAs BEGIN<<<");
  cpa_log(LOG_DEBUG, "No Outbound SAs in list to display!");
  cpa_log(LOG_INFO, ">>>KESTRIX OUTBOUND SAs END<<<");
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
