// Statistics queries answered from a sparse in-memory segment: the search
// from flow id to fast-path entry, the sums over cores, the response layouts.
#include "ceal/stats_queries.h"

#include <gtest/gtest.h>
#include <linux/xfrm.h>

#include <tuple>
#include <utility>

#include "fakes/kernel_test_agent.h"
#include "support/fp_segment.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

constexpr uint32_t kDst = 0x0A000001;  // 10.0.0.1
const std::vector<uint8_t> kGlobal = Bytes().be32(0xCA11).be16(7).be32(0xE4).vec();  // echoed in answers

// A FLOW_STATS request for (flow id, inbound) pairs; handle i carries 0xE0+i and 0xB0+i.
// num_flows says how many there are unless given.
std::vector<uint8_t> flow_query(const std::vector<std::pair<uint32_t, bool>>& flows, int num_flows = -1) {
  Bytes b;
  b.be32(0xCA11).be32(0xF1).be32(num_flows < 0 ? static_cast<uint32_t>(flows.size()) : num_flows);
  for (size_t i = 0; i < flows.size(); ++i) b.be32(flows[i].first).be32(0xE0 + i).be32(0xB0 + i).be32(flows[i].second);
  return ceal_request(1, b);
}
size_t stats_of(size_t flow) { return 38 + 456 * flow; }

class StatsQueries : public ::testing::Test {
 protected:
  StatsQueries() { t.agent.fastpath.use_segment(seg.data()); }

  // An SA of `flow_id` on the tunnel in `slot`, newest of its list.
  void add_sa(uint32_t slot, bool inbound, int32_t flow_id, uint32_t spi, uint32_t dst = kDst, uint8_t proto = 50) {
    cpa_interface_t* tunnel = t.agent.tunnels.at(slot);
    if (inbound) {
      insert_node_inb_sa(tunnel->inb_sa_list, flow_sa<cpa_inbound_sa_t>(flow_id, spi, dst, proto));
    } else {
      insert_node_out_sa(tunnel->outb_sa_list, flow_sa<cpa_outbound_sa_t>(flow_id, spi, dst, proto));
    }
  }

  TestAgent t;
  FpSegment seg;
  uint32_t slot1 = t.open_tunnel(0x100);
  uint32_t slot2 = t.open_tunnel(0x200);
};

TEST_F(StatsQueries, EachFlowReadsTheEntryOfItsSpiDestinationAndProtocol) {
  // Entries 7, 9 and 11 share SPI 0x12345678, so one chain, and differ by
  // destination or protocol; entry 13 is not live. Each marks its packets.
  seg.add_sa(7, 0x12345678, kDst, 50);
  seg.add_sa(9, 0x12345678, kDst + 1, 50);
  seg.add_sa(11, 0x12345678, kDst, 51);
  seg.add_sa(13, 0xABCD, kDst, 50, 0);
  for (uint32_t index : {7, 9, 11, 13}) seg.sa_counter(index, 0, 8, index);
  add_sa(slot1, true, 1, 0x12345678);
  add_sa(slot1, true, 2, 0x12345678, kDst + 1);
  add_sa(slot2, true, 3, 0x12345678, kDst, 51);
  add_sa(slot2, true, 4, 0xABCD);
  add_sa(slot2, true, 6, 0x5555);  // the fast path does not hold it
  add_sa(slot2, false, 7, 0x12345678);  // flow 7 is outbound only

  const auto r = t.exchange(flow_query({{1, true}, {2, true}, {3, true}, {4, true}, {5, true}, {6, true}, {7, true}}));
  ASSERT_EQ(r.size(), 22u + 7 * 456);
  const uint32_t expected_packets[] = {7, 9, 11, 0, 0, 0, 0};
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(be32_at(r, stats_of(i) + 32), expected_packets[i]) << "flow " << i + 1;
  EXPECT_EQ(t.log.texts(LOG_ERR), (std::vector<std::string>{
                        " ERROR: sa_entry is not found for flow_id 4                is_inbound 1",
                        "ERROR: flow_id 5 is not found in cpa_pal_info             database ",
                        " ERROR: sa_entry is not found for flow_id 5                is_inbound 1",
                        " ERROR: sa_entry is not found for flow_id 6                is_inbound 1",
                        "ERROR: flow_id 7 is not found in cpa_pal_info             database ",
                        " ERROR: sa_entry is not found for flow_id 7                is_inbound 1",
                    }));
}

