#include "pal/spi_requests.h"

#include <arpa/inet.h>

#include <memory>
#include <utility>

#include "base/log.h"
#include "pal/ace_decoding.h"
#include "pal/record_stream.h"
#include "pal/tunnel_request.h"
#include "pal/unit_test_hooks.h"
#include "state/cipher_claim.h"

namespace cpa {
namespace {

constexpr size_t kSpiStreamOffset = sizeof(uint16_t) + sizeof(kestrix_pal_insert_spi_table_req);
static_assert(kSpiStreamOffset == 73);

RequestBody<kestrix_pal_insert_spi_table_req> fixed_part(const ReceivedBytes& req) {
  return req.read_padded<kestrix_pal_insert_spi_table_req>(sizeof(uint16_t));
}

// Only the IPv4 address is carried; the rest of the union stays zero.
kestrix_addr host_ipv4(const kestrix_addr& wire) {
  kestrix_addr addr{};
  addr.type = wire.type;
  addr.length = wire.length;
  addr.ip_address = ntohl(wire.ip_address);
  return addr;
}

void fill_from_request(cpa_inbound_sa_t& sa, const kestrix_pal_insert_spi_table_req& req) {
  sa.spi = ntohl(req.spi);
  sa.protocol = req.protocol;
  sa.fvrf = ntohs(req.fvrf);
  sa.dest_addr = host_ipv4(req.dest_addr);
  sa.dest_mask = ntohl(req.dest_mask);
  sa.src_addr = host_ipv4(req.src_addr);
  sa.src_mask = ntohl(req.src_mask);
  sa.static_seqno = ntohl(req.static_seqno);
  sa.dyn_seq_no = ntohl(req.dyn_seq_no);
  sa.ace_index = ntohl(req.ace_index);
}

void log_request(const kestrix_pal_insert_spi_table_req& req) {
  cpa_log(LOG_DEBUG,
          "callback hdl %x, sadbhdl %x, spi %d, protocol %d, fvrf %d, dstaddr %x, \ndstmask %d, "
          "srcaddr %x, srcmask %d, static_seqno %d, dyn_seqno %d",
          ntohl(req.callback_handle), ntohl(req.sadbhandle), ntohl(req.spi), req.protocol,
          ntohs(req.fvrf), ntohl(req.dest_addr.ip_address), ntohl(req.dest_mask),
          ntohl(req.src_addr.ip_address), ntohl(req.src_mask), ntohl(req.static_seqno),
          ntohl(req.dyn_seq_no));
}

// ACE records are skipped; the last decrypt action wins; any other action
// or kind fails the request.
RecordOutcome read_spi_record(const StreamRecord& record, cpa_inbound_sa_t& sa, bool& decoded) {
  if (record.ace) return std::nullopt;
  switch (record.kind) {
    case KESTRIX_PAL_IN_ACTION:
      cpa_log(LOG_DEBUG, "KESTRIX_PAL_IN_ACTION");
      cpa_log(LOG_DEBUG, "ACTION_SA  insert_spi inbound/decrypt.sa 0x%x, Action: %d",
              action_sa(*record.action), ntohl(record.action->action));
      if (kestrix_action_get(KESTRIX_PAL_IN_ACTION, &*record.action, &sa.action) != 0) {
        cpa_log(LOG_ERR, "Insert Spi Error");
        return CRYPTO_ERR_INVALID;
      }
      decoded = true;
      return std::nullopt;
    case KESTRIX_PAL_OUT_ACTION:
    case KESTRIX_PAL_IN_DENY_ACTION:
    case KESTRIX_PAL_OUT_DENY_ACTION:
      cpa_log(LOG_ERR, "OUT/IN DENY Insert Spi Error");
      return CRYPTO_ERR_INVALID;
    default:
      cpa_log(LOG_ERR, "INSERT SPI : inboud action not found [%d] in PAL req", record.kind);
      return CRYPTO_ERR_INVALID;
  }
}

// The decrypt action of the stream goes to `sa.action`. CRYPTO_NO_ERR when
// there is one; a record cut short has already logged why.
StreamWalk read_decrypt_action(const ReceivedBytes& req, size_t req_buf_len, cpa_inbound_sa_t& sa) {
  bool decoded = false;
  StreamWalk walk =
      walk_record_stream(req, kSpiStreamOffset, req_buf_len, "INSERT SPI",
                         [&](const StreamRecord& record) { return read_spi_record(record, sa, decoded); });
  if (walk.status == CRYPTO_NO_ERR && !decoded) walk.status = CRYPTO_ERR_INVALID;
  return walk;
}

// The new record and any cipher record it claimed are released by the caller's scope.
ce_status_t insert_failed() {
  cpa_log(LOG_ERR, "insert SPI SA error");
  return CRYPTO_ERR_INVALID;
}

void log_inserted(const cpa_inbound_sa_t& sa) {
  char dest[16];
  cpa_log(LOG_DEBUG,
          "INSERTED INB SA: FLOWID(ipsec_index) [%d], IPSEC_SA [0x%x], \nSPI [0x%x], DEST [%s], "
          "PROTO [%d]",
          sa.sa_info->ipsec_index, sa.sa_info->ipsec_sa, sa.spi,
          kestrix_num2ip4(sa.dest_addr.ip_address, dest), sa.protocol);
}

}  // namespace

// A fixed part cut short by the end of the datagram is answered like one
// whose callback handle is zero.
ce_status_t kestrix_proc_spi_insert_req(Agent& agent, const ReceivedBytes& req, size_t len,
                                        uint32_t& flow_id) {
  const auto fixed = fixed_part(req);
  if (!fixed.complete || fixed->callback_handle == 0) {
    cpa_log(LOG_ERR, "Callback handle Null");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t callback = ntohl(fixed->callback_handle);
  const uint32_t sadb = ntohl(fixed->sadbhandle);
  agent.trace.pal_cmd_print(KESTRIX_PAL_SPI_INSERT, callback, sadb, 0, 0);
  log_request(fixed.value);
  uint32_t index = 0;
  ce_status_t status = agent.tunnels.sadb_lookup(sadb, &index);
  if (status == CRYPTO_NO_ERR) {
    status = kestrix_alloc_ins_spi_sa(agent, req, len, index, flow_id);
    if (agent.settings.g_unit_test_on) kestrix_proc_ins_cflow_test(agent, *agent.tunnels.at(index));
  }
  agent.trace.pal_cmd_print(KESTRIX_PAL_SPI_INSERT, callback, sadb, 1, status);
  return status;
}

ce_status_t kestrix_alloc_ins_spi_sa(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                     uint32_t index, uint32_t& flow_id) {
  cpa_interface_t* tunnel = agent.tunnels.at(index);
  if (!tunnel) {
    cpa_log(LOG_ERR, "Invalid Index");
    return CRYPTO_ERR_INVALID;
  }
  std::unique_ptr<cpa_inbound_sa_t> sa = new_record<cpa_inbound_sa_t>();
  if (!sa) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    cpa_log(LOG_ERR, "Invalid Inbound SA ");
    return CRYPTO_ERR_RESOURCES;
  }
  fill_from_request(*sa, fixed_part(req).value);
  const StreamWalk walk = read_decrypt_action(req, req_buf_len, *sa);
  if (walk.truncated) return walk.status;
  if (walk.status != CRYPTO_NO_ERR) return insert_failed();
  if (!has_room(tunnel->inb_sa_list, kMaxSasPerDirection, "INSERT SPI", index, "inbound SAs"))
    return CRYPTO_ERR_RESOURCES;
  const uint32_t flow = sa->action.data.decrypt.sa;
  // Without waiting key material the SA was installed by an earlier insert
  // (or its keys never came): the RP still gets its flow id.
  if (kestrix_cipher_info_alloc_get(agent.cipher_info_list, &sa->action, &sa->sa_info) != 0) {
    flow_id = flow;
    cpa_log(LOG_ERR, "Duplicate: insert SPI flow ID 0x%x", flow);
    return CRYPTO_NO_ERR;
  }
  sa->sa = flow;
  if (agent.kernel.add_sa(*tunnel, sa->sa_info.get(), agent.counters.netlink_dbg_ctrs.n_inbound_sa_add) != 0)
    return insert_failed();
  flow_id = flow;
  log_inserted(*sa);
  insert_node_inb_sa(tunnel->inb_sa_list, std::move(sa));
  return CRYPTO_NO_ERR;
}

// A body cut short is answered like one whose callback handle is zero.
ce_status_t kestrix_proc_spi_del_req(Agent& agent,
                                     const RequestBody<kestrix_pal_remove_spi_table_req>& req) {
  if (!req.complete || req->callback_handle == 0) {
    cpa_log(LOG_ERR, "Callback handle Null");
    return CRYPTO_ERR_INVALID;
  }
  return for_tunnel_traced(agent, KESTRIX_PAL_SPI_DELETE, ntohl(req->callback_handle),
                           ntohl(req->sadbhandle), [&](uint32_t index) {
                             if (agent.settings.g_unit_test_on)
                               kestrix_proc_del_cflow_test(agent, *agent.tunnels.at(index));
                             return CRYPTO_NO_ERR;
                           });
}

}  // namespace cpa
