#include "pal/acl_policy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "fakes/log_capture.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

AceSpec ace(uint32_t handle, uint32_t ip_type = 4) {
  return {ip_type, 0, 0, 0, handle, 0x0A000000 + handle, 0, 0, 0, 0, 0, {0, 1, {1000}}, {}, 0};
}

// Runs the walk over exactly the bytes given, as the receive path would.
ce_status_t build(std::vector<uint8_t> exact, size_t message_length, std::unique_ptr<cpa_spd_policy_t>& policy) {
  return kestrix_alloc_set_policy(ReceivedBytes(exact.data(), exact.size()), message_length, &policy);
}

// The actions' data are decoded field by field in the state dump's test.
TEST(AclPolicy, BuildsAPolicyFromTheRecordStream) {
  LogCapture log;
  const auto command = acl_command(
      2, {ace_record(KESTRIX_PAL_ACE_ACL_DESC, ace(1)),
          action_record(KESTRIX_PAL_IN_DENY_ACTION, CDH_ACTION_DISCARD_PACKET),
          ace_record(KESTRIX_PAL_ACE_DECR_ACL_OUT_DENY_ACTION, ace(2)),
          ace_record(KESTRIX_PAL_ACE_ACE_DESC, ace(3, 6))});
  std::unique_ptr<cpa_spd_policy_t> built;
  ASSERT_EQ(build(command, command.size(), built), CRYPTO_NO_ERR);
  const cpa_spd_policy_t& policy = *built;
  EXPECT_EQ(std::tuple(policy.desc.what_changed, policy.inbound_deny.action),
            std::tuple(2u, CDH_ACTION_DISCARD_PACKET));
  // Every ACE kind becomes an outbound ACE without a kernel index, newest first; IPv6 is carried.
  std::vector<std::tuple<uint32_t, uint32_t, uint32_t, int32_t>> aces;
  for (const ace_netlink_t& a : policy.ace_entry) aces.push_back({a.ace.handle, a.ace.ip_type, a.dir, a.k_index});
  EXPECT_EQ(aces, (std::vector<std::tuple<uint32_t, uint32_t, uint32_t, int32_t>>{
                      {3, 6, kAceDirOut, 0}, {2, 4, kAceDirOut, 0}, {1, 4, kAceDirOut, 0}}));
  EXPECT_TRUE(log.texts(LOG_ERR).empty());
}

TEST(AclPolicy, RecordsCutShortOrOfUnknownKindFailTheRequestWithoutReadingPastTheBytes) {
  const auto full =
      acl_command(2, {ace_record(1, ace(1)), action_record(9, CDH_ACTION_DISCARD_PACKET)});
  const size_t n = full.size();  // 52 + 126 + 32
  const std::vector<uint8_t> with_tail = Bytes().append(full).u8(0x00).vec();
  const auto with_kind = [&](uint16_t kind) { return Bytes().append(full).be16(kind).be16(28).zeros(28).vec(); };
  struct Case {
    std::vector<uint8_t> bytes;
    size_t message_length;
    const char* error;  // null: accepted
  };
  const Case cases[] = {
      {with_kind(0), n + 32, "ACL_UPDATE: bad acl_action [0] in PAL req"},
      {with_kind(12), n + 32, "ACL_UPDATE: bad acl_action [12] in PAL req"},
      {full, n - 1, "ACL_UPDATE: record at offset 178 passes the end of the PAL req (209 bytes)"},
      {full, 100, "ACL_UPDATE: record at offset 52 passes the end of the PAL req (100 bytes)"},
      {full, n + 40, "ACL_UPDATE: record at offset 210 passes the end of the PAL req (210 bytes)"},
      {with_tail, n + 1, "ACL_UPDATE: record at offset 210 passes the end of the PAL req (211 bytes)"},
      {with_tail, n, nullptr},  // bytes past message_length are not part of the request
      {full, 52, nullptr},
      {{full.begin(), full.begin() + 30}, 30, nullptr},
  };
  for (const Case& c : cases) {
    LogCapture log;
    std::unique_ptr<cpa_spd_policy_t> built;
    SCOPED_TRACE(c.message_length);
    EXPECT_EQ(build(c.bytes, c.message_length, built), c.error ? CRYPTO_ERR_INVALID : CRYPTO_NO_ERR);
    EXPECT_EQ(built == nullptr, c.error != nullptr);
    EXPECT_EQ(log.texts(LOG_ERR), c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{});
  }
}

TEST(AclPolicy, KernelIndexGoesToTheFirstAceOfItsDirectionInTheNewestPolicy) {
  LogCapture log;
  TunnelTable tunnels;
  cdh_sadbhandle slot;
  tunnels.create_alloc_sadbhdl({htonl(0xC0), htonl(2), htonl(1)}, &slot);
  PolicyList& policies = tunnels.at(1)->head_policy;
  for (const auto& handles : {std::vector<uint32_t>{9}, {1, 2, 0, 0}}) {  // oldest first; 0: an inbound twin
    auto policy = new_record<cpa_spd_policy_t>();
    for (uint32_t h : handles) {
      insert_node_ace(policy->ace_entry, new_record<ace_netlink_t>());
      policy->ace_entry.head()->ace.handle = h;
      policy->ace_entry.head()->dir = h == 0 ? kAceDirIn : kAceDirOut;
    }
    insert_node_policy(policies, std::move(policy));
  }
  // The newest policy walks 0, 0, 2, 1.
  for (auto [k_index, dir] : {std::pair{0x100, kAceDirOut}, {0x108, kAceDirOut}, {0x201, kAceDirIn}})
    EXPECT_EQ(kestrix_policy_index_update(tunnels, 1, k_index, dir), 0);
  std::vector<int32_t> indexes;
  for (const ace_netlink_t& a : policies.head()->ace_entry) indexes.push_back(a.k_index);
  EXPECT_EQ(indexes, (std::vector<int32_t>{0x201, 0, 0x108, 0}));
  EXPECT_EQ(policies.head()->next->ace_entry.head()->k_index, 0);
  EXPECT_EQ(kestrix_policy_index_update(tunnels, 1, 5, 7), 1);  // no ACE of that direction
  EXPECT_EQ(kestrix_policy_index_update(tunnels, 2, 0x12, kAceDirOut), 1);
  policies.clear();
  EXPECT_EQ(kestrix_policy_index_update(tunnels, 1, 0x13, kAceDirIn), 1);
  EXPECT_EQ(log.texts(LOG_ERR), (std::vector<std::string>{"no ace found for dir 1, index 0x12",
                                                          "no policy found for dir 0, index 0x13"}));
}

}  // namespace
}  // namespace cpa::test
