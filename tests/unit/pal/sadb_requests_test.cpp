// The SADB lifecycle as the RP drives it, through the real dispatcher.
#include <gtest/gtest.h>

#include "fakes/test_agent.h"
#include "support/wire_builder.h"

namespace cpa {
namespace {

using test::Bytes;
using test::pal_request;
using Datagram = std::vector<uint8_t>;

Datagram init_start(uint32_t callback, uint32_t create, uint32_t hint = 0) {
  return pal_request(1, Bytes().be32(callback).be32(create).be32(hint));
}
Datagram handles(uint16_t cmd, uint32_t callback, uint32_t sadb) {
  return pal_request(cmd, Bytes().be32(callback).be32(sadb));
}
Datagram response(uint16_t cmd, Bytes body) {
  return Bytes().be16(0).be16(static_cast<uint16_t>(6 + body.size())).be16(cmd).append(body);
}

class SadbRequests : public ::testing::Test {
 protected:
  Datagram ask(const Datagram& request) {
    agent.deliver(request);
    auto sent = agent.take_sent();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? Datagram{} : sent[0];
  }
  test::TestAgent agent;
  const cpa_pal_ctr_t& ctrs = agent.agent.counters.dbg_ctrs;
};

TEST_F(SadbRequests, InitStartAnswersTheSlotAndDuplicatesReturnTheSameTunnel) {
  EXPECT_EQ(ask(init_start(0xA1, 0x500)), response(1, Bytes().be32(0xA1).be32(1).be32(1)));
  EXPECT_EQ(ask(init_start(0xA2, 0x600)), response(1, Bytes().be32(0xA2).be32(2).be32(1)));
  agent.log.clear();
  EXPECT_EQ(ask(init_start(0xA3, 0x500)), response(1, Bytes().be32(0xA3).be32(1).be32(1)));
  EXPECT_TRUE(agent.log.has(LOG_ERR, "Duplicate KESTRIX_PAL_SADB_START"));
  // A duplicate is traced at its start only.
  EXPECT_TRUE(agent.log.has(LOG_INFO, "KESTRIX_PAL_SADB_INIT_START 000000a3 00000500"));
  EXPECT_EQ(agent.log.count("KESTRIX_PAL_SADB_INIT_START status 1 "), 1);
  EXPECT_EQ(agent.agent.tunnels.at(3), nullptr);
  EXPECT_EQ(ctrs.p_init_start_req, 3u);
  EXPECT_EQ(ctrs.p_init_start_req_respok, 3u);
}

TEST_F(SadbRequests, TraceShowsHandlesStatusAndElapsedTime) {
  agent.clock.now = {50, 0};
  agent.deliver(init_start(0xA1, 0x500));
  EXPECT_TRUE(agent.log.has(LOG_INFO, "KESTRIX_PAL_SADB_INIT_START 000000a1 00000500"));
  EXPECT_TRUE(agent.log.has(LOG_INFO,
                            "KESTRIX_PAL_SADB_INIT_START 000000a1 00000500 status 1 Time 0.00000 seconds"));
  EXPECT_TRUE(agent.log.has(LOG_DEBUG, "KESTRIX_PAL_SADB_INIT_START status 1 "));
}

TEST_F(SadbRequests, ZeroOrMissingHandlesAreInvalid) {
  EXPECT_EQ(ask(init_start(0xA1, 0)), response(1, Bytes().be32(0xA1).be32(0).be32(8)));
  EXPECT_TRUE(agent.log.has(LOG_ERR, "Null callback handle or create handle"));
  EXPECT_EQ(ask(handles(2, 0, 1)), response(2, Bytes().be32(0).be32(8)));
  EXPECT_TRUE(agent.log.has(LOG_ERR, "Null handle init_complt_req"));
  EXPECT_EQ(ask(handles(3, 5, 0)), response(3, Bytes().be32(5).be32(8)));
  EXPECT_TRUE(agent.log.has(LOG_ERR, "callback handle null or sadb handle null"));
  EXPECT_EQ(ask(pal_request(4, Bytes().be32(5).be32(0).be32(1).be32(1))),
            response(4, Bytes().be32(5).be32(8)));
  EXPECT_TRUE(agent.log.has(LOG_ERR, " sadb update request null or sadb update request sadb handle null"));
  // A body cut short is answered like zero handles, echoing what did arrive.
  EXPECT_EQ(ask(pal_request(1, Bytes().be32(0xA1).be32(0x500).be16(0))),
            response(1, Bytes().be32(0xA1).be32(0).be32(8)));
  EXPECT_EQ(ask(pal_request(2, Bytes().raw({0xde, 0xad}))),
            response(2, Bytes().raw({0xde, 0xad, 0, 0}).be32(8)));
  EXPECT_EQ(agent.agent.tunnels.at(1), nullptr);
  EXPECT_EQ(ctrs.p_init_start_req_resperr, 2u);
}

TEST_F(SadbRequests, CompletedDeleteAndAttributeUpdateFollowTheTunnel) {
  ask(init_start(0xA1, 0x500));
  EXPECT_EQ(ask(handles(2, 0xB1, 1)), response(2, Bytes().be32(0xB1).be32(1)));
  EXPECT_EQ(ask(pal_request(4, Bytes().be32(0xB2).be32(1).raw({0, 0, 0, 5}).raw({1, 2, 3, 4}))),
            response(4, Bytes().be32(0xB2).be32(1)));
  const cpa_interface_t* t = agent.agent.tunnels.at(1);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->attribute, 83886080u);  // the four bytes as received, read by a little-endian host
  EXPECT_EQ(t->value, 0x04030201u);
  EXPECT_EQ(ask(pal_request(4, Bytes().be32(0xB3).be32(9).be32(0).be32(0))),
            response(4, Bytes().be32(0xB3).be32(6)));

