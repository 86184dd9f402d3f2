#include "ceal/ceal_dispatcher.h"

#include <gtest/gtest.h>

#include "fakes/test_agent.h"
#include "support/wire_builder.h"

namespace cpa {
namespace {

using test::Bytes;

std::vector<uint8_t> ceal(uint16_t type, const std::vector<uint8_t>& body) {
  return Bytes().be16(1).be16(static_cast<uint16_t>(2 + body.size())).be16(type).append(body);
}

TEST(CealDispatcher, EachApiTypeIsAnsweredInItsShapeAsUnsupported) {
  test::TestAgent t;
  const std::vector<uint8_t> handles = Bytes().raw({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  struct Shape {
    uint16_t type, size, echoed, status_at;
  };
  for (const Shape s : {Shape{0, 281, 4, 10}, Shape{1, 22, 8, 18}, Shape{2, 36, 10, 0},
                        Shape{3, 128, 10, 0}, Shape{4, 14, 4, 10}}) {
    t.deliver(ceal(s.type, handles));
    const auto sent = t.take_sent();
    ASSERT_EQ(sent.size(), 1u);
    std::vector<uint8_t> expected(s.size, 0);
    const std::vector<uint8_t> head = Bytes().be16(1).be16(s.size).be16(s.type);
    std::copy(head.begin(), head.end(), expected.begin());
    std::copy(handles.begin(), handles.begin() + s.echoed, expected.begin() + 6);
    if (s.status_at) expected[s.status_at + 3] = 2;
    EXPECT_EQ(sent[0], expected) << s.type;
  }
  const cpa_ceal_ctr_t& c = t.agent.counters.ceal_dbg_ctrs;
  EXPECT_EQ(c.c_create_key_req, 1u);
  EXPECT_EQ(c.c_create_key_resperr, 1u);
  EXPECT_EQ(c.c_delete_key_resperr, 1u);
  EXPECT_TRUE(t.log.has(LOG_INFO, "KESTRIX_CEAL_CE_FLOW_STATS"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "api_type- [4] Message Length 14"));
}

TEST(CealDispatcher, ShortRequestsEchoWhatArrivedAndUnitTestModeSendsNothing) {
  test::TestAgent t;
  t.deliver(ceal(4, Bytes().raw({0xaa})));
  const auto sent = t.take_sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0], Bytes().be16(1).be16(14).be16(4).raw({0xaa, 0, 0, 0}).be32(2).vec());

  test::TestAgent ut(AgentSettings{.g_unit_test_on = 1});
  EXPECT_EQ(ut.deliver(ceal(0, {})), 0);
  EXPECT_TRUE(ut.take_sent().empty());
  EXPECT_EQ(ut.agent.counters.ceal_dbg_ctrs.c_create_key_req, 1u);
  EXPECT_EQ(ut.agent.counters.ceal_dbg_ctrs.c_create_key_resperr, 0u);
}

}  // namespace
}  // namespace cpa
