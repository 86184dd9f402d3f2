#include "ceal/ceal_dispatcher.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "ceal/flow_delete.h"
#include "ceal/key_material.h"
#include "ceal/stats_queries.h"
#include "platform/rp_outbox.h"
#include "base/log.h"
#include "wire/cp_dp_msg.h"

namespace cpa {
namespace {

struct CealApi {
  uint16_t size;  // response datagram size (before the handler resizes it)
  ctr32 cpa_ceal_ctr_t::*request_counter;
  CealBodyHandler handler;
};

using C = cpa_ceal_ctr_t;
const CealApi kCealApis[] = {
    {281, &C::c_create_key_req, ceal_create_key_by_keys},      // CREATE_KEY_BY_KEYS
    {22, &C::c_flow_stats_req, kestrix_ceal_flow_stats},       // FLOW_STATS
    {36, &C::c_sadb_stats_req, kestrix_ceal_sadb_stats},       // IVRF_SADB_STATS
    {128, &C::c_global_stats_req, kestrix_ceal_global_stats},  // IVRF_GLOBAL_STATS
    {14, &C::c_delete_key_req, ceal_delete_flow},              // DELETE_FLOW
};

}  // namespace

void ceal_answer_handle(ReceivedBytes msg, std::vector<uint8_t>& response, ce_status_t status) {
  const ReceivedBytes handle = msg.slice(kCealBodyOffset, 4);
  if (handle.size()) std::memcpy(response.data() + kCealBodyOffset, handle.data(), handle.size());
  const uint32_t wire_status = htonl(status);
  std::memcpy(response.data() + kCealBodyOffset + 4, &wire_status, sizeof wire_status);
}

int kestrix_ceal_build_response(uint16_t ceal_cmd_type, uint8_t* buf, uint16_t sendlen) {
  if (!buf) return 0;
  const kestrix_cp_dp_msg_t header{htons(MSG_CEAL), htons(sendlen)};
  const uint16_t type = htons(ceal_cmd_type);
  std::memcpy(buf, &header, sizeof header);
  std::memcpy(buf + sizeof header, &type, sizeof type);
  cpa_log(LOG_DEBUG, "Buffer addr after malloc %p - %d bytes ", static_cast<void*>(buf), sendlen);
  cpa_log(LOG_DEBUG, "Build response success");
  return 0;
}

int kestrix_pal_process_ceal_msg(Agent& agent, ReceivedBytes msg) {
  const auto header = msg.read<kestrix_cp_dp_msg_t>(0);
  const auto api_type = msg.read<uint16_t>(4);
  if (!header || !api_type) {
    cpa_log(LOG_ERR, "CEAL request of %zu bytes has no api type, dropped", msg.size());
    return 1;
  }
  const uint16_t type = ntohs(*api_type);
  cpa_log(LOG_DEBUG, "api_type- [%d] Message Length %d", type, ntohs(header->message_length));
  if (type > 4) {
    cpa_log(LOG_ERR, "Wrong CEAL api type [%d]", type);
    return 0;
  }
  const CealApi& api = kCealApis[type];
  agent.trace.ceal_cmd_print(type, 0, 0);
  ++(agent.counters.ceal_dbg_ctrs.*api.request_counter);
  std::vector<uint8_t> response(api.size, 0);
  if (api.handler(agent, msg, response) != 0) {
    ceal_cmd_debug_count(agent.counters, type, 1);
    agent.trace.ceal_cmd_print(type, 1, 1);
    return 1;
  }
  agent.trace.ceal_cmd_print(type, 1, 1);
  const auto size = static_cast<uint16_t>(response.size());
  kestrix_ceal_build_response(type, response.data(), size);
  if (agent.settings.g_unit_test_on) return 0;
  const int rc = kestrix_pal_send_response(agent.sys.rp, response.data(), size);
  if (rc != 0) cpa_log(LOG_ERR, "PAL send failed! [%d]", rc);
  ceal_cmd_debug_count(agent.counters, type, 0);  // answered, even when the send failed
  return rc;
}

}  // namespace cpa