TEST_F(StatsQueries, TheLowestSlotAndItsNewestSaDecideEvenWithoutAnEntry) {
  const uint32_t slot3 = t.open_tunnel(0x300);
  seg.add_sa(2, 0x22, kDst, 50);
  seg.add_sa(3, 0x33, kDst, 50);
  seg.sa_counter(2, 0, 144, 2);
  seg.sa_counter(3, 0, 144, 3);
  add_sa(slot3, false, 1, 0x33);
  add_sa(slot2, false, 1, 0x11);
  add_sa(slot2, false, 1, 0x22);  // newest in the lowest slot holding flow 1
  add_sa(slot2, false, 2, 0x44);  // found first, has no entry: slot 3's is not tried
  add_sa(slot3, false, 2, 0x33);
  const auto r = t.exchange(flow_query({{1, false}, {2, false}}));
  EXPECT_EQ(be32_at(r, stats_of(0) + 224), 2u);
  EXPECT_EQ(be32_at(r, stats_of(1) + 224), 0u);
}

// Every counter of the SA record set on core 0 and core 127: the 32-bit
// fields take the low halves, the byte counts all 64 bits, and each
// direction fills only its half of its flow's place in the response.
TEST_F(StatsQueries, TwoFlowsSumOverCoresIntoTheirDirectionsHalf) {
  seg.add_sa(5, 0x77, kDst, 50);
  for (size_t counter = 0; counter < 256; counter += 8) {
    seg.sa_counter(5, 0, counter, (uint64_t{1} << 32) + counter);
    seg.sa_counter(5, 127, counter, 3);
  }
  add_sa(slot1, true, 1, 0x77);
  add_sa(slot1, false, 2, 0x77);
  const auto sum = [](size_t c) { return c + 3; };
  const auto expected = [&](std::initializer_list<std::pair<size_t, uint64_t>> fields, size_t wide_at) {
    std::vector<uint8_t> out(440);
    for (auto [at, v] : fields)
      for (size_t b = 0, n = at == wide_at ? 8 : 4; b < n; ++b)
        out[at + b] = static_cast<uint8_t>(v >> 8 * (n - 1 - b));
    return out;
  };
  const auto in = expected({{0, (uint64_t{1} << 32) + sum(0)}, {32, sum(8)}, {40, sum(24) + sum(48)}, {48, sum(56)},
                            {56, sum(16)}, {64, sum(24)}, {72, sum(40)}, {80, sum(48)}, {88, sum(32)},
                            {104, sum(72) + sum(80)}}, 0);
  const auto out = expected({{192, (uint64_t{1} << 32) + sum(136)}, {224, sum(144)}, {232, sum(168)}, {240, sum(152)},
                             {248, sum(160)}, {256, sum(176)}, {264, sum(184)}, {272, sum(208) + sum(216)},
                             {336, sum(192)}}, 192);
  const auto r = t.exchange(flow_query({{1, true}, {2, false}}));
  EXPECT_EQ(r, Bytes().be16(1).be16(934).be16(1).be32(0xCA11).be32(0xF1).be32(2).be32(1)
                   .be32(1).be32(0xE0).be32(0xB0).be32(1).append(in)
                   .be32(2).be32(0xE1).be32(0xB1).be32(0).append(out).vec());
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "No. of flows 2"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "KESTRIX_CEAL_CE_FLOW_STATS END  NO ERROR:"));
}

// Only handles wholly received are answered (at most 143); num_flows is echoed as sent.
TEST_F(StatsQueries, FlowResponseAnswersTheHandlesItReceived) {
  const std::vector<std::pair<uint32_t, bool>> many(200, {9, true});
  const struct {
    std::vector<uint8_t> request;
    size_t size;
    uint32_t num_flows;
  } cases[] = {
      {flow_query({}), 22, 0},
      {flow_query({{9, true}, {9, true}}, 5), 934, 5},
      {flow_query(many), 22 + 143 * 456, 200},
      {ceal_request(1, Bytes().be32(0xCA11).be32(0xF1).be32(1).zeros(15)), 22, 1},
  };
  for (const auto& c : cases) {
    const auto a = t.exchange(c.request);
    EXPECT_EQ(a.size(), c.size);
    EXPECT_EQ(be16_at(a, 2), c.size);
    EXPECT_EQ(be32_at(a, 14), c.num_flows);
    EXPECT_EQ(be32_at(a, 18), 1u);
  }
}

