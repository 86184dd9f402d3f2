// The state dump of a table with a free slot, an empty tunnel and a tunnel
// that unit-test mode filled (keys, SAs, peer) holding a policy of every
// action kind; the expected log is in testdata. It is also the check that
// ACE and action records are decoded field by field.
#include "diag/state_dump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

TEST(StateDump, EveryTunnelWithItsPoliciesAndSas) {
  ConsoleCapture console;  // keeps unit-test mode's lines off the output
  KernelTestAgent t{AgentSettings{.g_unit_test_on = 1}};
  for (uint32_t create : {0xc2, 0xd2, 0xe2}) t.open_tunnel(create);
  t.agent.tunnels.kestrix_update_sadb_attr({0, 0, htonl(5), htonl(6)}, 2);
  t.deliver(pal_request(3, Bytes().be32(0xD).be32(1)));
  t.deliver(pal_request(5, Bytes().be32(0x31).be32(3).be32(2).be32(0)));  // unit-test tunnel 2
  const AceSpec ace{.type = kestrix_ace_deny_action, .seqno = 5, .reverse = 1, .handle = 7, .local_addr = 0x0A000001,
                    .local_mask = 24, .remote_addr = 0xC0A80101, .remote_mask = 16, .protocol = 17,
                    .any_port = 1, .hint = 0x0A0B0C0D};
  t.deliver(acl_request(kestrix_insert_all,
                        {ace_record(KESTRIX_PAL_ACE_ACL_DESC, ace),
                         action_record(KESTRIX_PAL_IN_ACTION, CDH_ACTION_DECRYPT_PACKET,
                                       Bytes().be32(0x51).be64(0x1000000102).be16(0x33).zeros(2).be32(1).be32(68)),
                         action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP,
                                       Bytes().be32(0x77)),
                         action_record(KESTRIX_PAL_IN_DENY_ACTION, 7),
                         action_record(KESTRIX_PAL_OUT_DENY_ACTION, CDH_ACTION_ENCRYPT_PACKET,
                                       Bytes().be32(97).be16(98).zeros(2).be32(1))},
                        0x11, 3));
  t.log.clear();
  kestrix_dump_all_tunnels(t.agent.tunnels);
  EXPECT_EQ(t.log.transcript(), read_file(CPA_TESTDATA "/state_dump.txt"));
}

}  // namespace
}  // namespace cpa::test
