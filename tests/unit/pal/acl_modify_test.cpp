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
#include "pal/policy_sync.h"
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

TEST_F(AclModify, InstallProgramsBothDirectionsOfEveryAceAndKeepsTheTwinsAtTheHead) {
  for (uint32_t n = 1; n <= 3; ++n) {
    std::vector<AceSpec> entries;
    std::vector<std::string> expected;
    for (uint32_t i = 1; i <= n; ++i) {
      const uint32_t h = 10 * n + i;
      // The second ACE is a deny: both its kernel policies block.
      entries.push_back(ace(h, i == 2 ? kestrix_ace_deny_action : kestrix_ace_permit));
      // The walk starts at the last record (the list runs newest first).
      expected.insert(expected.begin(),
                      {policy_of(h, "out", 19, i == 2), policy_of(h, "in", 19, i == 2)});
    }
    ASSERT_EQ(modify(2, acl(entries)), CRYPTO_NO_ERR) << n;
    EXPECT_EQ(kernel_requests(), expected) << n;
    std::vector<std::pair<uint32_t, uint32_t>> list(n, {0, 0});         // T1..Tn
    for (uint32_t i = n; i >= 1; --i) list.push_back({10 * n + i, 1});  // An..A1
    EXPECT_EQ(aces(), list) << n;
  }
  // The first twin mirrors the first ACE record's selector (its kernel policies show it) and nothing else.
  const kestrix_crypto_ace& twin = tunnel().head_policy.head()->ace_entry.head()->ace;
  EXPECT_EQ(twin.ip_type + twin.type + twin.selector.ipv4.local_port.num_port, 0u);
  EXPECT_EQ(policies(), 3u);
  EXPECT_EQ(t.kernel.policies().size(), 12u);
  EXPECT_EQ(nl.n_outbound_policy_add.resp_ok + nl.n_inbound_policy_add.resp_ok, 12u);
  EXPECT_EQ(pal.p_acl_insert_req + pal.p_acl_insert_respok, 6u);
}

TEST_F(AclModify, RefusedInstallsKeepNothingButTheKernelPoliciesOfEarlierAces) {
  const Records encrypt_out = {
      action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_ENCRYPT_PACKET, Bytes().be32(9))};
  Records notify_then_encrypt = actions();
  notify_then_encrypt.push_back(encrypt_out[0]);
  struct Case {
    const char* what;
    Records records;
    std::vector<int> scripted_errors;  // per kernel request, 0: served
    uint32_t status;
    std::vector<std::string> requests;
    const char* line;
    size_t kept;  // kernel policies left: those of the ACEs walked before the failing one
  } cases[] = {
      {"outbound refused", acl({ace(1)}), {EEXIST}, CRYPTO_ERR_INTERNAL, {policy_of(1, "out")},
       "Error in outbound policy creation", 0},
      {"inbound refused: its outbound policy is taken back", acl({ace(1), ace(2)}),
       {0, 0, 0, EEXIST}, CRYPTO_ERR_INTERNAL,
       {policy_of(2, "out"), policy_of(2, "in"), policy_of(1, "out"), policy_of(1, "in"),
        policy_of(1, "out", 20)},
       "Error in inbound policy creation", 2},
      {"deny-jump ACE", acl({ace(1, kestrix_ace_deny_jump), ace(3)}), {}, CRYPTO_ERR_UNSUPPORTED,
       {policy_of(3, "out"), policy_of(3, "in")}, "ERROR: wrong ace type", 2},
      {"IPv6 ACE first in the walk", acl({ace(1), ace(4, 0, 6)}), {}, CRYPTO_ERR_INVALID, {},
       nullptr, 0},
      {"outbound action encrypts", acl({ace(1)}, encrypt_out), {}, CRYPTO_ERR_INVALID, {},
       "ERROR: Can't update/add policy", 0},
      {"notify-RP handle 0", acl({ace(1)}, actions(0)), {}, CRYPTO_ERR_INVALID, {},
       "ERROR: Can't update/add policy", 0},
      {"the second OUT action wins", acl({ace(1)}, notify_then_encrypt), {}, CRYPTO_ERR_INVALID,
       {}, "ERROR: Can't update/add policy", 0},
  };
  for (const Case& c : cases) {
    t.log.clear();
    for (int e : c.scripted_errors)
      t.kernel.refuse_next(e);
    const size_t before = t.kernel.policies().size();
    EXPECT_EQ(modify(2, c.records), c.status) << c.what;
    EXPECT_EQ(kernel_requests(), c.requests) << c.what;
    if (c.line) {
      EXPECT_TRUE(t.log.has(LOG_ERR, c.line)) << c.what;
    }
    EXPECT_EQ(policies(), 0u) << c.what;
    EXPECT_EQ(t.kernel.policies().size() - before, c.kept) << c.what;
  }
  EXPECT_EQ(nl.n_outbound_policy_del.req + nl.n_outbound_policy_del.resp_ok, 2u);
  EXPECT_EQ(pal.p_acl_insert_resperr, 7u);
}

