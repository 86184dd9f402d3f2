#include "pal/sadb_requests.h"

#include <arpa/inet.h>

#include "base/log.h"

namespace cpa {

// A body cut short by the end of the datagram is answered like one whose
// handles are zero: the RP gets CRYPTO_ERR_INVALID and nothing is touched.

ce_status_t kestrix_proc_init_start_req(Agent& agent,
                                        const RequestBody<kestrix_pal_initialize_start_req>& init_reqt,
                                        cdh_sadbhandle* init_sadbhdl) {
  const auto& req = init_reqt.value;
  if (!init_reqt.complete || req.callback_handle == 0 || req.create_handle == 0) {
    cpa_log(LOG_ERR, "Null callback handle or create handle");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t callback = ntohl(req.callback_handle);
  const uint32_t create = ntohl(req.create_handle);
  agent.trace.pal_cmd_print(KESTRIX_PAL_SADB_INIT_START, callback, create, 0, 0);
  if (auto slot = agent.tunnels.find_by_create_handle(create)) {
    cpa_log(LOG_ERR, "Duplicate KESTRIX_PAL_SADB_START");
    *init_sadbhdl = htonl(*slot);
    return CRYPTO_NO_ERR;
  }
  const ce_status_t status = agent.tunnels.create_alloc_sadbhdl(req, init_sadbhdl);
  agent.trace.pal_cmd_print(KESTRIX_PAL_SADB_INIT_START, callback, create, 1, status);
  return status;
}

ce_status_t kestrix_proc_init_complete(
    Agent& agent, const RequestBody<kestrix_pal_initialize_completed_req>& init_complt_req) {
  const auto& req = init_complt_req.value;
  if (!init_complt_req.complete || req.callback_handle == 0 || req.sadbhandle == 0) {
    cpa_log(LOG_ERR, "Null handle init_complt_req");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t sadb = ntohl(req.sadbhandle);
  return agent.trace.traced(KESTRIX_PAL_SADB_INIT_COMPLETED, ntohl(req.callback_handle), sadb, [&] {
    uint32_t slot = 0;
    return agent.tunnels.sadb_lookup(sadb, &slot);
  });
}

ce_status_t kestrix_proc_sadb_delete(Agent& agent,
                                     const RequestBody<kestrix_pal_delete_sadb_req>& del_sa_req) {
  const auto& req = del_sa_req.value;
  if (!del_sa_req.complete || req.callback_handle == 0 || req.sadbhandle == 0) {
    cpa_log(LOG_ERR, "callback handle null or sadb handle null");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t callback = ntohl(req.callback_handle);
  const uint32_t sadb = ntohl(req.sadbhandle);
  cpa_log(LOG_DEBUG, "\ncall handle 0x%x, sadbhdl 0x%x", callback, sadb);
  return agent.trace.traced(KESTRIX_PAL_SADB_DELETE, callback, sadb, [&] {
    uint32_t slot = 0;
    if (agent.tunnels.sadb_lookup(sadb, &slot) == CRYPTO_NO_ERR) {
      cpa_log(LOG_DEBUG, "SADB Lookup success CPA idx %d", slot);
      // Nothing could reach the tunnel's peer record once the tunnel is gone,
      // and it would hold its peer slot for the life of the process.
      agent.peers.release_peer_of(*agent.tunnels.at(slot));
      agent.tunnels.kestrix_del_sadb(static_cast<int>(slot));
    }
    // Deleting a tunnel the agent does not know succeeds as well.
    return CRYPTO_NO_ERR;
  });
}

ce_status_t kestrix_proc_sadb_attr_update(
    Agent& agent, const RequestBody<kestrix_pal_update_sadb_req>& sad_upd_req) {
  const auto& req = sad_upd_req.value;
  if (!sad_upd_req.complete || req.callback_handle == 0 || req.sadbhandle == 0) {
    cpa_log(LOG_ERR, " sadb update request null or sadb update request sadb handle null");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t sadb = ntohl(req.sadbhandle);
  return agent.trace.traced(KESTRIX_PAL_SADB_ATTR_UPDATE, ntohl(req.callback_handle), sadb, [&] {
    uint32_t slot = 0;
    const ce_status_t found = agent.tunnels.sadb_lookup(sadb, &slot);
    if (found != CRYPTO_NO_ERR) return found;
    return agent.tunnels.kestrix_update_sadb_attr(req, static_cast<int>(slot));
  });
}

}  // namespace cpa
