#include "pal/pal_dispatcher.h"

#include <gtest/gtest.h>

#include "fakes/test_agent.h"
#include "support/wire_builder.h"

namespace cpa {
namespace {

using test::Bytes;
using test::pal_request;

TEST(PalDispatcher, MarksRpActivityOnlyForPalAndCealMessages) {
  test::TestAgent t;
  EXPECT_EQ(t.deliver(Bytes().be16(3).be16(2).be16(0)), 0);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Unknown msg type 3 rcvd"));
  EXPECT_TRUE(t.take_sent().empty());
  EXPECT_FALSE(t.agent.shared.take_rp_activity());
  t.deliver(pal_request(7, {}));
  EXPECT_TRUE(t.agent.shared.take_rp_activity());
  t.deliver(Bytes().be16(1).be16(2).be16(9));
  EXPECT_TRUE(t.agent.shared.take_rp_activity());
  EXPECT_TRUE(t.log.has(LOG_ERR, "Wrong CEAL api type [9]"));
}

TEST(PalDispatcher, CommandsWithoutHandlerAreAnsweredAndLoggedAsInvalid) {
  test::TestAgent t;
  for (uint16_t cmd : {0, 6, 7, 8, 10, 18, 19, 20, 21, 25, 26, 30, 0xffff}) {
    t.deliver(pal_request(cmd, Bytes().be32(0x11111111)));
    const auto sent = t.take_sent();
    ASSERT_EQ(sent.size(), 1u) << cmd;
    EXPECT_EQ(sent[0], Bytes().be16(0).be16(6).be16(cmd).vec()) << cmd;
  }
  EXPECT_TRUE(t.log.has(LOG_INFO, "action: INVALID cmd_type 7 status 1"));
  EXPECT_TRUE(t.log.has(LOG_INFO, "action: INVALID cmd_type 65535 status 1"));
  EXPECT_FALSE(t.log.has_text("action: INVALID cmd_type 0 status 1"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "KESTRIX_PAL_IPSEC_SA_DELETE req"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "KESTRIX_PAL_TBAR_CREATE req"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "KESTRIX_PAL_TBAR_UPDATE req"));
}

TEST(PalDispatcher, FailedSendIsLoggedAndStillCounted) {
  test::TestAgent t;
  t.rp.fail_sends = true;
  EXPECT_EQ(t.deliver(pal_request(1, Bytes().be32(1).be32(2).be32(0))), 1);
  EXPECT_TRUE(t.log.has_text("PAL Send failed [1]"));
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_init_start_req_respok, 1u);
}

TEST(PalDispatcher, DatagramsTooShortForACommandAreDropped) {
  test::TestAgent t;
  EXPECT_EQ(t.deliver(Bytes().raw({0, 0, 0})), 1);
  EXPECT_EQ(t.deliver(Bytes().be16(0).be16(9).u8(1)), 1);
  EXPECT_TRUE(t.take_sent().empty());
  EXPECT_TRUE(t.log.has(LOG_ERR, "Datagram of 3 bytes has no message header, dropped"));
  EXPECT_TRUE(t.log.has(LOG_ERR, "PAL request of 5 bytes has no command, dropped"));
}

TEST(PalDispatcher, UnitTestModeSilencesPeerSpiAndFlowInserts) {
  test::TestAgent t(AgentSettings{.g_unit_test_on = 1});
  for (uint16_t cmd : {11, 13, 15}) t.deliver(pal_request(cmd, Bytes().be32(1).zeros(40)));
  EXPECT_TRUE(t.take_sent().empty());
  t.deliver(pal_request(12, Bytes().be32(1).zeros(8)));
  EXPECT_EQ(t.take_sent().size(), 1u);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_peer_insert_req, 1u);
  EXPECT_EQ(t.agent.counters.dbg_ctrs.p_peer_insert_resperr, 0u);
}

TEST(PalDispatcher, ResponseBuilderWritesHeaderCommandAndBody) {
  kestrix_pal_resp_t record{};
  for (size_t i = 0; i < sizeof record.raw; ++i) record.raw[i] = static_cast<uint8_t>(i + 1);
  PalResponseBuffer buf;
  EXPECT_EQ(kestrix_pal_build_response(15, buf, record), 22);
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 8),
            Bytes().be16(0).be16(22).be16(15).raw({1, 2}).vec());
  EXPECT_EQ(buf[21], 16);
  EXPECT_EQ(buf[22], 0);  // nothing of the record past the shape
}

}  // namespace
}  // namespace cpa
