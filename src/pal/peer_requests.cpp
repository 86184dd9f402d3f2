#include "pal/peer_requests.h"

#include <arpa/inet.h>

#include <memory>

#include "base/log.h"

namespace cpa {
namespace {

cdh_peer_parameters peer_params(const kestrix_pal_peer_params_wire& params) {
  cdh_peer_parameters peer;
  peer.do_idle_timer = static_cast<int>(ntohl(params.do_idle_timer));
  peer.idle_timer_setting = ntohl(params.idle_timer_setting);
  peer.idle_timer_handle = ntohl(params.idle_timer_handle);
  peer.do_dpd = static_cast<int>(ntohl(params.do_dpd));
  peer.dpd_threshold = ntohl(params.dpd_threshold);
  peer.dpd_handle = ntohl(params.dpd_handle);
  peer.do_translation = static_cast<int>(ntohl(params.do_translation));
  peer.inside_remote_port = ntohs(params.inside_remote_port);
  peer.outside_remote_port = ntohs(params.outside_remote_port);
  return peer;
}

void log_peer_params(const cdh_peer_parameters& p) {
  cpa_log(
      LOG_DEBUG,
      " do_idle_timer %d, idle_timer_setting %u, idle_timer_handle %x, do_dpd %d, dpd_threshold %u "
      "\n dpd_hdl %x, do_trnslation %u, inside_remort_port %u, outside_remote_port %u ",
      p.do_idle_timer, p.idle_timer_setting, p.idle_timer_handle, p.do_dpd, p.dpd_threshold,
      p.dpd_handle, static_cast<unsigned>(p.do_translation), p.inside_remote_port,
      p.outside_remote_port);
}

}  // namespace

// A body cut short by the end of the datagram is answered like one whose
// handles are zero.
ce_status_t kestrix_proc_peer_insert_req(
    Agent& agent, const RequestBody<kestrix_pal_insert_peer_req>& ins_peer_req,
    uint32_t* prhandle) {
  const auto& req = ins_peer_req.value;
  if (!ins_peer_req.complete || req.callback_handle == 0 || req.create_handle == 0 ||
      req.sadbhandle == 0) {
    cpa_log(LOG_ERR, "Null callack handle or create handle or peer request sadb handle");
    return CRYPTO_ERR_INVALID;
  }
  const auto work = [&] {
    log_peer_params(peer_params(req.params));
    uint32_t slot = 0;
    const ce_status_t found = agent.tunnels.sadb_lookup(ntohl(req.sadbhandle), &slot);
    if (found != CRYPTO_NO_ERR) return found;
    cpa_interface_t& tunnel = *agent.tunnels.at(slot);
    // The same peer again: its record is made anew from this request.
    if (tunnel.peer_handle != 0 && tunnel.peer_handle == ntohl(req.peer_handle)) {
      cpa_log(LOG_DEBUG, "Deleting an existing peer idx %d", tunnel.peer_index);
      agent.peers.release_peer_of(tunnel);
    }
    return kestrix_peer_create_new(agent, req, slot, prhandle);
  };
  return agent.trace.traced(KESTRIX_PAL_PEER_INSERT, ntohl(req.callback_handle),
                            ntohl(req.create_handle), work);
}

ce_status_t kestrix_peer_create_new(Agent& agent, const kestrix_pal_insert_peer_req& req,
                                    uint32_t index, uint32_t* phdl) {
  cpa_interface_t* tunnel = agent.tunnels.at(index);
  if (!tunnel) {
    cpa_log(LOG_ERR, "invalid index");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t peer_handle = ntohl(req.peer_handle);
  if (tunnel->peer_index != -1 && tunnel->peer_handle == peer_handle) {
    cpa_log(LOG_ERR, "Duplicate INSERT_PEER request");
    *phdl = req.peer_handle;
    return CRYPTO_NO_ERR;
  }
  // A tunnel has one peer: a new one replaces the earlier record rather
  // than leave it holding a slot nothing refers to any more.
  agent.peers.release_peer_of(*tunnel);
  const std::optional<uint32_t> slot =
      agent.peers.store(std::make_unique<cdh_peer_parameters>(peer_params(req.params)));
  if (!slot) {
    cpa_log(LOG_ERR, "invalid CPA MAX peers ");
    return CRYPTO_ERR_RESOURCES;
  }
  tunnel->peer_handle = peer_handle;
  tunnel->peer_index = static_cast<int>(*slot);
  *phdl = req.peer_handle;
  return CRYPTO_NO_ERR;
}

// A body cut short by the end of the datagram is answered like one whose
// handles are zero.
ce_status_t kestrix_proc_peer_del_req(Agent& agent,
                                      const RequestBody<kestrix_pal_delete_peer_req>& req) {
  const auto& del = req.value;
  if (!req.complete || del.callback_handle == 0 || del.sadbhandle == 0) {
    cpa_log(LOG_ERR, "Invalid handle");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t sadb = ntohl(del.sadbhandle);
  return agent.trace.traced(KESTRIX_PAL_PEER_DELETE, ntohl(del.callback_handle), sadb, [&] {
    uint32_t slot = 0;
    if (agent.tunnels.sadb_lookup(sadb, &slot) == CRYPTO_NO_ERR) {
      cpa_interface_t& tunnel = *agent.tunnels.at(slot);
      if (tunnel.peer_handle == 0) {
        cpa_log(LOG_DEBUG, "Duplicate PEER_DELETE");
      } else if (tunnel.peer_handle == ntohl(del.peer_handle)) {
        agent.peers.release_peer_of(tunnel);
        cpa_log(LOG_DEBUG, "PEER DEL success!");
      }
    }
    // An unknown tunnel or peer is gone already: the delete succeeds.
    return CRYPTO_NO_ERR;
  });
}

}  // namespace cpa
