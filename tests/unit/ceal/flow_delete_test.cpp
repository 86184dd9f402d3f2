// DELETE_FLOW against the fake platform kernel: which SAs of which tunnels
// go, and that the kernel's refusals change neither that nor the answer.
#include "ceal/flow_delete.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

template <class Sa>
void add_sa(ObjectList<Sa>& list, int32_t flow_id, uint32_t spi) {
  auto sa = std::make_unique<Sa>();
  sa->spi = spi;
  sa->protocol = kIpProtoEsp;
  sa->dest_addr.ip_address = 0x0a000000 | spi;
  sa->sa_info = std::make_unique<kestrix_ce_cipher_list_t>();
  sa->sa_info->ipsec_index = flow_id;
  list.insert_node(std::move(sa));
}

template <class Sa>
std::vector<uint32_t> spis(const ObjectList<Sa>& list) {
  std::vector<uint32_t> out;
  for (const Sa& sa : list) out.push_back(sa.spi);
  return out;
}

TEST(DeleteFlow, DeletesOneInboundSaAndStopsElseTheFirstOutboundSaOfEveryTunnel) {
  KernelTestAgent t;
  for (uint32_t create = 1; create <= 7; ++create) ASSERT_EQ(t.open_tunnel(create), create);
  cpa_interface_t& t3 = *t.agent.tunnels.at(3);
  cpa_interface_t& t5 = *t.agent.tunnels.at(5);
  cpa_interface_t& t7 = *t.agent.tunnels.at(7);
  add_sa(t3.inb_sa_list, 42, 0x301);
  add_sa(t5.outb_sa_list, 43, 0x501);
  add_sa(t5.outb_sa_list, 42, 0x502);
  add_sa(t5.outb_sa_list, 42, 0x503);
  add_sa(t7.outb_sa_list, 42, 0x701);
  const auto delete_flow = [&t](uint32_t flow_id) {
    return t.exchange(ceal_request(4, Bytes().raw({0xde, 0xad, 0xbe, 0xef}).be32(flow_id).be32(0)));
  };
  const std::vector<uint8_t> answer = Bytes().be16(1).be16(14).be16(4).raw({0xde, 0xad, 0xbe, 0xef}).be32(1);
  // The kernel holds none of these SAs: every delete is refused (ESRCH).
  const auto deleted_spis = [&t] {
    std::vector<std::pair<uint32_t, uint32_t>> out;  // destination, SPI
    for (const Message& m : t.kernel.requests())
      if (u16_at(m, 4) == 17) out.emplace_back(be32_at(m, 16), be32_at(m, 32));
    return out;
  };

  EXPECT_EQ(delete_flow(42), answer);
  EXPECT_TRUE(t3.inb_sa_list.empty());
  EXPECT_EQ(spis(t5.outb_sa_list), (std::vector<uint32_t>{0x503, 0x502, 0x501}));
  EXPECT_EQ(deleted_spis(), (std::vector<std::pair<uint32_t, uint32_t>>{{0x0a000301, 0x301}}));
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_inbound_sa_del.resp_err, 1u);

  EXPECT_EQ(delete_flow(42), answer);
  EXPECT_EQ(spis(t5.outb_sa_list), (std::vector<uint32_t>{0x502, 0x501}));
  EXPECT_TRUE(t7.outb_sa_list.empty());
  EXPECT_EQ(deleted_spis().size(), 3u);
  EXPECT_EQ(deleted_spis()[1].second, 0x503u);
  EXPECT_EQ(deleted_spis()[2].second, 0x701u);
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_outbound_sa_del.req, 2u);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "DELETED OUTB SA: FLOWID(ipsec_index) [42] IPSEC_SA [0x0], SPI [0x701], "
                                   "DEST [010.000.007.001], PROTO [50]"));

  EXPECT_EQ(delete_flow(44), answer);
  EXPECT_EQ(deleted_spis().size(), 3u);
  EXPECT_EQ(t.agent.counters.ceal_dbg_ctrs.c_delete_key_respok, 3u);
}

}  // namespace
}  // namespace cpa::test
