#include "base/counters.h"

#include "base/log.h"
#include "wire/cp_dp_msg.h"

namespace cpa {
namespace {

// The ok/error pair of one triple, given its request counter.
void count_outcome(ctr32& ok, ctr32& err, int status) {
  if (status == CRYPTO_NO_ERR)
    ++ok;
  else
    ++err;
}

}  // namespace

void pal_cmd_dbg_count(DebugCounters& ctrs, uint16_t cmd_type, int status, uint32_t subcmd_type) {
  cpa_pal_ctr_t& c = ctrs.dbg_ctrs;
  switch (cmd_type) {
    case 0:
      return;
    case 1: return count_outcome(c.p_init_start_req_respok, c.p_init_start_req_resperr, status);
    case 2: return count_outcome(c.p_init_compl_req_respok, c.p_init_compl_req_resperr, status);
    case 3: return count_outcome(c.p_sadb_delete_req_respok, c.p_sadb_delete_req_resperr, status);
    case 4: return count_outcome(c.p_attr_update_req_respok, c.p_attr_update_req_resperr, status);
    case 5:
      if (subcmd_type == 1)
        return count_outcome(c.p_intf_attach_req_respok, c.p_intf_attach_req_resperr, status);
      return count_outcome(c.p_intf_detach_req_respok, c.p_intf_detach_req_resperr, status);
    case 9:
      if (subcmd_type == 2 || subcmd_type == 5)
        return count_outcome(c.p_acl_insert_respok, c.p_acl_insert_resperr, status);
      return count_outcome(c.p_acl_delete_respok, c.p_acl_delete_resperr, status);
    case 11: return count_outcome(c.p_peer_insert_respok, c.p_peer_insert_resperr, status);
    case 12: return count_outcome(c.p_peer_delete_respok, c.p_peer_delete_resperr, status);
    case 13: return count_outcome(c.p_spi_insert_respok, c.p_spi_insert_resperr, status);
    case 14: return count_outcome(c.p_spi_delete_respok, c.p_spi_delete_resperr, status);
    case 15: return count_outcome(c.p_cflow_insert_respok, c.p_cflow_insert_resperr, status);
    case 16: return count_outcome(c.p_cflow_modify_respok, c.p_cflow_modify_resperr, status);
    case 17: return count_outcome(c.p_cflow_delete_respok, c.p_cflow_delete_resperr, status);
    default:
      cpa_log(LOG_INFO, "action: INVALID cmd_type %d status %d", cmd_type, status);
  }
}

void ceal_cmd_debug_count(DebugCounters& ctrs, uint16_t cmd_type, int c_cstatus) {
  cpa_ceal_ctr_t& c = ctrs.ceal_dbg_ctrs;
  ctr32* triples[][2] = {
      {&c.c_create_key_respok, &c.c_create_key_resperr},
      {&c.c_flow_stats_respok, &c.c_flow_stats_resperr},
      {&c.c_sadb_stats_respok, &c.c_sadb_stats_resperr},
      {&c.c_global_stats_respok, &c.c_global_stats_resperr},
      {&c.c_delete_key_respok, &c.c_delete_key_resperr},
  };
  if (cmd_type > 4 || (c_cstatus != 0 && c_cstatus != 1)) return;
  ++*triples[cmd_type][c_cstatus];
}

}  // namespace cpa
