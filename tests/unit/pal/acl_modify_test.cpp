// ACL modify requests over the dispatcher, against the fake platform kernel:
// what reaches the kernel, what the tunnel keeps, what the RP is answered;
// and the later re-programming of the kernel policies.
#include "pal/acl_modify.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "fakes/kernel_test_agent.h"
#include "support/acl_builder.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

using Records = std::vector<std::vector<uint8_t>>;

// A permit ACE with fields derived from `handle`: local 10.0.0.h/24 port
// 1000+h, remote 192.168.h.1/16 port 2000+h, UDP.
AceSpec ace(uint32_t handle, uint32_t type = kestrix_ace_permit, uint32_t ip_type = 4) {
  return {ip_type, type, 0, 0, handle, 0x0A000000 + handle, 24, 0xC0A80001 + (handle << 8), 16, 17, 0,
          {0, 1, {static_cast<uint16_t>(1000 + handle)}}, {0, 1, {static_cast<uint16_t>(2000 + handle)}}, 0};
}

// The four actions of a policy whose outbound action notifies the RP.
Records actions(uint32_t notify_handle = 0x77) {
  return {action_record(KESTRIX_PAL_IN_ACTION, CDH_ACTION_DISCARD_PACKET),
          action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP,
                        Bytes().be32(notify_handle)),
          action_record(KESTRIX_PAL_IN_DENY_ACTION, CDH_ACTION_FORWARD_PACKET),
          action_record(KESTRIX_PAL_OUT_DENY_ACTION, CDH_ACTION_DISCARD_PACKET)};
}

// ACE records of kind 1 for `aces`, then the actions.
Records acl(const std::vector<AceSpec>& aces, Records tail = actions()) {
  Records out;
  for (const AceSpec& a : aces) out.push_back(ace_record(KESTRIX_PAL_ACE_ACL_DESC, a));
  out.insert(out.end(), tail.begin(), tail.end());
  return out;
}

class AclModify : public ::testing::Test {
 protected:
  AclModify() {
    slot = t.open_tunnel(0x100);
    t.devices.add_device("svti5");
    tunnel().tunnelid = 5;
    svti = "svti" + std::to_string(t.devices.device("svti5")->ifindex);
    t.log.clear();
  }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }

  // The outbound ("out") or inbound ("in") kernel policy of ace(h) in a
  // request of `type`, as described: transport mode, ESP, the tunnel's
  // request id 1 and device.
  std::string policy_of(uint32_t h, const std::string& dir, int type = 19, int action = 0,
                        const std::string& tmpl = " tmpl50/m0/r1") const {
    const std::string local = "10.0.0." + std::to_string(h) + "/24:" + std::to_string(1000 + h);
    const std::string remote = "192.168." + std::to_string(h) + ".1/16:" + std::to_string(2000 + h);
    const bool out = dir == "out";
    const bool del = type == 20;
    return std::to_string(type) + (out ? " dir1 " : " dir0 ") +
           (del ? "idx0 " : "act" + std::to_string(action) + " ") +
           (out ? local + ">" + remote : remote + ">" + local) + " p17 " + svti + (del ? "" : " idx0" + tmpl);
  }

  // Sends one request; returns the response's status after checking its shape.
  uint32_t modify(uint32_t opcode, const Records& records) {
    const Message r = t.exchange(acl_request(opcode, records));
    EXPECT_EQ(Message(r.begin(), r.begin() + std::min<size_t>(r.size(), 10)),
              Bytes().be16(0).be16(14).be16(9).be32(0x11).vec());
    return be32_at(r, 10);
  }
  // The kernel requests since the last call, described.
  std::vector<std::string> kernel_requests() {
    const auto all = t.kernel.requests();
    std::vector<std::string> out;
    for (size_t i = seen; i < all.size(); ++i) out.push_back(describe_policy(all[i]));
    seen = all.size();
    return out;
  }
  // Handles and directions of the newest policy's ACEs, head first.
  std::vector<std::pair<uint32_t, uint32_t>> aces() {
    std::vector<std::pair<uint32_t, uint32_t>> out;
    if (!tunnel().head_policy.empty())
      for (const ace_netlink_t& a : tunnel().head_policy.head()->ace_entry)
        out.push_back({a.ace.handle, a.dir});
    return out;
  }
  size_t policies() {
    size_t n = 0;
    for (const cpa_spd_policy_t* p = tunnel().head_policy.head(); p; p = p->next.get()) ++n;
    return n;
  }

  KernelTestAgent t;
  uint32_t slot = 0;
  std::string svti;
  size_t seen = 0;
  cpa_netlink_global_ctr_t& nl = t.agent.counters.netlink_dbg_ctrs;
  cpa_pal_ctr_t& pal = t.agent.counters.dbg_ctrs;
};

