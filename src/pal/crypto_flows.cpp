#include "pal/crypto_flows.h"

#include <arpa/inet.h>

#include <memory>
#include <utility>

#include "base/log.h"
#include "pal/ace_decoding.h"
#include "pal/record_stream.h"
#include "pal/tunnel_request.h"
#include "state/cipher_claim.h"

namespace cpa {
namespace {

// What sets an insert apart from a modify.
struct FlowRequest {
  uint16_t cmd;
  size_t stream_offset;         // from `pal_api_type`
  bool insert;                  // stops at the encrypt action, re-programs policies, returns the flow id
  const char* who;              // names the request in the line of a record cut short
  const char* no_tunnel;
  const char* no_memory;
  const char* encrypt_refused;
  const char* deny_refused;
  const char* bad_kind;
  const char* failed;
};

constexpr FlowRequest kInsert{KESTRIX_PAL_CFLOW_INSERT,
                              sizeof(uint16_t) + sizeof(kestrix_pal_insert_flow_table_req),
                              true,
                              "INSERT CFLOW",
                              "Pal Info Invalid index",
                              "Out bound SA null",
                              "PAL OUT ACTION null",
                              "PAL IN/OUT ACTION null",
                              "INSERT CFLOW : outbound action not found [%d] in acl type ",
                              "Ins Cflow Error"};
constexpr FlowRequest kModify{KESTRIX_PAL_CFLOW_MODIFY,
                              sizeof(uint16_t) + sizeof(kestrix_pal_update_flow_table_req),
                              false,
                              "UPDATE CFLOW",
                              "Invalid pal info index",
                              "Invalid outbound sa",
                              "Invalid update cflow operation",
                              "Invalid PAL IN/OUT operation",
                              "UPDATE CFLOW : outbound action not found [%d] in acl type ",
                              "UPDATE CFLOW : Invalid operation"};
static_assert(kInsert.stream_offset == 28 && kModify.stream_offset == 22);

// ACE records are skipped. `decoded` follows the latest action decoded: a
// decrypt action that fails to decode after a good encrypt action still
// fails the request.
RecordOutcome read_flow_record(const FlowRequest& kind, const StreamRecord& record,
                               cpa_outbound_sa_t& sa, bool& decoded) {
  if (record.ace) return std::nullopt;
  switch (record.kind) {
    case KESTRIX_PAL_IN_ACTION:
      decoded = kestrix_action_get(KESTRIX_PAL_IN_ACTION, &*record.action, &sa.inbound) == 0;
      return std::nullopt;
    case KESTRIX_PAL_OUT_ACTION:
      if (kind.insert)
        cpa_log(LOG_DEBUG, "PAL_OUT_ACTION SA  insert_cflow  encrypt.sa 0x%x",
                action_sa(*record.action));
      else
        cpa_log(LOG_DEBUG, "KESTRIX_PAL_OUT_ACTION");
      decoded = kestrix_action_get(KESTRIX_PAL_OUT_ACTION, &*record.action, &sa.outbound) == 0;
      if (!decoded) {
        cpa_log(LOG_ERR, "%s", kind.encrypt_refused);
        return CRYPTO_ERR_INVALID;
      }
      // An insert reads nothing after its encrypt action.
      return kind.insert ? RecordOutcome{CRYPTO_NO_ERR} : std::nullopt;
    case KESTRIX_PAL_IN_DENY_ACTION:
    case KESTRIX_PAL_OUT_DENY_ACTION:
      cpa_log(LOG_ERR, "%s", kind.deny_refused);
      return CRYPTO_ERR_INVALID;
    default:
      cpa_log(LOG_ERR, kind.bad_kind, record.kind);
      return CRYPTO_ERR_INVALID;
  }
}

// The new record and any cipher record it claimed are released by the caller's scope.
ce_status_t flow_failed(const FlowRequest& kind) {
  cpa_log(LOG_ERR, "%s", kind.failed);
  return CRYPTO_ERR_INVALID;
}

// AH wins when the record names both protocols.
void take_protocol(cpa_outbound_sa_t& sa) {
  const kestrix_ce_cipher_info& cipher = sa.sa_info->ce_cipher;
  if (cipher.esp_used) {
    sa.spi = cipher.esp_spi;
    sa.protocol = kIpProtoEsp;
  }
  if (cipher.ah_used) {
    sa.spi = cipher.ah_spi;
    sa.protocol = kIpProtoAh;
  }
  sa.dest_addr = cipher.dest;
  sa.src_addr = cipher.source;
}

// The tunnel's kernel policies were made for `default_security_protocol`;
// the first flow that negotiated another protocol re-programs them. The new
// default is kept even when the kernel refuses: the SA is already in the
// kernel and its key material spent, so a repeated insert is a duplicate.
int align_policies(Agent& agent, cpa_interface_t& tunnel, const kestrix_ce_cipher_info& cipher) {
  const uint8_t negotiated = cipher.ah_used ? kIpProtoAh : cipher.esp_used ? kIpProtoEsp : 0;
  if (negotiated == tunnel.default_security_protocol) {
    cpa_log(LOG_DEBUG, "No updating of Policy required\n");
    return 0;
  }
  cpa_log(LOG_DEBUG, "Updating AH/ESP Policies negotiated_proto %d default_proto %d", negotiated,
          tunnel.default_security_protocol);
  const int rc = agent.kernel.reprogram(tunnel, cipher.mode == CE_TUNNEL ? 1 : 0, negotiated);
  tunnel.default_security_protocol = negotiated;
  return rc;
}

void log_inserted(const cpa_outbound_sa_t& sa) {
  char dest[16];
  cpa_log(LOG_DEBUG,
          "INSERTED OUTB SA: FLOWID(ipsec_index) [%d], IPSEC_SA [0x%lx], \nSPI [0x%x], DEST [%s], "
          "PROTO [%d]",
          sa.sa_info->ipsec_index, static_cast<unsigned long>(sa.sa_info->ipsec_sa), sa.spi,
          kestrix_num2ip4(sa.dest_addr.ip_address, dest), sa.protocol);
}

// Walks the request's records into `sa`, claims its key material, installs
// it and keeps it at the head of the tunnel's outbound SAs. `flow_id` is
// given by an insert only.
ce_status_t add_flow(Agent& agent, const FlowRequest& kind, const ReceivedBytes& req,
                     size_t req_buf_len, cpa_interface_t& tunnel,
                     std::unique_ptr<cpa_outbound_sa_t> sa, uint64_t* flow_id) {
  bool decoded = false;
  const StreamWalk walk = walk_record_stream(
      req, kind.stream_offset, req_buf_len, kind.who,
      [&](const StreamRecord& record) { return read_flow_record(kind, record, *sa, decoded); });
  if (walk.truncated) return walk.status;  // the record's line says why
  if (walk.status != CRYPTO_NO_ERR || !decoded) return flow_failed(kind);
  if (!has_room(tunnel.outb_sa_list, kMaxSasPerDirection, kind.who, tunnel.sadb_handle, "outbound SAs"))
    return CRYPTO_ERR_RESOURCES;
  const uint64_t flow = sa->outbound.data.encrypt.sa;
  if (kestrix_cipher_info_alloc_get(agent.cipher_info_list, &sa->outbound, &sa->sa_info) != 0) {
    if (flow_id) {
      *flow_id = flow;
      cpa_log(LOG_ERR, "Duplicate: insert CFLOW flow ID 0x%llu",
              static_cast<unsigned long long>(flow));
    } else {
      cpa_log(LOG_ERR, "Duplicate: update CFLOW ");
    }
    return CRYPTO_NO_ERR;
  }
  take_protocol(*sa);
  if (agent.kernel.add_sa(tunnel, sa->sa_info.get(), agent.counters.netlink_dbg_ctrs.n_outbound_sa_add) != 0)
    return flow_failed(kind);
  if (kind.insert && align_policies(agent, tunnel, sa->sa_info->ce_cipher) != 0)
    return flow_failed(kind);
  log_inserted(*sa);
  sa->sa = flow;
  if (flow_id) *flow_id = flow;
  insert_node_out_sa(tunnel.outb_sa_list, std::move(sa));
  return CRYPTO_NO_ERR;
}

// The tunnel in slot `index` and a new outbound SA record for it.
ce_status_t prepare_flow(Agent& agent, const FlowRequest& kind, uint32_t index,
                         cpa_interface_t*& tunnel, std::unique_ptr<cpa_outbound_sa_t>& sa) {
  if (index < 1 || index >= TunnelTable::kSlots) {
    cpa_log(LOG_ERR, "Invalid index");
    return CRYPTO_ERR_INTERNAL;
  }
  tunnel = agent.tunnels.at(index);
  if (!tunnel) {
    cpa_log(LOG_ERR, "%s", kind.no_tunnel);
    return CRYPTO_ERR_INVALID;
  }
  sa = new_record<cpa_outbound_sa_t>();
  if (!sa) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    cpa_log(LOG_ERR, "%s", kind.no_memory);
    return CRYPTO_ERR_RESOURCES;
  }
  return CRYPTO_NO_ERR;
}

// Modify and delete refuse zero handles, and a body cut short like them.
template <class Body>
bool handles_present(const RequestBody<Body>& body) {
  return body.complete && body->callback_handle != 0 && body->sadbhandle != 0;
}

}  // namespace

