#include "pal/peer_requests.h"

#include <gtest/gtest.h>

#include <memory>

#include "fakes/test_agent.h"
#include "support/tunnel_setup.h"
#include "support/wire_builder.h"

namespace cpa {
namespace {

using test::Bytes;
using test::pal_request;
using Datagram = std::vector<uint8_t>;

constexpr uint32_t kCallback = 0xCB01;

// A peer insert whose parameters count up from `base`, ports last.
Datagram insert_request(uint32_t sadb, uint32_t peer_handle, uint32_t base = 1,
                        uint32_t callback = kCallback, uint32_t create = 0xC001) {
  Bytes b;
  b.be32(callback).be32(create).be32(peer_handle).be32(sadb);
  for (uint32_t i = 0; i < 7; ++i) b.be32(base + i);
  b.raw({0x1F, 0x90}).be16(0x50);  // ports 8080 and 80
  return pal_request(11, b);
}

Datagram delete_request(uint32_t sadb, uint32_t peer_handle, uint32_t callback = kCallback) {
  return pal_request(12, Bytes().be32(callback).be32(sadb).be32(peer_handle));
}

Datagram insert_answer(uint32_t peer_handle, uint32_t status, uint32_t callback = kCallback) {
  return Bytes().be16(0).be16(18).be16(11).be32(callback).be32(peer_handle).be32(status);
}

Datagram delete_answer(uint32_t status, uint32_t callback = kCallback) {
  return Bytes().be16(0).be16(14).be16(12).be32(callback).be32(status);
}

class PeerTest : public ::testing::Test {
 protected:
  Datagram exchange(const Datagram& request) {
    t.deliver(request);
    auto sent = t.take_sent();
    return sent.size() == 1 ? sent[0] : Datagram{};
  }
  const cpa_interface_t& tunnel(uint32_t slot) const { return *t.agent.tunnels.at(slot); }
  const cdh_peer_parameters* peer(uint32_t slot) const { return t.agent.peers.at(slot); }
  const cpa_pal_ctr_t& ctrs() const { return t.agent.counters.dbg_ctrs; }

