#include "diag/command_trace.h"

#include "base/log.h"

namespace cpa {

const char* const pal_cmd_str[26] = {
    "No Cmd",
    "KESTRIX_PAL_SADB_INIT_START",
    "KESTRIX_PAL_SADB_INIT_COMPLETED",
    "KESTRIX_PAL_SADB_DELETE",
    "KESTRIX_PAL_SADB_ATTR_UPDATE",
    "KESTRIX_PAL_SADB_INTF_ATTACH",
    "KESTRIX_PAL_SADB_INTF_UPDATE",
    "KESTRIX_PAL_SADB_INTF_DETACH",
    "KESTRIX_PAL_ACL_INSERT",
    "KESTRIX_PAL_ACL_MODIFY",
    "KESTRIX_PAL_ACL_DELETE",
    "KESTRIX_PAL_PEER_INSERT",
    "KESTRIX_PAL_PEER_DELETE",
    "KESTRIX_PAL_SPI_INSERT",
    "KESTRIX_PAL_SPI_DELETE",
    "KESTRIX_PAL_CFLOW_INSERT",
    "KESTRIX_PAL_CFLOW_MODIFY",
    "KESTRIX_PAL_CFLOW_DELETE",
    "KESTRIX_PAL_IPSEC_SA_DELETE",
    "KESTRIX_PAL_TBAR_CREATE",
    "KESTRIX_PAL_TBAR_UPDATE",
    "KESTRIX_PAL_NOTIFY_RP",
    "KESTRIX_PAL_NOTIFY_SA_LIFE",
    "KESTRIX_PAL_NOTIFY_SA_DEAD",
    "KESTRIX_PAL_NOTIFY_IDLE_TIME",
    "KESTRIX_PAL_NOTIFY_DPD_TIME",
};

const char* const ceal_cmd_str[5] = {
    "KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS", "KESTRIX_CEAL_CE_FLOW_STATS",
    "KESTRIX_CEAL_CE_IVRF_SADB_STATS",    "KESTRIX_CEAL_CE_IVRF_GLOBAL_STATS",
    "KESTRIX_CEAL_CE_DELETE_FLOW",
};

double CommandTrace::seconds_since_start() {
  const timespec now = clock_.monotonic_now();
  const long double elapsed = (now.tv_sec + now.tv_nsec * 1e-9L) -
                              (g_tstart.tv_sec + g_tstart.tv_nsec * 1e-9L);
  return static_cast<double>(elapsed);
}

void CommandTrace::pal_cmd_print(int cmd_id, uint32_t callback_handle, uint32_t sadb_handle,
                                 int time_flag, int status) {
  const char* name = (cmd_id >= 0 && cmd_id < 26) ? pal_cmd_str[cmd_id] : "INV PAL Cmd";
  if (time_flag == 0) {
    g_tstart = clock_.monotonic_now();
    cpa_log(LOG_INFO, "%s %08x %08x", name, callback_handle, sadb_handle);
  } else if (time_flag == 1) {
    cpa_log(LOG_INFO, "%s %08x %08x status %d Time %.5f seconds", name, callback_handle,
            sadb_handle, status, seconds_since_start());
  }
}

void CommandTrace::ceal_cmd_print(int cmd_id, int time_flag, int status) {
  const char* name = (cmd_id >= 0 && cmd_id < 5) ? ceal_cmd_str[cmd_id] : "INV CEAL Cmd";
  if (time_flag == 0) {
    g_tstart = clock_.monotonic_now();
    cpa_log(LOG_INFO, "%s", name);
  } else if (time_flag == 1) {
    cpa_log(LOG_INFO, "%s %d Time %.5f seconds", name, status, seconds_since_start());
  }
}

}  // namespace cpa