TEST_F(StatsQueries, GlobalCountersComeFromRowZeroAndSadbCountersAreZero) {
  for (size_t counter = 0; counter < 184; counter += 8) {
    seg.global_counter(0, 0, counter, (uint64_t{1} << 32) + counter);
    seg.global_counter(0, 127, counter, 3);
    seg.global_counter(1, 0, counter, 1000);  // another row: never read
  }
  const auto sum = [](uint64_t c) { return static_cast<uint32_t>(c + 3); };
  Bytes g;
  g.zeros(12).be64((uint64_t{1} << 32) + sum(8)).be32(sum(32)).be32(sum(72) + sum(80)).zeros(4).be32(sum(0))
      .be32(sum(48) + sum(24)).be32(sum(56)).be32(sum(16)).be32(sum(24)).be32(sum(40)).be32(sum(48)).zeros(8)
      .be64((uint64_t{1} << 32) + sum(96)).be32(sum(160) + sum(168)).be32(sum(88)).be32(sum(120)).be32(sum(104))
      .be32(sum(112)).be32(sum(128)).be32(sum(136)).zeros(8);
  EXPECT_EQ(t.exchange(ceal_request(3, kGlobal)), Bytes().be16(1).be16(128).be16(3).append(kGlobal).append(g).vec());
  EXPECT_EQ(t.exchange(ceal_request(2, kGlobal)), Bytes().be16(1).be16(36).be16(2).append(kGlobal).zeros(20).vec());
}

TEST(StatsQueriesWithoutSegment, EveryQueryIsAnsweredWithZeroCounters) {
  TestAgent t;
  const auto flows = t.exchange(flow_query({{1, true}, {2, false}}));
  ASSERT_EQ(flows.size(), 934u);
  EXPECT_EQ(std::vector<uint8_t>(flows.begin() + 494, flows.end()), std::vector<uint8_t>(440));
  EXPECT_EQ(t.log.count("ERROR: fp_shared is  NULL !!"), 2);
  EXPECT_EQ(t.exchange(ceal_request(3, kGlobal)), Bytes().be16(1).be16(128).be16(3).append(kGlobal).zeros(112).vec());
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: Failed to open shared memory\n"));
}

// Linux mode: each SA's counters are the kernel's answer to a get of it, scripted ahead.
TEST(StatsQueriesInLinuxMode, CountersComeFromTheKernelsSas) {
  KernelTestAgent t(AgentSettings{0, 0, KernelFlavour::kLinux});
  const auto answer_both_gets = [&] {  // the inbound SA's, then the outbound SA's
    for (uint32_t i : {0, 1}) {
      ::xfrm_usersa_info sa{};
      sa.curlft.bytes = i ? 7000 : 2500;
      sa.curlft.packets = i ? 70 : 25;
      sa.stats.replay = i ? 0 : 3;
      sa.stats.integrity_failed = i ? 0 : 4;
      t.kernel.answer_next({Bytes().h32(16 + sizeof sa).h16(XFRM_MSG_NEWSA).h16(0).h32(t.agent.nlink.g_seq() + i)
                                .h32(t.agent.nlink.port_id()).host(sa).vec()});
    }
  };
  const uint32_t slot = t.open_tunnel(0x100);
  insert_node_inb_sa(t.agent.tunnels.at(slot)->inb_sa_list, flow_sa<cpa_inbound_sa_t>(1, 0x11, kDst, 50));
  insert_node_out_sa(t.agent.tunnels.at(slot)->outb_sa_list, flow_sa<cpa_outbound_sa_t>(2, 0x22, kDst, 50));

  answer_both_gets();
  const auto flows = t.exchange(flow_query({{1, true}, {2, false}}));
  answer_both_gets();
  const auto global = t.exchange(ceal_request(3, kGlobal));
  // Bytes are 64-bit: their low word is 4 bytes into the field.
  const auto in = [&](size_t at) { return be32_at(flows, stats_of(0) + at); };
  EXPECT_EQ(std::tuple(in(4), in(32), in(40), in(48), in(64)), std::tuple(2500u, 25u, 4u, 3u, 4u));
  EXPECT_EQ(std::tuple(be32_at(flows, stats_of(1) + 196), be32_at(flows, stats_of(1) + 224)), std::tuple(7000u, 70u));
  EXPECT_EQ(std::tuple(be32_at(global, 16 + 16), be32_at(global, 16 + 32), be32_at(global, 16 + 36),
                       be32_at(global, 16 + 40), be32_at(global, 16 + 72), be32_at(global, 16 + 80)),
            std::tuple(2500u, 25u, 4u, 3u, 7000u, 70u));
}

}  // namespace
}  // namespace cpa::test
