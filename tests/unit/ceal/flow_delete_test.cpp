// DELETE_FLOW against the fake platform kernel, which holds none of the SAs
// and so refuses every delete: the records go all the same.
#include "ceal/flow_delete.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "support/fp_segment.h"

namespace cpa::test {
namespace {

TEST(DeleteFlow, DeletesOneInboundSaAndStopsElseTheFirstOutboundSaOfEveryTunnel) {
  KernelTestAgent t;
  for (uint32_t create = 1; create <= 7; ++create) t.open_tunnel(create);
  cpa_interface_t &t3 = *t.agent.tunnels.at(3), &t5 = *t.agent.tunnels.at(5), &t7 = *t.agent.tunnels.at(7);
  t3.inb_sa_list.insert_node(flow_sa<cpa_inbound_sa_t>(42, 0x301, 0, 0));
  t5.outb_sa_list.insert_node(flow_sa<cpa_outbound_sa_t>(43, 0x501, 0, 0));
  t5.outb_sa_list.insert_node(flow_sa<cpa_outbound_sa_t>(42, 0x502, 0, 0));
  t7.outb_sa_list.insert_node(flow_sa<cpa_outbound_sa_t>(42, 0x701, 0, 0));
  const auto delete_flow_42 = [&t] {
    EXPECT_EQ(t.exchange(ceal_request(4, Bytes().be32(0xdeadbeef).be32(42).be32(0))),
              Bytes().be16(1).be16(14).be16(4).be32(0xdeadbeef).be32(1).vec());
  };
  delete_flow_42();
  EXPECT_TRUE(t3.inb_sa_list.empty());
  EXPECT_FALSE(t7.outb_sa_list.empty());  // an inbound SA ends the search
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_inbound_sa_del.resp_err, 1u);
  delete_flow_42();
  EXPECT_EQ(t5.outb_sa_list.head()->spi, 0x501u);
  EXPECT_EQ(t5.outb_sa_list.head()->next, nullptr);
  EXPECT_TRUE(t7.outb_sa_list.empty());
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_outbound_sa_del.req, 2u);
  delete_flow_42();  // nothing carries it any more
  EXPECT_EQ(t.kernel.requests().size(), 3u);
}

}  // namespace
}  // namespace cpa::test
