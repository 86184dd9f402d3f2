#include "state/object_lists.h"

#include <gtest/gtest.h>

#include "state/policy_records.h"

namespace cpa {
namespace {

// A policy holds its ACEs and the next policy: releasing a long list must not
// recurse once per node.
TEST(ObjectList, LongListsAreReleasedWithoutDeepRecursion) {
  PolicyList policies;
  auto policy = new_record<cpa_spd_policy_t>();
  for (int i = 0; i < 300000; ++i) insert_node_ace(policy->ace_entry, new_record<ace_netlink_t>());
  insert_node_policy(policies, std::move(policy));
  for (int i = 0; i < 300000; ++i) insert_node_policy(policies, new_record<cpa_spd_policy_t>());
}

}  // namespace
}  // namespace cpa