// The kernel messages of an install, its refusals and a removal are the
// kernel programming's (tunnel_programming_test); here what the handler
// keeps and answers.
TEST_F(AclModify, InstallLinksThePolicyWithItsTwinsAndRefusalsKeepNothing) {
  ASSERT_EQ(modify(2, acl({ace(1), ace(2, kestrix_ace_deny_action)})), CRYPTO_NO_ERR);
  EXPECT_EQ(aces(), (std::vector<std::pair<uint32_t, uint32_t>>{{0, 0}, {0, 0}, {2, 1}, {1, 1}}));
  EXPECT_EQ(t.kernel.policies().size(), 4u);
  t.kernel.refuse_next(EEXIST);
  EXPECT_EQ(modify(2, acl({ace(3)})), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(policies(), 1u);
  EXPECT_EQ(pal.p_acl_insert_req, 2u);
  EXPECT_EQ(pal.p_acl_insert_respok + pal.p_acl_insert_resperr, 2u);
}

TEST_F(AclModify, RemovalReleasesTheNewestPolicyWhateverTheKernelSaid) {
  ASSERT_EQ(modify(2, acl({ace(1)})), CRYPTO_NO_ERR);
  ASSERT_EQ(modify(2, acl({ace(2), ace(3)})), CRYPTO_NO_ERR);
  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  ASSERT_EQ(policies(), 1u);  // the older policy stays
  EXPECT_EQ(aces().back().first, 1u);
  t.kernel.refuse_next(ENOENT);
  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  EXPECT_EQ(policies(), 0u);
  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "ERROR: no policy in sadb [1] to delete"));
  EXPECT_EQ(pal.p_acl_delete_req + pal.p_acl_delete_respok, 6u);
}

TEST_F(AclModify, ReplaceRemovesTheNewestPolicyBeforeInstalling) {
  EXPECT_EQ(modify(5, acl({ace(1)})), CRYPTO_NO_ERR);  // nothing to remove yet
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "ERROR: no policy in sadb [1] to delete"));
  EXPECT_EQ(kernel_requests(), (std::vector<std::string>{policy_of(1, "out"), policy_of(1, "in")}));
  EXPECT_EQ(modify(5, acl({ace(2)})), CRYPTO_NO_ERR);
  EXPECT_EQ(kernel_requests(),
            (std::vector<std::string>{policy_of(1, "in", 20), policy_of(1, "out", 20),
                                      policy_of(2, "out"), policy_of(2, "in")}));
  EXPECT_EQ(policies(), 1u);
  EXPECT_EQ(aces().back().first, 2u);
  // A refused install after the removal leaves the tunnel without either.
  t.kernel.refuse_next(0);
  t.kernel.refuse_next(0);
  t.kernel.refuse_next(EINVAL);
  EXPECT_EQ(modify(5, acl({ace(3)})), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(policies(), 0u);
  EXPECT_EQ(pal.p_acl_insert_respok, 2u);
  EXPECT_EQ(pal.p_acl_insert_resperr, 1u);
}

TEST_F(AclModify, DuplicatesAreJudgedByTheFirstAceRecordOnly) {
  ASSERT_EQ(modify(2, acl({ace(1), ace(2)})), CRYPTO_NO_ERR);
  kernel_requests();
  EXPECT_EQ(modify(2, acl({ace(1), ace(5)})), CRYPTO_NO_ERR);  // same first ACE
  EXPECT_EQ(modify(2, acl({ace(0)})), CRYPTO_NO_ERR);          // handle 0: the twins hold it
  EXPECT_EQ(t.log.count("Duplicate policy found. Returning no error\n"), 2);
  EXPECT_TRUE(kernel_requests().empty());
  EXPECT_EQ(policies(), 1u);

  AceSpec repeated = ace(7);
  repeated.handle = 1;
  // A later record that repeats a handle does not count.
  EXPECT_EQ(modify(2, acl({ace(6), repeated})), CRYPTO_NO_ERR);
  EXPECT_EQ(modify(2, acl({ace(2)})), CRYPTO_NO_ERR);  // found in the older policy
  EXPECT_EQ(t.log.count("Duplicate policy found. Returning no error\n"), 3);
  // A policy without ACEs is never a duplicate and needs no kernel call.
  EXPECT_EQ(modify(2, acl({})), CRYPTO_NO_ERR);
  EXPECT_EQ(modify(2, acl({})), CRYPTO_NO_ERR);
  EXPECT_EQ(kernel_requests().size(), 4u);
  EXPECT_EQ(policies(), 4u);
}

TEST_F(AclModify, DeletingTheTunnelReleasesItsPoliciesWhateverTheirState) {
  ASSERT_EQ(modify(2, acl({ace(1), ace(2)})), CRYPTO_NO_ERR);
  ASSERT_EQ(modify(5, acl({ace(3)})), CRYPTO_NO_ERR);
  ASSERT_EQ(modify(2, acl({})), CRYPTO_NO_ERR);
  t.deliver(pal_request(3, Bytes().be32(0xD).be32(1)));
  EXPECT_EQ(t.agent.tunnels.at(1), nullptr);  // the leak checker sees the rest
  EXPECT_EQ(t.kernel.policies().size(), 2u);  // the RP removes kernel policies first
}

}  // namespace
}  // namespace cpa::test
