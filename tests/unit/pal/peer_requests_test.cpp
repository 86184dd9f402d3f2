// Peer slots over sequences of requests; the answers' bytes, the decoded
// parameters and the counting are checked end to end.
#include "pal/peer_requests.h"

#include <gtest/gtest.h>

#include <memory>

#include "fakes/test_agent.h"

namespace cpa::test {
namespace {

// A peer insert whose first parameter, do_idle_timer, marks the record it makes.
std::vector<uint8_t> insert(uint32_t sadb, uint32_t peer, uint32_t marker = 1) {
  return pal_request(11, Bytes().be32(0xCB).be32(0xC0).be32(peer).be32(sadb).be32(marker).be32(2).be32(0x1A)
                             .be32(4).be32(5).be32(0x1B).be32(7).be16(8).be16(9));
}
std::vector<uint8_t> insert_answer(uint32_t peer, uint32_t status) {
  return pal_answer(11, Bytes().be32(0xCB).be32(peer).be32(status));
}

class Peers : public ::testing::Test {
 protected:
  // The slot of each tunnel's peer (-1: none) and the marker of the record there.
  std::vector<std::pair<int, int>> slots() const {
    std::vector<std::pair<int, int>> out;
    for (uint32_t s : {t1, t2}) {
      const int slot = t.agent.tunnels.at(s) ? t.agent.tunnels.at(s)->peer_index : -1;
      out.push_back({slot, slot < 0 ? 0 : t.agent.peers.at(slot)->do_idle_timer});
    }
    return out;
  }

  TestAgent t;
  uint32_t t1 = t.open_tunnel(0x100);
  uint32_t t2 = t.open_tunnel(0x200);
};

TEST_F(Peers, SlotsFollowInsertsReinsertsReplacementsAndDeletes) {
  struct Step {
    std::vector<uint8_t> request;
    std::vector<std::pair<int, int>> slots;  // of t1 and t2 after the request
  } steps[] = {
      {insert(t1, 0x11, 10), {{0, 10}, {-1, 0}}},
      {insert(t2, 0x22, 20), {{0, 10}, {1, 20}}},
      {pal_request(12, Bytes().be32(1).be32(t1).be32(0x99)), {{0, 10}, {1, 20}}},  // another peer
      {pal_request(12, Bytes().be32(1).be32(t1).be32(0x11)), {{-1, 0}, {1, 20}}},
      {insert(t2, 0x22, 30), {{-1, 0}, {0, 30}}},  // the same peer: made anew, lowest free slot
      {insert(t1, 0x33, 40), {{1, 40}, {0, 30}}},
      {insert(t1, 0x44, 50), {{1, 50}, {0, 30}}},  // another peer replaces the tunnel's record
      {insert(t1, 0, 60), {{1, 60}, {0, 30}}},
      {insert(t1, 0, 70), {{1, 60}, {0, 30}}},  // handle 0 is found again: a duplicate
      {pal_request(3, Bytes().be32(1).be32(t2)), {{1, 60}, {-1, 0}}},  // the tunnel goes, its peer too
  };
  for (const Step& s : steps) {
    t.exchange(s.request);
    EXPECT_EQ(slots(), s.slots) << ::testing::PrintToString(s.request);
  }
  EXPECT_TRUE(t.log.has(LOG_ERR, "Duplicate INSERT_PEER request"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, " do_idle_timer 10, idle_timer_setting 2, idle_timer_handle 1a, do_dpd 4, "
                                   "dpd_threshold 5 \n dpd_hdl 1b, do_trnslation 7, inside_remort_port 8, "
                                   "outside_remote_port 9 "));
  const uint32_t t3 = t.open_tunnel(0x300);
  t.exchange(insert(t3, 0x55));
  EXPECT_EQ(t.agent.tunnels.at(t3)->peer_index, 0);  // the deleted tunnel's slot
  EXPECT_EQ(t.agent.peers.at(2), nullptr);
}

TEST_F(Peers, FullPeerTableAnswersResourcesAndKeepsNothing) {
  for (int i = 0; i < PeerTable::kSlots; ++i) ASSERT_TRUE(t.agent.peers.store(std::make_unique<cdh_peer_parameters>()));
  EXPECT_EQ(t.exchange(insert(t1, 0x11)), insert_answer(0, 3));
  EXPECT_TRUE(t.log.has(LOG_ERR, "invalid CPA MAX peers "));
  EXPECT_EQ(t.agent.tunnels.at(t1)->peer_index, -1);
  EXPECT_EQ(t.agent.tunnels.at(t1)->peer_handle, 0u);
}

}  // namespace
}  // namespace cpa::test
