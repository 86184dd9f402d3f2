// DELETE_FLOW against the fake platform kernel, which holds none of the SAs
// and so refuses every delete: the records go all the same.
#include "ceal/flow_delete.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "support/fp_segment.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

template <class Sa>
void add_sa(ObjectList<Sa>& list, int32_t flow_id, uint32_t spi) {
  list.insert_node(flow_sa<Sa>(flow_id, spi, 0, 0));
}

TEST(DeleteFlow, DeletesOneInboundSaAndStopsElseTheFirstOutboundSaOfEveryTunnel) {
  KernelTestAgent t;
  for (uint32_t create = 1; create <= 7; ++create) t.open_tunnel(create);
  cpa_interface_t &t3 = *t.agent.tunnels.at(3), &t5 = *t.agent.tunnels.at(5), &t7 = *t.agent.tunnels.at(7);
  add_sa(t3.inb_sa_list, 42, 0x301);
  add_sa(t5.outb_sa_list, 43, 0x501);
  add_sa(t5.outb_sa_list, 42, 0x502);
  add_sa(t7.outb_sa_list, 42, 0x701);
  const auto delete_flow_42 = [&t] {
    EXPECT_EQ(t.exchange(ceal_request(4, Bytes().be32(0xdeadbeef).be32(42).be32(0))),
              Bytes().be16(1).be16(14).be16(4).be32(0xdeadbeef).be32(1).vec());
    std::vector<uint32_t> deleted;  // the SPIs of the kernel deletes so far
    for (const Message& m : t.kernel.requests())
      if (u16_at(m, 4) == 17) deleted.push_back(be32_at(m, 32));  // XFRM_MSG_DELSA
    return deleted;
  };

  EXPECT_EQ(delete_flow_42(), std::vector<uint32_t>{0x301});
  EXPECT_TRUE(t3.inb_sa_list.empty());
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_inbound_sa_del.resp_err, 1u);

  EXPECT_EQ(delete_flow_42(), (std::vector<uint32_t>{0x301, 0x502, 0x701}));
  EXPECT_EQ(t5.outb_sa_list.head()->spi, 0x501u);
  EXPECT_EQ(t5.outb_sa_list.head()->next, nullptr);
  EXPECT_TRUE(t7.outb_sa_list.empty());
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_outbound_sa_del.req, 2u);

  EXPECT_EQ(delete_flow_42().size(), 3u);  // nothing carries it any more
}

}  // namespace
}  // namespace cpa::test
