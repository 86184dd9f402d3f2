#include "ceal/stats_queries.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <unordered_map>

#include "ceal/ceal_dispatcher.h"
#include "ceal/kernel_sa_stats.h"
#include "base/log.h"
#include "wire/ceal_stats.h"

namespace cpa {
namespace {

// How the fast path knows an SA: SPI, destination (host order), protocol.
struct FastPathSaKey {
  uint32_t spi;
  uint32_t dst;
  uint8_t proto;
};

// Finds, for each flow of a query, the SA that a search of the table from
// slot 1 up finds first (the newest SA of that flow id in the lowest slot
// holding one). One pass over the table serves every flow of the query, so
// a query costs one scan of the tunnels and their SA lists, not one per flow.
class FlowSaSearch {
 public:
  void want(uint32_t flow_id, bool inbound) { (inbound ? in_ : out_).try_emplace(flow_id); }

  void run(const TunnelTable& tunnels) {
    size_t missing = in_.size() + out_.size();
    for (uint32_t slot = 1; slot < TunnelTable::kSlots && missing; ++slot) {
      const cpa_interface_t* tunnel = tunnels.at(slot);
      if (!tunnel || tunnel->sadb_handle == 0) continue;
      take_first(tunnel->inb_sa_list, in_, missing);
      take_first(tunnel->outb_sa_list, out_, missing);
    }
  }

  const FastPathSaKey* found(uint32_t flow_id, bool inbound) const {
    const Found& found = inbound ? in_ : out_;
    const auto it = found.find(flow_id);
    return it != found.end() && it->second ? &*it->second : nullptr;
  }

 private:
  using Found = std::unordered_map<uint32_t, std::optional<FastPathSaKey>>;

  template <class SaList>
  static void take_first(const SaList& list, Found& wanted, size_t& missing) {
    if (wanted.empty()) return;
    for (const auto& sa : list) {
      if (!sa.sa_info) continue;
      const auto it = wanted.find(static_cast<uint32_t>(sa.sa_info->ipsec_index));
      if (it == wanted.end() || it->second) continue;
      it->second = FastPathSaKey{sa.spi, sa.dest_addr.ip_address, sa.protocol};
      --missing;
    }
  }

