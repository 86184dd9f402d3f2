#include "ceal/flow_delete.h"

#include <arpa/inet.h>

#include "ceal/ceal_dispatcher.h"
#include "base/log.h"
#include "wire/ceal_key_requests.h"

namespace cpa {
namespace {

void delete_inbound(Agent& agent, cpa_interface_t& tunnel, const cpa_inbound_sa_t& sa) {
  agent.kernel.delete_sa(sa.dest_addr, sa.spi, sa.protocol, agent.counters.netlink_dbg_ctrs.n_inbound_sa_del);
  char dest[16];
  cpa_log(LOG_DEBUG,
          "DELETED INB SA: FLOWID(ipsec_index) [%d], IPSEC_SA [0x%x], \nSPI [0x%x], DEST [%s], PROTO [%d]",
          sa.sa_info->ipsec_index, sa.sa_info->ipsec_sa, sa.spi,
          kestrix_num2ip4(sa.dest_addr.ip_address, dest), sa.protocol);
  delete_node_in_sa(tunnel.inb_sa_list, &sa);  // releases its cipher record with it
}

void delete_outbound(Agent& agent, cpa_interface_t& tunnel, const cpa_outbound_sa_t& sa) {
  agent.kernel.delete_sa(sa.dest_addr, sa.spi, sa.protocol, agent.counters.netlink_dbg_ctrs.n_outbound_sa_del);
  char dest[16];
  cpa_log(LOG_DEBUG,
          "DELETED OUTB SA: FLOWID(ipsec_index) [%d] IPSEC_SA [0x%lx], SPI [0x%x], DEST [%s], PROTO [%d]",
          sa.sa_info->ipsec_index, static_cast<unsigned long>(sa.sa_info->ipsec_sa), sa.spi,
          kestrix_num2ip4(sa.dest_addr.ip_address, dest), sa.protocol);
  delete_node_out_sa(tunnel.outb_sa_list, &sa);
}

}  // namespace

void kestrix_ceal_del_flow(Agent& agent, uint32_t flow_id) {
  if (flow_id == 0) cpa_log(LOG_DEBUG, "CEAL FLOW ID NULL");
  for (uint32_t index = 1; index < TunnelTable::kSlots; ++index) {
    cpa_interface_t* tunnel = agent.tunnels.at(index);
    if (!tunnel || tunnel->sadb_handle == 0) continue;
    if (const cpa_inbound_sa_t* in = agent.tunnels.kestrix_in_sa_lookup_by_ceid(flow_id, index)) {
      delete_inbound(agent, *tunnel, *in);
      return;
    }
    if (const cpa_outbound_sa_t* out = agent.tunnels.kestrix_out_sa_lookup_by_ceid(flow_id, index))
      delete_outbound(agent, *tunnel, *out);
  }
}

int ceal_delete_flow(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response) {
  const auto req = msg.read_padded<kestrix_delete_flow_req>(kCealBodyOffset);
  const uint32_t flow_id = ntohl(req->flow_id);
  cpa_log(LOG_DEBUG, "DELETE FLOW req flow id [%d]", static_cast<int>(flow_id));
  kestrix_ceal_del_flow(agent, flow_id);
  ceal_answer_handle(msg, response, CRYPTO_NO_ERR);
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_DELETE_FLOW:END");
  return 0;
}

}  // namespace cpa
