// ACL modify requests over the dispatcher: what the tunnel keeps, what the
// RP is answered and counted. The kernel messages of an install and a
// removal are the kernel programming's (tunnel_programming_test); here the
// fake kernel only serves or refuses them.
#include "pal/acl_modify.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "fakes/kernel_test_agent.h"
#include "support/acl_builder.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

using Records = std::vector<std::vector<uint8_t>>;

// Permit ACE records of kind 1 for `handles`, local hosts told by handle and
// place (no two selectors alike), then an outbound action that notifies the RP.
Records acl(const std::vector<uint32_t>& handles) {
  Records out;
  for (uint32_t h : handles) {
    const uint32_t host = 0x0A000000 + h + 16 * static_cast<uint32_t>(out.size());
    out.push_back(ace_record(1, {.handle = h, .local_addr = host, .local_mask = 24, .protocol = 17}));
  }
  out.push_back(action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0x77)));
  return out;
}

class AclModify : public ::testing::Test {
 protected:
  AclModify() {
    slot = t.open_tunnel(0x100);
    t.devices.add_device("svti5");
    tunnel().tunnelid = 5;
  }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }

  // Sends one request; returns the response's status after checking its shape.
  uint32_t modify(uint32_t opcode, const Records& records) {
    const Message r = t.exchange(acl_request(opcode, records));
    EXPECT_EQ(Message(r.begin(), r.begin() + std::min<size_t>(r.size(), 10)),
              Bytes().be16(0).be16(14).be16(9).be32(0x11).vec());
    return be32_at(r, 10);
  }
  // The handles of the tunnel's policies, newest first; of each its first ACE record's.
  std::vector<uint32_t> policies() {
    std::vector<uint32_t> out;
    for (const cpa_spd_policy_t* p = tunnel().head_policy.head(); p; p = p->next.get()) {
      const ace_netlink_t* last = nullptr;
      for (const ace_netlink_t& a : p->ace_entry) last = &a;
      out.push_back(last ? last->ace.handle : 0);
    }
    return out;
  }

  KernelTestAgent t;
  uint32_t slot = 0;
};

TEST_F(AclModify, StepsKeepTheNewestPolicyFirstAndJudgeDuplicatesByTheFirstAce) {
  const char* kDuplicate = "Duplicate policy found. Returning no error\n";
  const char* kNothing = "ERROR: no policy in sadb [1] to delete";
  struct Step {
    uint32_t opcode;
    Records records;
    std::vector<int> kernel;  // per kernel request, 0: served
    uint32_t status;
    std::vector<uint32_t> policies;
    const char* line;
    int held = -1;  // kernel policies after the step; -1: not looked at
  } steps[] = {
      {5, acl({1}), {}, CRYPTO_NO_ERR, {1}, kNothing},  // replace with nothing to remove
      {2, acl({1, 5}), {}, CRYPTO_NO_ERR, {1}, kDuplicate},  // the same first ACE
      {2, acl({2, 3}), {}, CRYPTO_NO_ERR, {2, 1}, nullptr},
      {2, acl({0}), {}, CRYPTO_NO_ERR, {2, 1}, kDuplicate},  // handle 0: the twins hold it
      {2, acl({6, 1}), {}, CRYPTO_NO_ERR, {6, 2, 1}, nullptr},  // a later record's handle does not count
      {2, acl({3}), {}, CRYPTO_NO_ERR, {6, 2, 1}, kDuplicate},  // found in an older policy
      {2, acl({}), {}, CRYPTO_NO_ERR, {0, 6, 2, 1}, nullptr},  // never a duplicate
      {2, acl({}), {}, CRYPTO_NO_ERR, {0, 0, 6, 2, 1}, nullptr},
      {4, {}, {}, CRYPTO_NO_ERR, {0, 6, 2, 1}, "ERROR: no ace for policy at index 1"},
      {4, {}, {0, ENOENT}, CRYPTO_NO_ERR, {6, 2, 1}, nullptr},  // gone whatever the kernel said
      {5, acl({8}), {}, CRYPTO_NO_ERR, {8, 2, 1}, nullptr},
      {2, acl({9}), {EEXIST}, CRYPTO_ERR_INTERNAL, {8, 2, 1}, "Error in outbound policy creation"},
      // The old policy goes first: a refused install leaves the tunnel without either.
      {5, acl({9}), {0, 0, EINVAL}, CRYPTO_ERR_INTERNAL, {2, 1}, nullptr},
      {3, acl({9}), {}, CRYPTO_ERR_INVALID, {2, 1}, "Got an invalid code for acl processing 3\n", 9},
      // Refused at the second ACE: the first one's policies go again, so the retry finds the kernel as it was.
      {2, acl({10, 11}), {0, 0, EEXIST}, CRYPTO_ERR_INTERNAL, {2, 1}, "Error in outbound policy creation", 9},
      {2, acl({10, 11}), {}, CRYPTO_NO_ERR, {10, 2, 1}, nullptr, 9 + 4},
  };
  for (const Step& s : steps) {
    const std::string what = ::testing::PrintToString(s.policies);
    t.log.clear();
    for (int e : s.kernel) t.kernel.refuse_next(e);
    EXPECT_EQ(modify(s.opcode, s.records), s.status) << what;
    EXPECT_EQ(policies(), s.policies) << what;
    if (s.line) {
      EXPECT_EQ(t.log.count(s.line), 1) << s.line;
    }
    if (s.held >= 0) {
      EXPECT_EQ(t.kernel.policies().size(), static_cast<size_t>(s.held)) << what;
    }
  }
  const cpa_pal_ctr_t& pal = t.agent.counters.dbg_ctrs;
  EXPECT_EQ(std::vector<uint64_t>({pal.p_acl_insert_req, pal.p_acl_insert_respok, pal.p_acl_insert_resperr,
                                   pal.p_acl_delete_req, pal.p_acl_delete_respok}),
            std::vector<uint64_t>({13, 10, 3, 2, 2}));
}

}  // namespace
}  // namespace cpa::test
