#include "ceal/ceal_dispatcher.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "diag/log.h"
#include "wire/cp_dp_msg.h"

namespace cpa {
namespace {

constexpr size_t kCealBodyOffset = 6;

struct CealShape {
  uint16_t size;           // response datagram size
  uint16_t echoed;         // request bytes echoed from offset 6
  uint16_t status_offset;  // 0: the response has no status field
  ctr32 cpa_ceal_ctr_t::*request_counter;
};

using C = cpa_ceal_ctr_t;
const CealShape kCealShapes[] = {
    {281, 4, 10, &C::c_create_key_req},    // CREATE_KEY_BY_KEYS: handle, status
    {22, 8, 18, &C::c_flow_stats_req},     // FLOW_STATS: handle, final_flg, no flows
    {36, 10, 0, &C::c_sadb_stats_req},     // IVRF_SADB_STATS: handle, ivrf, info handle
    {128, 10, 0, &C::c_global_stats_req},  // IVRF_GLOBAL_STATS: handle, ivrf, engine handle
    {14, 4, 10, &C::c_delete_key_req},     // DELETE_FLOW: request handle, status
};

}  // namespace

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
  const CealShape& shape = kCealShapes[type];
  const ce_status_t status = CRYPTO_ERR_UNSUPPORTED;
  agent.trace.ceal_cmd_print(type, 0, 0);
  ++(agent.counters.ceal_dbg_ctrs.*shape.request_counter);
  std::vector<uint8_t> response(shape.size, 0);
  const ReceivedBytes echoed = msg.slice(kCealBodyOffset, shape.echoed);
  if (echoed.size()) std::memcpy(response.data() + kCealBodyOffset, echoed.data(), echoed.size());
  if (shape.status_offset) {
    const uint32_t wire = htonl(status);
    std::memcpy(response.data() + shape.status_offset, &wire, sizeof wire);
  }
  agent.trace.ceal_cmd_print(type, 1, status);
  kestrix_ceal_build_response(type, response.data(), shape.size);
  if (agent.settings.g_unit_test_on) return 0;
  const int rc = kestrix_pal_send_response(agent.sys.rp, response.data(), shape.size);
  if (rc != 0) cpa_log(LOG_ERR, "PAL send failed! [%d]", rc);
  ceal_cmd_debug_count(agent.counters, type, 1);
  return rc;
}

}  // namespace cpa