  Found in_;
  Found out_;
};

// The SA of a flow; its absence is logged.
const FastPathSaKey* flow_sa(const FlowSaSearch& search, uint32_t flow_id, uint32_t is_inbound) {
  const FastPathSaKey* sa = search.found(flow_id, is_inbound != 0);
  if (!sa)
    cpa_log(LOG_ERR, "ERROR: flow_id %d is not found in cpa_pal_info             database ",
            static_cast<int>(flow_id));
  return sa;
}

bool counters_from_kernel(const Agent& agent) { return agent.backend.counters == CounterSource::kKernelSas; }

// The kernel's own counters of the flow's SA.
void fill_flow_stats_from_kernel(Agent& agent, const FlowSaSearch& search, uint32_t flow_id,
                                 uint32_t is_inbound, uint8_t* stats) {
  const FastPathSaKey* sa = flow_sa(search, flow_id, is_inbound);
  if (!sa) return;
  kestrix_kernel_flow_counters(agent.nlink, sa->spi, sa->dst, sa->proto, is_inbound != 0, stats);
}

void fill_flow_stats(const FastPathStats& fastpath, const FlowSaSearch& search, uint32_t flow_id,
                     uint32_t is_inbound, uint8_t* stats) {
  if (!fastpath.fp_shared()) {
    cpa_log(LOG_ERR, "ERROR: fp_shared is  NULL !!");
    return;
  }
  const FastPathSaKey* sa = flow_sa(search, flow_id, is_inbound);
  const uint8_t* entry = sa ? fastpath.kestrix_stats_sad_in_lookup(sa->spi, sa->dst, sa->proto) : nullptr;
  if (!entry) {
    cpa_log(LOG_ERR, " ERROR: sa_entry is not found for flow_id %d                is_inbound %d",
            static_cast<int>(flow_id), static_cast<int>(is_inbound));
    return;
  }
  FastPathStats::kestrix_stats_get_flow_counters(stats, entry, is_inbound != 0);
}

// Flow handle `i` of a request; the caller has checked that it arrived whole.
kestrix_flow_stats_hdle_struct flow_handle(ReceivedBytes handles, size_t i) {
  return *handles.read<kestrix_flow_stats_hdle_struct>(i * sizeof(kestrix_flow_stats_hdle_struct));
}

// The SAs of the first `answered` flows; none are looked for without a
// segment, unless the kernel keeps the counters.
FlowSaSearch find_flow_sas(const Agent& agent, ReceivedBytes handles, size_t answered) {
  FlowSaSearch search;
  if (!agent.fastpath.fp_shared() && !counters_from_kernel(agent)) return search;
  for (size_t i = 0; i < answered; ++i) {
    const kestrix_flow_stats_hdle_struct handle = flow_handle(handles, i);
    search.want(ntohl(handle.flow_id), handle.is_inbound != 0);
  }
  search.run(agent.tunnels);
  return search;
}

// The SADB and global responses echo the request's ten bytes in place; a
// request cut short echoes what arrived.
void echo_ivrf_request(ReceivedBytes msg, std::vector<uint8_t>& response) {
  const auto req = msg.read_padded<kestrix_ipsec_ivrf_pull_stats_req>(kCealBodyOffset);
  std::memcpy(response.data() + kCealBodyOffset, &req.value, sizeof req.value);
}

}  // namespace

int kestrix_ceal_flow_stats(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response) {
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_FLOW_STATS:");
  const auto req = msg.read_padded<kestrix_ipsec_flow_pull_stats_req>(kCealBodyOffset);
  const uint32_t num_flows = ntohl(req->num_flows);
  cpa_log(LOG_DEBUG, "No. of flows %d", static_cast<int>(num_flows));
  // Only flow handles wholly received are answered, and no more than a
  // 16-bit length can frame; `num_flows` is still echoed as the RP sent it.
  const ReceivedBytes handles = msg.slice(kFlowStatsRequestHandles);
  const size_t answered = std::min<size_t>(
      {num_flows, handles.size() / sizeof(kestrix_flow_stats_hdle_struct), kMaxAnsweredFlows});
  response.assign(kFlowStatsResponseHead + answered * kFlowStatsPerFlow, 0);
  std::memcpy(response.data() + kCealBodyOffset, &req.value, sizeof req.value);

  const FlowSaSearch search = find_flow_sas(agent, handles, answered);
  for (size_t i = 0; i < answered; ++i) {
    const kestrix_flow_stats_hdle_struct handle = flow_handle(handles, i);
    uint8_t* flow = response.data() + kFlowStatsResponseHead + i * kFlowStatsPerFlow;
    std::memcpy(flow, &handle, sizeof handle);
    if (counters_from_kernel(agent))
      fill_flow_stats_from_kernel(agent, search, ntohl(handle.flow_id), ntohl(handle.is_inbound),
                                  flow + sizeof handle);
    else
      fill_flow_stats(agent.fastpath, search, ntohl(handle.flow_id), ntohl(handle.is_inbound),
                      flow + sizeof handle);
  }
  const uint32_t status = htonl(CRYPTO_NO_ERR);
  std::memcpy(response.data() + kFlowStatsStatus, &status, sizeof status);
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_FLOW_STATS END  NO ERROR:");
  return 0;
}

int kestrix_ceal_sadb_stats(Agent&, ReceivedBytes msg, std::vector<uint8_t>& response) {
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_IVRF_SADB_STATS::");
  echo_ivrf_request(msg, response);
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_IVRF_SADB_STATS::END ");
  return 0;
}

int kestrix_ceal_global_stats(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response) {
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_IVRF_GLOBAL_STATS::");
  echo_ivrf_request(msg, response);
  if (counters_from_kernel(agent))
    kestrix_kernel_global_counters(agent.nlink, agent.tunnels, response.data() + kGlobalStatsAt);
  else
    agent.fastpath.kestrix_stats_get_global_sa_counters(response.data() + kGlobalStatsAt);
  cpa_log(LOG_DEBUG, "KESTRIX_CEAL_CE_IVRF_GLOBAL_STATS::END");
  return 0;
}

}  // namespace cpa