// A fixed part cut short by the end of the datagram is answered like one
// whose callback handle is zero.
ce_status_t kestrix_proc_ins_cflow(Agent& agent, const ReceivedBytes& req, size_t len,
                                   uint64_t& flow_id) {
  const auto fixed = req.read_padded<kestrix_pal_insert_flow_table_req>(sizeof(uint16_t));
  if (!fixed.complete || fixed->callback_handle == 0) {
    cpa_log(LOG_ERR, "callback handle null");
    return CRYPTO_ERR_INVALID;
  }
  return for_tunnel_traced(agent, kInsert.cmd, ntohl(fixed->callback_handle),
                           ntohl(fixed->sadbhandle), [&](uint32_t index) {
                             cpa_log(LOG_DEBUG, "SADB Lookup success CPA idx %d", index);
                             return kestrix_alloc_ins_cflow(agent, req, len, index, flow_id);
                           });
}

ce_status_t kestrix_alloc_ins_cflow(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                    uint32_t index, uint64_t& flow_id) {
  cpa_interface_t* tunnel = nullptr;
  std::unique_ptr<cpa_outbound_sa_t> sa;
  const ce_status_t prepared = prepare_flow(agent, kInsert, index, tunnel, sa);
  if (prepared != CRYPTO_NO_ERR) return prepared;
  const auto fixed = req.read_padded<kestrix_pal_insert_flow_table_req>(sizeof(uint16_t));
  sa->static_seq_no = ntohl(fixed->static_seq_no);
  sa->dyn_seqno = ntohl(fixed->dyn_seqno);
  sa->ace_index = ntohl(fixed->ace_index);
  sa->ivrf = ntohs(fixed->ivrf);
  return add_flow(agent, kInsert, req, req_buf_len, *tunnel, std::move(sa), &flow_id);
}