  test::TestAgent t;
  uint32_t t1 = test::open_tunnel(t, 0x100);
  uint32_t t2 = test::open_tunnel(t, 0x200);
};

TEST_F(PeerTest, InsertStoresTheDecodedRecordInTheLowestFreeSlot) {
  EXPECT_EQ(exchange(insert_request(t1, 0xAABBCCDD, 10)), insert_answer(0xAABBCCDD, 1));
  EXPECT_EQ(exchange(insert_request(t2, 0x22, 20)), insert_answer(0x22, 1));

  EXPECT_EQ(tunnel(t1).peer_index, 0);
  EXPECT_EQ(tunnel(t1).peer_handle, 0xAABBCCDDu);
  EXPECT_EQ(tunnel(t2).peer_index, 1);
  const cdh_peer_parameters* p = peer(0);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->do_idle_timer, 10);
  EXPECT_EQ(p->idle_timer_setting, 11u);
  EXPECT_EQ(p->idle_timer_handle, 12u);
  EXPECT_EQ(p->do_dpd, 13);
  EXPECT_EQ(p->dpd_threshold, 14u);
  EXPECT_EQ(p->dpd_handle, 15u);
  EXPECT_EQ(p->do_translation, 16);
  EXPECT_EQ(p->inside_remote_port, 8080);
  EXPECT_EQ(p->outside_remote_port, 80);
  EXPECT_TRUE(t.log.has(LOG_DEBUG,
                        " do_idle_timer 10, idle_timer_setting 11, idle_timer_handle c, do_dpd 13, "
                        "dpd_threshold 14 \n dpd_hdl f, do_trnslation 16, inside_remort_port 8080, "
                        "outside_remote_port 80 "));
  EXPECT_TRUE(t.log.has(LOG_INFO, "KESTRIX_PAL_PEER_INSERT 0000cb01 0000c001"));
  EXPECT_TRUE(t.log.has(LOG_INFO,
                        "KESTRIX_PAL_PEER_INSERT 0000cb01 0000c001 status 1 Time 0.00000 seconds"));
  EXPECT_EQ(ctrs().p_peer_insert_req, 2u);
  EXPECT_EQ(ctrs().p_peer_insert_respok, 2u);
}

TEST_F(PeerTest, ReinsertOfTheSamePeerRemakesItsRecordInTheLowestFreeSlot) {
  exchange(insert_request(t1, 0x11));  // slot 0
  exchange(insert_request(t2, 0x22));  // slot 1
  exchange(delete_request(t1, 0x11));  // frees slot 0
  EXPECT_EQ(exchange(insert_request(t2, 0x22, 50)), insert_answer(0x22, 1));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Deleting an existing peer idx 1"));
  EXPECT_EQ(tunnel(t2).peer_index, 0);
  EXPECT_EQ(peer(0)->do_idle_timer, 50);
  EXPECT_EQ(peer(1), nullptr);
}

TEST_F(PeerTest, NewPeerForATunnelReleasesItsEarlierRecord) {
  exchange(insert_request(t1, 0x11));
  exchange(insert_request(t2, 0x22));
  EXPECT_EQ(exchange(insert_request(t1, 0x33, 70)), insert_answer(0x33, 1));
  EXPECT_EQ(tunnel(t1).peer_handle, 0x33u);
  EXPECT_EQ(tunnel(t1).peer_index, 0);
  EXPECT_EQ(peer(0)->do_idle_timer, 70);
  EXPECT_EQ(peer(2), nullptr);
}

TEST_F(PeerTest, PeerHandleZeroIsStoredOnceAndFoundAgain) {
  EXPECT_EQ(exchange(insert_request(t1, 0)), insert_answer(0, 1));
  EXPECT_EQ(exchange(insert_request(t1, 0)), insert_answer(0, 1));
  EXPECT_TRUE(t.log.has(LOG_ERR, "Duplicate INSERT_PEER request"));
  EXPECT_NE(peer(0), nullptr);
  EXPECT_EQ(peer(1), nullptr);
}

TEST_F(PeerTest, RefusedInsertsAnswerPeerHandleZero) {
  EXPECT_EQ(exchange(insert_request(99, 0x11)), insert_answer(0, 6));
  EXPECT_TRUE(t.log.has(LOG_INFO,
                        "KESTRIX_PAL_PEER_INSERT 0000cb01 0000c001 status 6 Time 0.00000 seconds"));
  EXPECT_EQ(exchange(insert_request(0, 0x11)), insert_answer(0, 8));
  EXPECT_EQ(exchange(insert_request(t1, 0x11, 1, kCallback, 0)), insert_answer(0, 8));
  EXPECT_EQ(exchange(insert_request(t1, 0x11, 1, 0)), insert_answer(0, 8, 0));
  EXPECT_EQ(t.log.count("Null callack handle or create handle or peer request sadb handle"), 3);
  Datagram cut = insert_request(t1, 0x11);
  cut.pop_back();
  EXPECT_EQ(exchange(cut), insert_answer(0, 8));
  EXPECT_EQ(tunnel(t1).peer_index, -1);
  EXPECT_EQ(ctrs().p_peer_insert_req, 5u);
  EXPECT_EQ(ctrs().p_peer_insert_resperr, 5u);
}

TEST_F(PeerTest, FullPeerTableAnswersResources) {
  for (int i = 0; i < PeerTable::kSlots; ++i)
    ASSERT_TRUE(t.agent.peers.store(std::make_unique<cdh_peer_parameters>()));
  EXPECT_EQ(exchange(insert_request(t1, 0x11)), insert_answer(0, 3));
  EXPECT_TRUE(t.log.has(LOG_ERR, "invalid CPA MAX peers "));
  EXPECT_EQ(tunnel(t1).peer_index, -1);
  EXPECT_EQ(tunnel(t1).peer_handle, 0u);
}

TEST_F(PeerTest, DeleteRemovesOnlyTheNamedPeerAndAlwaysSucceeds) {
  exchange(insert_request(t1, 0x11));
  EXPECT_EQ(exchange(delete_request(t1, 0x99)), delete_answer(1));  // another peer
  EXPECT_NE(peer(0), nullptr);
  EXPECT_EQ(exchange(delete_request(t1, 0x11)), delete_answer(1));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "PEER DEL success!"));
  EXPECT_EQ(peer(0), nullptr);
  EXPECT_EQ(tunnel(t1).peer_index, -1);
  EXPECT_EQ(tunnel(t1).peer_handle, 0u);
  EXPECT_EQ(exchange(delete_request(t1, 0x11)), delete_answer(1));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Duplicate PEER_DELETE"));
  EXPECT_EQ(exchange(delete_request(99, 0x11)), delete_answer(1));
  EXPECT_TRUE(t.log.has(LOG_INFO, "KESTRIX_PAL_PEER_DELETE 0000cb01 00000063"));
  EXPECT_EQ(ctrs().p_peer_delete_respok, 4u);

  EXPECT_EQ(exchange(delete_request(0, 0x11)), delete_answer(8));
  EXPECT_EQ(exchange(delete_request(t1, 0x11, 0)), delete_answer(8, 0));
  EXPECT_EQ(exchange(pal_request(12, Bytes().be32(kCallback).be32(t1))), delete_answer(8));
  EXPECT_EQ(t.log.count("Invalid handle"), 3);
  EXPECT_EQ(ctrs().p_peer_delete_req, 7u);
  EXPECT_EQ(ctrs().p_peer_delete_resperr, 3u);
}

TEST_F(PeerTest, DeletingATunnelReleasesItsPeer) {
  exchange(insert_request(t1, 0x11));
  exchange(insert_request(t2, 0x22));
  exchange(pal_request(3, Bytes().be32(1).be32(t1)));
  EXPECT_EQ(peer(0), nullptr);
  EXPECT_NE(peer(1), nullptr);
  const uint32_t t3 = test::open_tunnel(t, 0x300);
  exchange(insert_request(t3, 0x33));
  EXPECT_EQ(tunnel(t3).peer_index, 0);
}

}  // namespace
}  // namespace cpa