TEST_F(AclModify, RemovalDeletesTwinsFirstAndStopsAtTheFirstKernelRefusal) {
  ASSERT_EQ(modify(2, acl({ace(1)})), CRYPTO_NO_ERR);
  ASSERT_EQ(modify(2, acl({ace(2), ace(3)})), CRYPTO_NO_ERR);
  kernel_requests();
  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  EXPECT_EQ(kernel_requests(),
            (std::vector<std::string>{policy_of(2, "in", 20), policy_of(3, "in", 20),
                                      policy_of(3, "out", 20), policy_of(2, "out", 20)}));
  ASSERT_EQ(policies(), 1u);  // the older policy stays
  EXPECT_EQ(aces().back().first, 1u);

  t.kernel.refuse_next(ENOENT);
  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  EXPECT_EQ(kernel_requests(), std::vector<std::string>{policy_of(1, "in", 20)});
  EXPECT_TRUE(t.log.has(LOG_ERR, " ERROR: Could not delete policy"));
  EXPECT_EQ(policies(), 0u);  // released all the same
  EXPECT_EQ(t.kernel.policies().size(), 2u);

  EXPECT_EQ(modify(4, {}), CRYPTO_NO_ERR);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "ERROR: no policy in sadb [1] to delete"));
  EXPECT_EQ(nl.n_inbound_policy_del.resp_ok + nl.n_outbound_policy_del.resp_ok, 4u);
  EXPECT_EQ(nl.n_inbound_policy_del.resp_err, 1u);
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

TEST_F(AclModify, ReprogrammingUpdatesEveryAceAndTwinWithTheNegotiatedModeAndProtocol) {
  EXPECT_EQ(kestrix_upd_policies(t.agent, &tunnel(), 1, kIpProtoAh), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "No Policies found"));
  ASSERT_EQ(modify(2, acl({})), CRYPTO_NO_ERR);
  EXPECT_EQ(kestrix_upd_policies(t.agent, &tunnel(), 1, kIpProtoAh), 1);  // no ACE
  ASSERT_EQ(modify(2, acl({ace(1), ace(2, kestrix_ace_deny_action)})), CRYPTO_NO_ERR);
  kernel_requests();

  EXPECT_EQ(kestrix_upd_policies(t.agent, &tunnel(), 1, kIpProtoAh), 0);
  const std::string ah_tunnel = " tmpl51/m1/r1";
  // The twin of the deny ACE goes back as allow.
  EXPECT_EQ(kernel_requests(),
            (std::vector<std::string>{
                policy_of(1, "in", 25, 0, ah_tunnel), policy_of(2, "in", 25, 0, ah_tunnel),
                policy_of(2, "out", 25, 1, ah_tunnel), policy_of(1, "out", 25, 0, ah_tunnel)}));
  EXPECT_EQ(nl.n_outbound_policy_add.req, 4u);  // two from the install, two updates
  EXPECT_EQ(nl.n_inbound_policy_add.req, 2u);

  t.kernel.refuse_next(0);
  t.kernel.refuse_next(ENOENT);
  EXPECT_EQ(kestrix_upd_policies(t.agent, &tunnel(), 0, kIpProtoEsp), -ENOENT);
  EXPECT_EQ(kernel_requests().size(), 2u);
}

TEST_F(AclModify, SaHandOverSendsNothingWithoutARecordAndSaysSo) {
  cpa_netlink_ctr_t& ctr = nl.n_inbound_sa_add;
  EXPECT_EQ(kestrix_nl_sa_add(t.agent, nullptr, 5, 1, &ctr), 0);  // callers take 0 as success
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Null sa info"));
  const kestrix_ce_cipher_list_t neither_esp_nor_ah{};
  EXPECT_NE(kestrix_nl_sa_add(t.agent, &neither_esp_nor_ah, 5, 1, &ctr), 0);
  EXPECT_EQ(t.kernel.requests().size(), 1u);
  EXPECT_EQ(ctr.req + ctr.resp_err, 2u);
}

}  // namespace
}  // namespace cpa::test
