#include "pal/pal_dispatcher.h"

#include <arpa/inet.h>

#include <cstring>

#include "ceal/ceal_dispatcher.h"
#include "base/log.h"
#include "pal/acl_modify.h"
#include "pal/crypto_flows.h"
#include "pal/intf_attach.h"
#include "pal/pal_request.h"
#include "pal/peer_requests.h"
#include "pal/sadb_requests.h"
#include "pal/spi_requests.h"
#include "wire/byte_order.h"

namespace cpa {
namespace {

using Handler = ce_status_t (*)(Agent&, const PalRequest&, kestrix_pal_resp_t&);

struct PalCommandEntry {
  Handler handler;                         // null: answered without a handler
  ctr32 cpa_pal_ctr_t::*request_counter;   // raised before the handler, or null
  const char* after_log;                   // LOG_DEBUG/LOG_INFO line with the status
  int after_log_priority;
  bool counted_by_handler;                 // attach and ACL modify know their sub-command
  bool silent_in_unit_test;                // no response in unit-test mode
};

template <class Body, ce_status_t (*Fn)(Agent&, const RequestBody<Body>&)>
ce_status_t plain(Agent& agent, const PalRequest& request, kestrix_pal_resp_t&) {
  return Fn(agent, request.body.read_padded<Body>(0));
}

// Handlers that also give back the handle of their response, as it goes on the wire.
template <class Body, ce_status_t (*Fn)(Agent&, const RequestBody<Body>&, uint32_t*)>
ce_status_t with_handle(Agent& agent, const PalRequest& request, kestrix_pal_resp_t& record) {
  uint32_t handle = 0;
  const ce_status_t status = Fn(agent, request.body.read_padded<Body>(0), &handle);
  record.with_handle.handle = handle;
  return status;
}

// The record stream is bounded by both what arrived and message_length.
ce_status_t acl_modify(Agent& agent, const PalRequest& request, kestrix_pal_resp_t&) {
  return kestrix_proc_acl_update_req(agent, request.command, request.message_length);
}

ce_status_t spi_insert(Agent& agent, const PalRequest& request, kestrix_pal_resp_t& record) {
  uint32_t flow_id = 0;
  const ce_status_t status =
      kestrix_proc_spi_insert_req(agent, request.command, request.message_length, flow_id);
  record.with_handle.handle = htonl(flow_id);
  return status;
}

ce_status_t cflow_insert(Agent& agent, const PalRequest& request, kestrix_pal_resp_t& record) {
  const auto req = request.body.read_padded<kestrix_pal_insert_flow_table_req>(0);
  cpa_log(LOG_DEBUG,
          " callbackhdl %x, create_hdl %x, sadbhdl %x, static_seqno %d, dyn_seqno %d, ace_index %d, "
          "ivrf %d ",
          ntohl(req->callback_handle), ntohl(req->create_handle), ntohl(req->sadbhandle),
          ntohl(req->static_seq_no), ntohl(req->dyn_seqno), ntohl(req->ace_index),
          ntohs(req->ivrf));
  uint64_t flow_id = 0;
  const ce_status_t status =
      kestrix_proc_ins_cflow(agent, request.command, request.message_length, flow_id);
  record.cflow.flow_handle = kestrix_bswap64(flow_id);
  return status;
}

ce_status_t cflow_modify(Agent& agent, const PalRequest& request, kestrix_pal_resp_t&) {
  const auto req = request.body.read_padded<kestrix_pal_update_flow_table_req>(0);
  cpa_log(LOG_DEBUG, " callbackhdl %x, create_hdl %x, sadbhdl %x, flow_handle %x",
          ntohl(req->callback_handle), ntohl(req->create_handle), ntohl(req->sadbhandle),
          static_cast<uint32_t>(kestrix_bswap64(req->flow_handle)));
  return kestrix_proc_upd_cflow(agent, request.command, request.message_length);
}

ce_status_t ipsec_sa_delete(Agent&, const PalRequest&, kestrix_pal_resp_t&) {
  cpa_log(LOG_DEBUG, "KESTRIX_PAL_IPSEC_SA_DELETE req");
  return CRYPTO_NO_ERR;
}
ce_status_t tbar_create(Agent&, const PalRequest&, kestrix_pal_resp_t&) {
  cpa_log(LOG_DEBUG, "KESTRIX_PAL_TBAR_CREATE req");
  return CRYPTO_NO_ERR;
}
ce_status_t tbar_update(Agent&, const PalRequest&, kestrix_pal_resp_t&) {
  cpa_log(LOG_DEBUG, "KESTRIX_PAL_TBAR_UPDATE req");
  return CRYPTO_NO_ERR;
}

using C = cpa_pal_ctr_t;
constexpr PalCommandEntry kNoHandler{nullptr, nullptr, nullptr, 0, false, false};

// Indexed by command number; commands above 20 have no entry.
const PalCommandEntry kPalCommands[] = {
    /* 0 */ kNoHandler,
    /* 1 */ {with_handle<kestrix_pal_initialize_start_req, kestrix_proc_init_start_req>,
             &C::p_init_start_req, "KESTRIX_PAL_SADB_INIT_START status %d ", LOG_DEBUG,
             false, false},
    /* 2 */ {plain<kestrix_pal_initialize_completed_req, kestrix_proc_init_complete>,
             &C::p_init_compl_req, "KESTRIX_PAL_SADB_INIT_COMPLETED req status %d", LOG_DEBUG, false,
             false},
    /* 3 */ {plain<kestrix_pal_delete_sadb_req, kestrix_proc_sadb_delete>, &C::p_sadb_delete_req,
             "KESTRIX_PAL_SADB_DELETE req status %d", LOG_DEBUG, false, false},
    /* 4 */ {plain<kestrix_pal_update_sadb_req, kestrix_proc_sadb_attr_update>,
             &C::p_attr_update_req, " KESTRIX_PAL_SADB_ATTR_UPDATE req status %d", LOG_DEBUG, false,
             false},
    /* 5 */ {plain<kestrix_pal_attach_sadb_req, kestrix_proc_sadb_intf_att>, nullptr,
             " KESTRIX_PAL_SADB_INTF_ATTACH req status %d", LOG_DEBUG, true, false},
    /* 6 */ kNoHandler,
    /* 7 */ kNoHandler,
    /* 8 */ kNoHandler,
    /* 9 */ {acl_modify, nullptr, "acl_Modify resp status %d", LOG_DEBUG, true, false},
    /* 10 */ kNoHandler,
    /* 11 */ {with_handle<kestrix_pal_insert_peer_req, kestrix_proc_peer_insert_req>,
              &C::p_peer_insert_req, nullptr, 0, false, true},
    /* 12 */ {plain<kestrix_pal_delete_peer_req, kestrix_proc_peer_del_req>, &C::p_peer_delete_req,
              "KESTRIX_PAL_PEER_DELETE req status %d", LOG_DEBUG, false, false},
    /* 13 */ {spi_insert, &C::p_spi_insert_req, "KESTRIX_PAL_SPI_INSERT req status %d", LOG_DEBUG, false,
              true},
    /* 14 */ {plain<kestrix_pal_remove_spi_table_req, kestrix_proc_spi_del_req>, &C::p_spi_delete_req,
              nullptr, 0, false, false},
    /* 15 */ {cflow_insert, &C::p_cflow_insert_req, nullptr, 0, false, true},
    /* 16 */ {cflow_modify, &C::p_cflow_modify_req, "KESTRIX_PAL_CFLOW_MODIFY req status %d",
              LOG_INFO, false, false},
    /* 17 */ {plain<kestrix_pal_remove_flow_table_req, kestrix_proc_del_cflow>,
              &C::p_cflow_delete_req, nullptr, 0, false, false},
    /* 18 */ {ipsec_sa_delete, nullptr, nullptr, 0, false, false},
    /* 19 */ {tbar_create, nullptr, nullptr, 0, false, false},
    /* 20 */ {tbar_update, nullptr, nullptr, 0, false, false},
};
constexpr size_t kPalCommandCount = sizeof(kPalCommands) / sizeof(kPalCommands[0]);

uint16_t response_length(uint16_t cmd) {
  switch (cmd) {
    case KESTRIX_PAL_SADB_INIT_START:
    case KESTRIX_PAL_PEER_INSERT:
    case KESTRIX_PAL_SPI_INSERT:
      return 18;
    case KESTRIX_PAL_CFLOW_INSERT:
      return 22;
    case KESTRIX_PAL_SADB_INIT_COMPLETED:
    case KESTRIX_PAL_SADB_DELETE:
    case KESTRIX_PAL_SADB_ATTR_UPDATE:
    case KESTRIX_PAL_SADB_INTF_ATTACH:
    case KESTRIX_PAL_ACL_MODIFY:
    case KESTRIX_PAL_PEER_DELETE:
    case KESTRIX_PAL_SPI_DELETE:
    case KESTRIX_PAL_CFLOW_MODIFY:
    case KESTRIX_PAL_CFLOW_DELETE:
      return 14;
    default:
      return 6;
  }
}

// The status is the last word of every response body that has one.
void place_status(kestrix_pal_resp_t& record, uint16_t length, ce_status_t status) {
  if (length <= kPalBodyOffset) return;
  const uint32_t wire = htonl(status);
  std::memcpy(record.raw + (length - kPalBodyOffset - sizeof wire), &wire, sizeof wire);
}

}  // namespace

uint16_t kestrix_pal_build_response(uint16_t pal_cmd_type, PalResponseBuffer& buf,
                                    const kestrix_pal_resp_t& comd_resp) {
  const uint16_t length = response_length(pal_cmd_type);
  buf.fill(0);
  const kestrix_cp_dp_msg_t header{htons(MSG_PAL), htons(length)};
  const uint16_t cmd = htons(pal_cmd_type);
  std::memcpy(buf.data(), &header, sizeof header);
  std::memcpy(buf.data() + kPalCommandOffset, &cmd, sizeof cmd);
  std::memcpy(buf.data() + kPalBodyOffset, comd_resp.raw, length - kPalBodyOffset);
  return length;
}

int kestrix_pal_process_pal_msg(Agent& agent, ReceivedBytes msg) {
  const auto header = msg.read<kestrix_cp_dp_msg_t>(0);
  const auto api_type = msg.read<uint16_t>(kPalCommandOffset);
  if (!header || !api_type) {
    // Without a command number there is no response to build.
    cpa_log(LOG_ERR, "PAL request of %zu bytes has no command, dropped", msg.size());
    return 1;
  }
  const PalRequest request{ntohs(*api_type), ntohs(header->message_length),
                           msg.slice(kPalCommandOffset), msg.slice(kPalBodyOffset)};
  kestrix_pal_resp_t record{};
  ce_status_t status = CRYPTO_NO_ERR;
  const PalCommandEntry* entry = request.cmd < kPalCommandCount ? &kPalCommands[request.cmd] : nullptr;
  if (entry && entry->handler) {
    if (entry->request_counter) ++(agent.counters.dbg_ctrs.*entry->request_counter);
    const auto callback = request.body.read_padded<uint32_t>(0);
    std::memcpy(record.raw, &callback.value, sizeof callback.value);
    status = entry->handler(agent, request, record);
    if (entry->after_log) cpa_log(entry->after_log_priority, entry->after_log, status);
    if (agent.settings.g_unit_test_on && entry->silent_in_unit_test)
      return status == CRYPTO_NO_ERR ? 0 : 1;
  }
  PalResponseBuffer buf;
  const uint16_t length = response_length(request.cmd);
  place_status(record, length, status);
  kestrix_pal_build_response(request.cmd, buf, record);
  const int rc = kestrix_pal_send_response(agent.sys.rp, buf.data(), length);
  if (rc != 0) cpa_log(LOG_ERR, "PAL Send failed [%d]", rc);
  if (!entry || !entry->counted_by_handler)
    pal_cmd_dbg_count(agent.counters, request.cmd, status, 0xFFFFFFFF);
  return rc;
}

int kestrix_pal_process_msg(Agent& agent, ReceivedBytes msg) {
  const auto header = msg.read<kestrix_cp_dp_msg_t>(0);
  if (!header) {
    cpa_log(LOG_ERR, "Datagram of %zu bytes has no message header, dropped", msg.size());
    return 1;
  }
  int result;
  switch (ntohs(header->message_type)) {
    case MSG_PAL:
      result = kestrix_pal_process_pal_msg(agent, msg);
      break;
    case MSG_CEAL:
      result = kestrix_pal_process_ceal_msg(agent, msg);
      break;
    default:
      cpa_log(LOG_ERR, "Unknown msg type %d rcvd", ntohs(header->message_type));
      return 0;
  }
  agent.shared.mark_rp_activity();
  return result;
}

}  // namespace cpa
