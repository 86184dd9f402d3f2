// The dispatcher, and the refusals of every PAL handler for what the RP can
// send but the end-to-end suite cannot check: each request sits in a buffer
// exactly as long as the datagram, so a read past what arrived is caught by
// the address sanitizer.
#include "pal/pal_dispatcher.h"

#include <gtest/gtest.h>

#include "fakes/test_agent.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

std::vector<uint8_t> cut(const std::vector<uint8_t>& datagram, size_t bytes) {
  return std::vector<uint8_t>(datagram.begin(), datagram.end() - static_cast<std::ptrdiff_t>(bytes));
}

TEST(PalDispatcher, RefusedAndCutShortRequestsAreAnsweredInTheirShapeEchoingWhatArrived) {
  TestAgent t;
  ASSERT_EQ(t.open_tunnel(0x100), 1u);
  const auto peer_insert = [](uint32_t callback, uint32_t create, uint32_t sadb) {
    return pal_request(11, Bytes().be32(callback).be32(create).be32(0x77).be32(sadb).zeros(32));
  };
  const std::vector<uint8_t> acl = acl_request(2, {ace_record(1, AceSpec{}), action_record(9, 0)});
  struct Case {
    std::vector<uint8_t> request, answer;
    const char* line;
  } cases[] = {
      {pal_request(1, Bytes().be32(0xA1).be32(0x500).be16(0)), pal_answer(1, Bytes().be32(0xA1).be32(0).be32(8)),
       "Null callback handle or create handle"},
      {pal_request(2, Bytes().be16(0xdead)), pal_answer(2, Bytes().be32(0xdead0000).be32(8)),
       "Null handle init_complt_req"},
      {pal_request(3, Bytes().be32(5).be16(0)), pal_answer(3, Bytes().be32(5).be32(8)),
       "callback handle null or sadb handle null"},
      {pal_request(4, Bytes().be32(5).be32(0).be32(1).be32(1)), pal_answer(4, Bytes().be32(5).be32(8)),
       " sadb update request null or sadb update request sadb handle null"},
      {pal_request(4, Bytes().be32(5).be32(1).be32(1)), pal_answer(4, Bytes().be32(5).be32(8)),
       " sadb update request null or sadb update request sadb handle null"},
      {pal_request(5, Bytes().be32(4).be32(1).be32(7)), pal_answer(5, Bytes().be32(4).be32(8)),
       " isadb attribute request null "},
      {pal_request(9, Bytes().be32(0).be32(1).zeros(44)), pal_answer(9, Bytes().be32(0).be32(8)),
       "Callback handle and sadb handle null "},
      {pal_request(9, Bytes().be32(0x11).be32(0).zeros(44)), pal_answer(9, Bytes().be32(0x11).be32(8)),
       "Callback handle and sadb handle null "},
      {pal_request(9, Bytes().be32(0x11).be32(1).zeros(10)), pal_answer(9, Bytes().be32(0x11).be32(8)),
       "Callback handle and sadb handle null "},
      {cut(acl, 1), pal_answer(9, Bytes().be32(0x11).be32(8)),
       "ACL_UPDATE: record at offset 178 passes the end of the PAL req (209 bytes)"},
      {peer_insert(0, 0xC0, 1), pal_answer(11, Bytes().be32(0).be32(0).be32(8)),
       "Null callack handle or create handle or peer request sadb handle"},
      {peer_insert(0xCB, 0, 1), pal_answer(11, Bytes().be32(0xCB).be32(0).be32(8)),
       "Null callack handle or create handle or peer request sadb handle"},
      {cut(peer_insert(0xCB, 0xC0, 1), 1), pal_answer(11, Bytes().be32(0xCB).be32(0).be32(8)),
       "Null callack handle or create handle or peer request sadb handle"},
      {pal_request(12, Bytes().be32(0).be32(1).be32(0x77)), pal_answer(12, Bytes().be32(0).be32(8)),
       "Invalid handle"},
      {pal_request(12, Bytes().be32(0xCB).be32(1)), pal_answer(12, Bytes().be32(0xCB).be32(8)), "Invalid handle"},
  };
  for (const Case& c : cases) {
    t.log.clear();
    EXPECT_EQ(t.exchange(c.request), c.answer) << c.line;
    EXPECT_EQ(t.log.count(c.line), 1) << c.line;
  }
  const cpa_interface_t& tunnel = *t.agent.tunnels.at(1);
  EXPECT_EQ(tunnel.tunnelid, kUnattachedTunnel);
  EXPECT_TRUE(tunnel.head_policy.empty());
  EXPECT_EQ(tunnel.peer_index, -1);
}

TEST(PalDispatcher, MarksRpActivityOnlyForPalAndCealMessages) {
  TestAgent t;
  EXPECT_EQ(t.deliver(Bytes().be16(3).be16(2).be16(0)), 0);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Unknown msg type 3 rcvd"));
  EXPECT_FALSE(t.agent.shared.take_rp_activity());
  t.deliver(pal_request(7, {}));
  EXPECT_TRUE(t.agent.shared.take_rp_activity());
  t.deliver(Bytes().be16(1).be16(2).be16(9));
  EXPECT_TRUE(t.agent.shared.take_rp_activity());
}

TEST(PalDispatcher, FailedSendIsLoggedAndStillCounted) {
  TestAgent t;
  t.rp.fail_sends = true;
  EXPECT_EQ(t.deliver(pal_request(1, Bytes().be32(1).be32(2).be32(0))), 1);
  EXPECT_EQ(t.log.count("PAL Send failed [1]"), 1);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_init_start_req_respok, 1u);
}

TEST(PalDispatcher, UnitTestModeSilencesPeerSpiAndFlowInsertsAndCeal) {
  TestAgent t(AgentSettings{.g_unit_test_on = 1});
  for (uint16_t cmd : {11, 13, 15}) t.deliver(pal_request(cmd, Bytes().be32(1).zeros(40)));
  t.deliver(Bytes().be16(1).be16(2).be16(0));
  EXPECT_TRUE(t.take_sent().empty());
  EXPECT_EQ(t.agent.counters.ceal_dbg_ctrs.c_create_key_req, 1u);
  EXPECT_EQ(t.exchange(pal_request(12, Bytes().be32(1).zeros(8))).size(), 14u);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_peer_insert_req, 1u);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_peer_insert_resperr, 0u);
}

}  // namespace
}  // namespace cpa::test
