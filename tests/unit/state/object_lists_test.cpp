#include "state/object_lists.h"

#include <gtest/gtest.h>

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

TEST(ObjectList, InsertsAtTheHeadAndDeletesByIdentityOnly) {
  test::LogCapture log;
  AceList list;
  for (uint32_t h : {1u, 2u, 3u}) EXPECT_EQ(insert_node_ace(list, ace_with_handle(h)), 0);
  EXPECT_EQ(insert_node_ace(list, nullptr), 1);
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 2, 1}));

  // A node equal in content but not in the list is not found.
  const auto twin = ace_with_handle(2);
  EXPECT_EQ(delete_node_ace(list, twin.get()), 1);
  EXPECT_EQ(delete_node_ace(list, nullptr), 1);
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 2, 1}));

  EXPECT_EQ(delete_node_ace(list, list.head()->next.get()), 0);  // middle
  EXPECT_EQ(handles(list), (std::vector<uint32_t>{3, 1}));
  EXPECT_EQ(delete_node_ace(list, list.head()), 0);  // head
  EXPECT_EQ(delete_node_ace(list, list.head()), 0);  // only node
  EXPECT_TRUE(list.empty());

  // A policy that is not in the list stays with its owner.
  PolicyList policies;
  insert_node_policy(policies, new_record<cpa_spd_policy_t>());
  auto stray = new_record<cpa_spd_policy_t>();
  EXPECT_EQ(delete_node_policy(policies, stray.get()), 1);
  EXPECT_EQ(delete_node_policy(policies, policies.head()), 0);
  EXPECT_TRUE(policies.empty());
}

TEST(ObjectList, LongListsAreReleasedWithoutDeepRecursion) {
  PolicyList policies;
  auto policy = new_record<cpa_spd_policy_t>();
  for (int i = 0; i < 300000; ++i) insert_node_ace(policy->ace_entry, new_record<ace_netlink_t>());
  insert_node_policy(policies, std::move(policy));
  for (int i = 0; i < 300000; ++i) insert_node_policy(policies, new_record<cpa_spd_policy_t>());
}

}  // namespace
}  // namespace cpa
