#include "pal/intf_attach.h"

#include <arpa/inet.h>

#include "base/log.h"
#include "kernel/rp_status.h"
#include "pal/unit_test_hooks.h"
#include "platform/tunnel_devices.h"

namespace cpa {
namespace {

// Sub-commands of the attach request's counting.
constexpr uint32_t kSubcmdAttach = 1;
constexpr uint32_t kSubcmdDetach = 0;

ce_status_t attach(Agent& agent, const kestrix_pal_attach_sadb_req& req) {
  ++agent.counters.dbg_ctrs.p_intf_attach_req;
  const uint32_t sadb = ntohl(req.sadbhandle);
  const uint32_t tunnel_id = ntohl(req.tunnel_id);
  uint32_t slot = 0;
  ce_status_t status = agent.tunnels.sadb_lookup(sadb, &slot);
  if (status == CRYPTO_NO_ERR) {
    if (agent.tunnels.at(slot)->tunnelid == tunnel_id)
      cpa_log(LOG_INFO, "Duplicate tunnel ID %dSADB handle [%d] status sent- success", tunnel_id,
              sadb);
    else {
      status = kestrix_intf_svti_create_attach(agent, req, slot);
      if (agent.settings.g_unit_test_on) kestrix_ut_send_cipher_info(agent, agent.tunnels.at(slot)->tunnelid);
    }
  }
  pal_cmd_dbg_count(agent.counters, KESTRIX_PAL_SADB_INTF_ATTACH, status, kSubcmdAttach);
  return status;
}

// Answers success whatever happened: the RP only wants the device gone.
ce_status_t detach(Agent& agent, const kestrix_pal_attach_sadb_req& req) {
  ++agent.counters.dbg_ctrs.p_intf_detach_req;
  const uint32_t tunnel_id = ntohl(req.tunnel_id);
  uint32_t slot = 0;
  if (agent.tunnels.kestrix_db_lookup_tunid(tunnel_id, &slot) == CRYPTO_NO_ERR) {
    cpa_interface_t& tunnel = *agent.tunnels.at(slot);
    if (agent.settings.g_unit_test_on) kestrix_ut_detach_tests(agent, tunnel);
    if (kestrix_intf_svti_del(agent, tunnel_id) == CRYPTO_NO_ERR) tunnel.tunnelid = kUnattachedTunnel;
  }
  pal_cmd_dbg_count(agent.counters, KESTRIX_PAL_SADB_INTF_ATTACH, CRYPTO_NO_ERR, kSubcmdDetach);
  return CRYPTO_NO_ERR;
}

}  // namespace

// A body cut short by the end of the datagram is answered like one whose
// callback handle is zero.
ce_status_t kestrix_proc_sadb_intf_att(
    Agent& agent, const RequestBody<kestrix_pal_attach_sadb_req>& sadb_att_req) {
  const auto& req = sadb_att_req.value;
  if (!sadb_att_req.complete || req.callback_handle == 0) {
    cpa_log(LOG_ERR, " isadb attribute request null ");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t callback = ntohl(req.callback_handle);
  const uint32_t sadb = ntohl(req.sadbhandle);
  cpa_log(LOG_DEBUG, "\ncall handle %x, sadbhdl %x, tunnel_id %d, is_v6 %d", callback, sadb,
          ntohl(req.tunnel_id), ntohl(req.is_v6));
  return agent.trace.traced(KESTRIX_PAL_SADB_INTF_ATTACH, callback, sadb,
                            [&] { return sadb != 0 ? attach(agent, req) : detach(agent, req); });
}

ce_status_t kestrix_intf_svti_create_attach(Agent& agent,
                                            const kestrix_pal_attach_sadb_req& sadb_att_req,
                                            uint32_t index) {
  cpa_interface_t* entry = agent.tunnels.at(index);
  if (!entry) {
    cpa_log(LOG_ERR, "invalid index");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t tunnel_id = ntohl(sadb_att_req.tunnel_id);
  const std::string ifname = kestrix_tunid_to_ifname(tunnel_id);
  const ce_status_t made = rp_status(svti_add(agent.sys.devices, ifname.c_str(), agent.backend.devices),
                                     CRYPTO_ERR_RESOURCES);
  if (made != CRYPTO_NO_ERR) {
    cpa_log(LOG_ERR, "ERROR: svti [%s] add failed", ifname.c_str());
    return made;
  }
  entry->tunnelid = tunnel_id;
  entry->is_v6 = ntohl(sadb_att_req.is_v6);
  cpa_log(LOG_DEBUG, "Created: svti [%s] ", ifname.c_str());
  return CRYPTO_NO_ERR;
}

ce_status_t kestrix_intf_svti_del(Agent& agent, uint32_t tunnel_id) {
  if (static_cast<int32_t>(tunnel_id) < 0) {
    cpa_log(LOG_ERR, "Invalid tunnel id [%x] ", tunnel_id);
    return CRYPTO_ERR_INVALID;
  }
  const std::string ifname = kestrix_tunid_to_ifname(tunnel_id);
  const ce_status_t removed =
      rp_status(svti_del(agent.sys.devices, ifname.c_str(), agent.backend.devices), CRYPTO_ERR_INVALID);
  if (removed != CRYPTO_NO_ERR) {
    cpa_log(LOG_ERR, " invalid svti interface ");
    return removed;
  }
  cpa_log(LOG_DEBUG, "---svti deleted [%s]", ifname.c_str());
  return CRYPTO_NO_ERR;
}

}  // namespace cpa