  EXPECT_EQ(ask(handles(3, 0xB4, 1)), response(3, Bytes().be32(0xB4).be32(1)));
  EXPECT_TRUE(agent.log.has(LOG_DEBUG, "\ncall handle 0xb4, sadbhdl 0x1"));
  EXPECT_TRUE(agent.log.has(LOG_DEBUG, "SADB Lookup success CPA idx 1"));
  EXPECT_EQ(agent.agent.tunnels.at(1), nullptr);
  EXPECT_EQ(ask(handles(2, 0xB5, 1)), response(2, Bytes().be32(0xB5).be32(6)));
  // Deleting what does not exist succeeds.
  EXPECT_EQ(ask(handles(3, 0xB6, 1)), response(3, Bytes().be32(0xB6).be32(1)));

  EXPECT_EQ(ctrs.p_init_compl_req, 2u);
  EXPECT_EQ(ctrs.p_init_compl_req_respok, 1u);
  EXPECT_EQ(ctrs.p_init_compl_req_resperr, 1u);
  EXPECT_EQ(ctrs.p_sadb_delete_req_respok, 2u);
  EXPECT_EQ(ctrs.p_attr_update_req_respok, 1u);
  EXPECT_EQ(ctrs.p_attr_update_req_resperr, 1u);
}

TEST_F(SadbRequests, DeleteReleasesWhatTheTunnelHolds) {
  ask(init_start(0xA1, 0x500));
  for (int i = 0; i < 2; ++i) {
    auto policy = new_record<cpa_spd_policy_t>();
    insert_node_ace(policy->ace_entry, new_record<ace_netlink_t>());
    insert_node_policy(agent.agent.tunnels.at(1)->head_policy, std::move(policy));
  }
  EXPECT_EQ(ask(handles(3, 0xA2, 1)), response(3, Bytes().be32(0xA2).be32(1)));
  EXPECT_EQ(agent.agent.tunnels.at(1), nullptr);  // the leak checker sees the rest
}

}  // namespace
}  // namespace cpa