ce_status_t kestrix_proc_upd_cflow(Agent& agent, const ReceivedBytes& req, size_t len) {
  const auto fixed = req.read_padded<kestrix_pal_update_flow_table_req>(sizeof(uint16_t));
  if (!handles_present(fixed)) {
    cpa_log(LOG_ERR, "Update cflow error ");
    return CRYPTO_ERR_INVALID;
  }
  return for_tunnel_traced(agent, kModify.cmd, ntohl(fixed->callback_handle),
                           ntohl(fixed->sadbhandle), [&](uint32_t index) {
                             cpa_log(LOG_DEBUG, "SADB Lookup success CPA idx %d", index);
                             return kestrix_alloc_upd_cflow(agent, req, len, index);
                           });
}

// The replaced SA (named by the request's flow handle) stays until the RP
// deletes its flow; the request's sequence numbers, ACE index and VRF are
// not kept.
ce_status_t kestrix_alloc_upd_cflow(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                    uint32_t index) {
  cpa_interface_t* tunnel = nullptr;
  std::unique_ptr<cpa_outbound_sa_t> sa;
  const ce_status_t prepared = prepare_flow(agent, kModify, index, tunnel, sa);
  if (prepared != CRYPTO_NO_ERR) return prepared;
  return add_flow(agent, kModify, req, req_buf_len, *tunnel, std::move(sa), nullptr);
}

ce_status_t kestrix_proc_del_cflow(Agent& agent,
                                   const RequestBody<kestrix_pal_remove_flow_table_req>& req) {
  if (!handles_present(req)) {
    cpa_log(LOG_ERR, "Delete cflow error ");
    return CRYPTO_ERR_INVALID;
  }
  return for_tunnel_traced(agent, KESTRIX_PAL_CFLOW_DELETE, ntohl(req->callback_handle),
                           ntohl(req->sadbhandle), [](uint32_t) { return CRYPTO_NO_ERR; });
}

}  // namespace cpa
