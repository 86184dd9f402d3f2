// Cost of a FLOW_STATS query of 100 flows against a full table of 4095
// tunnels (each with an inbound and an outbound SA) and a full-size segment,
// per flow, beside the physical floor: reading each flow's 128 x 256 counter
// bytes once. The queried flows are spread over the whole table, so the
// search for them passes every tunnel. In-process, on the agent's own
// dispatch, with the test fakes for its seams; no root needed.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fakes/test_agent.h"
#include "support/fp_segment.h"

namespace {

using namespace cpa;
using Steady = std::chrono::steady_clock;
constexpr int kFlows = 100;
constexpr int kRuns = 400;
constexpr uint32_t kDst = 0x0A000001;

// Tunnel in slot s carries inbound flow 2s and outbound flow 2s+1, SPIs alike.
void fill_table(test::TestAgent& t) {
  for (uint32_t create = 1; create < TunnelTable::kSlots; ++create) {
    const uint32_t slot = t.open_tunnel(create);
    cpa_interface_t* tunnel = t.agent.tunnels.at(slot);
    const int32_t in = 2 * slot, out = 2 * slot + 1;
    insert_node_inb_sa(tunnel->inb_sa_list, test::flow_sa<cpa_inbound_sa_t>(in, in, kDst, kIpProtoEsp));
    insert_node_out_sa(tunnel->outb_sa_list, test::flow_sa<cpa_outbound_sa_t>(out, out, kDst, kIpProtoEsp));
    t.log.clear();
  }
}

uint32_t queried_slot(int k) { return 40 * (k + 1); }  // 40 ... 4000

// Entry k+1 of the segment is queried flow k's SA, with every counter of every core set.
std::vector<uint8_t> fill_segment_and_query(test::FpSegment& seg) {
  test::Bytes q;
  q.be16(1).be16(2 + 12 + 16 * kFlows).be16(1).be32(0xCA11).be32(0).be32(kFlows);
  for (int k = 0; k < kFlows; ++k) {
    const bool inbound = k % 2 == 0;
    const uint32_t flow = 2 * queried_slot(k) + (inbound ? 0 : 1);
    seg.add_sa(k + 1, flow, kDst, kIpProtoEsp);
    for (int core = 0; core < 128; ++core)
      for (size_t counter = 0; counter < 256; counter += 8) seg.sa_counter(k + 1, core, counter, core + counter);
    q.be32(flow).be32(0).be32(k).be32(inbound);
  }
  return q;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The floor: every byte of each queried flow's 128 per-core records, read once.
double floor_per_flow_us(const FastPathStats& fp) {
  std::vector<const uint8_t*> blocks;
  for (int k = 0; k < kFlows; ++k) {
    const uint32_t flow = 2 * queried_slot(k) + (k % 2);
    blocks.push_back(fp.kestrix_stats_sad_in_lookup(flow, kDst, kIpProtoEsp) + fp::kSaStats);
  }
  std::vector<double> runs;
  volatile uint64_t sink = 0;
  for (int run = 0; run < kRuns; ++run) {
    const auto start = Steady::now();
    uint64_t sum = 0;
    for (const uint8_t* block : blocks)
      for (size_t at = 0; at < fp::kCores * fp::kSaStatsRecordSize; at += 8) {
        uint64_t v;
        std::memcpy(&v, block + at, 8);
        sum += v;
      }
    sink = sink + sum;
    runs.push_back(std::chrono::duration<double, std::micro>(Steady::now() - start).count() / kFlows);
  }
  return median(runs);
}

}  // namespace

int main() {
  test::TestAgent t;
  test::FpSegment seg;
  t.agent.fastpath.use_segment(seg.data());
  fill_table(t);
  const std::vector<uint8_t> query = fill_segment_and_query(seg);

  std::vector<double> runs;
  for (int run = 0; run < kRuns; ++run) {
    const auto start = Steady::now();
    const auto answer = t.exchange(query);
    runs.push_back(std::chrono::duration<double, std::micro>(Steady::now() - start).count() / kFlows);
    if (answer.size() != 22 + 456 * kFlows) {
      std::fprintf(stderr, "unexpected answer of %zu bytes\n", answer.size());
      return 1;
    }
    t.log.clear();
  }
  const double per_flow = median(runs);
  const double floor = floor_per_flow_us(t.agent.fastpath);
  std::printf("FLOW_STATS, %d flows, 4095 tunnels: %.2f us per flow; reading the counters once: %.2f us per flow; "
              "ratio %.2f (target <= 3)\n",
              kFlows, per_flow, floor, per_flow / floor);
  return 0;
}
