// The dispatcher, and the refusals of every PAL handler for what the RP can
// send but the end-to-end suite cannot check: each request sits in a buffer
// exactly as long as the datagram, so a read past what arrived is caught by
// the address sanitizer.
#include "pal/pal_dispatcher.h"

#include <gtest/gtest.h>

#include "fakes/test_agent.h"

namespace cpa::test {
namespace {

TEST(PalDispatcher, RefusedAndCutShortRequestsAreAnsweredInTheirShapeEchoingWhatArrived) {
  TestAgent t;
  ASSERT_EQ(t.open_tunnel(0x100), 1u);
  const auto peer = [](uint32_t callback, uint32_t create, size_t body = 48) {
    std::vector<uint8_t> b = Bytes().be32(callback).be32(create).be32(0x77).be32(1).zeros(32);
    b.resize(body);
    return b;
  };
  const char* kNullUpdate = " sadb update request null or sadb update request sadb handle null";
  const char* kNullAcl = "Callback handle and sadb handle null ";
  const char* kNullPeer = "Null callack handle or create handle or peer request sadb handle";
  struct Case {
    uint16_t cmd;
    std::vector<uint8_t> body, echoed;  // the answer: the echoed bytes and the status
    const char* line;
    uint32_t status = 8;
  } cases[] = {
      {1, Bytes().be32(0xA1).be32(0x500).be16(0), Bytes().be32(0xA1).be32(0), "Null callback handle or create handle"},
      {1, Bytes().be32(0xA1).be32(0x100).be32(0), Bytes().be32(0xA1).be32(1), "Duplicate KESTRIX_PAL_SADB_START", CRYPTO_NO_ERR},
      {2, Bytes().be16(0xdead), Bytes().be32(0xdead0000), "Null handle init_complt_req"},
      {3, Bytes().be32(5).be16(0), Bytes().be32(5), "callback handle null or sadb handle null"},
      {4, Bytes().be32(5).be32(0).be32(1).be32(1), Bytes().be32(5), kNullUpdate},
      {4, Bytes().be32(5).be32(1).be32(1), Bytes().be32(5), kNullUpdate},
      {5, Bytes().be32(4).be32(1).be32(7), Bytes().be32(4), " isadb attribute request null "},
      {9, Bytes().be32(0).be32(1).zeros(44), Bytes().be32(0), kNullAcl},
      {9, Bytes().be32(0x11).be32(1).zeros(10), Bytes().be32(0x11), kNullAcl},
      {11, peer(0, 0xC0), Bytes().be32(0).be32(0), kNullPeer},
      {11, peer(0xCB, 0xC0, 47), Bytes().be32(0xCB).be32(0), kNullPeer},
      {12, Bytes().be32(0).be32(1).be32(0x77), Bytes().be32(0), "Invalid handle"},
      {12, Bytes().be32(0xCB).be32(1), Bytes().be32(0xCB), "Invalid handle"},
  };
  for (const Case& c : cases) {
    t.log.clear();
    EXPECT_EQ(t.exchange(pal_request(c.cmd, c.body)), pal_answer(c.cmd, Bytes().append(c.echoed).be32(c.status))) << c.line;
    EXPECT_EQ(t.log.count(c.line), 1) << c.line;
  }
  const cpa_interface_t& tunnel = *t.agent.tunnels.at(1);
  EXPECT_EQ(tunnel.tunnelid, kUnattachedTunnel);
  EXPECT_TRUE(tunnel.head_policy.empty());
  EXPECT_EQ(tunnel.peer_index, -1);
}

TEST(PalDispatcher, MarksRpActivityOnlyForPalAndCealMessagesAndDropsWhatHasNoCommand) {
  TestAgent t;
  const struct {
    std::vector<uint8_t> datagram;
    bool activity;
    const char* line;
  } cases[] = {
      {Bytes().be16(0).u8(0), false, "Datagram of 3 bytes has no message header, dropped"},
      {Bytes().be16(3).be16(2).be16(0), false, "Unknown msg type 3 rcvd"},
      {Bytes().be16(0).be16(0), true, "PAL request of 4 bytes has no command, dropped"},
      {Bytes().be16(1).be16(2).be16(9), true, nullptr},  // CEAL too; PAL is test_keepalive's
  };
  for (const auto& c : cases) {
    t.log.clear();
    t.deliver(c.datagram);
    EXPECT_EQ(t.agent.shared.take_rp_activity(), c.activity) << c.datagram.size();
    if (c.line) {
      EXPECT_TRUE(t.log.has(LOG_ERR, c.line)) << c.line;
      EXPECT_TRUE(t.take_sent().empty()) << c.line;
    }
  }
}

}  // namespace
}  // namespace cpa::test
