#include "state/object_lists.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "state/policy_records.h"

namespace cpa {
namespace {

std::unique_ptr<ace_netlink_t> ace_with_handle(uint32_t handle) {
  auto node = new_record<ace_netlink_t>();
  node->ace.handle = handle;
  return node;
}

std::vector<uint32_t> handles(const AceList& list) {
  std::vector<uint32_t> out;
  for (const ace_netlink_t& node : list) out.push_back(node.ace.handle);
  return out;
}

std::string hex(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%x", log_addr(p));
  return text;
}

TEST(ObjectList, InsertsAtTheHeadAndRefusesNoNode) {
  test::LogCapture log;
  AceList list;
  for (uint32_t h : {1u, 2u, 3u}) EXPECT_EQ(insert_node_ace(list, ace_with_handle(h)), 0);
  EXPECT_EQ(insert_node_ace(list, nullptr), 1);
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 2, 1}));
  EXPECT_TRUE(log.has(LOG_DEBUG, "ERROR: insert node 0x0"));
}

TEST(ObjectList, DeletesByIdentityOnly) {
  test::LogCapture log;
  AceList list;
  EXPECT_EQ(delete_node_ace(list, nullptr), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "NULL pointer(s) passed"));
  for (uint32_t h : {1u, 2u, 3u}) insert_node_ace(list, ace_with_handle(h));

  // A node equal in content but not in the list is not found.
  const auto twin = ace_with_handle(2);
  EXPECT_EQ(delete_node_ace(list, twin.get()), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "Node to delete not found " + hex(twin.get())));
  EXPECT_EQ(delete_node_ace(list, nullptr), 1);
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 2, 1}));

  EXPECT_EQ(delete_node_ace(list, list.head()->next.get()), 0);  // middle
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 1}));
  EXPECT_EQ(delete_node_ace(list, list.head()), 0);  // head
  EXPECT_EQ(delete_node_ace(list, list.head()), 0);  // only node
  EXPECT_TRUE(list.empty());
}

TEST(ObjectList, PolicyDeletionReleasesThePolicyAndItsAces) {
  test::LogCapture log;
  PolicyList policies;
  for (int i = 0; i < 2; ++i) {
    auto policy = new_record<cpa_spd_policy_t>();
    insert_node_ace(policy->ace_entry, ace_with_handle(7));
    insert_node_policy(policies, std::move(policy));
  }
  const cpa_spd_policy_t* newest = policies.head();
  const std::string line = "Deleted node policy " + hex(newest);
  EXPECT_EQ(delete_node_policy(policies, newest), 0);
  EXPECT_TRUE(log.has(LOG_DEBUG, line));

  // A policy that is not in the list stays with its owner.
  auto stray = new_record<cpa_spd_policy_t>();
  EXPECT_EQ(delete_node_policy(policies, stray.get()), 1);
  stray->static_seqno = 1;
  EXPECT_EQ(policies.head()->next, nullptr);
}

TEST(ObjectList, LongListsAreReleasedWithoutDeepRecursion) {
  PolicyList policies;
  auto policy = new_record<cpa_spd_policy_t>();
  for (int i = 0; i < 300000; ++i) insert_node_ace(policy->ace_entry, new_record<ace_netlink_t>());
  insert_node_policy(policies, std::move(policy));
  for (int i = 0; i < 300000; ++i) insert_node_policy(policies, new_record<cpa_spd_policy_t>());
}

TEST(ObjectList, Num2Ip4PrintsThreeDigitsPerOctet) {
  char buf[16];
  EXPECT_STREQ(kestrix_num2ip4(0x0A000001, buf), "010.000.000.001");
  EXPECT_STREQ(kestrix_num2ip4(0xC0A80101, buf), "192.168.001.001");
  EXPECT_STREQ(kestrix_num2ip4(0, buf), "000.000.000.000");
  EXPECT_STREQ(kestrix_num2ip4(0xFFFFFFFF, buf), "255.255.255.255");
}

}  // namespace
}  // namespace cpa
