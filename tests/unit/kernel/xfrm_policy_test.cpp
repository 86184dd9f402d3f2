#include "kernel/xfrm_policy.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

XfrmPolicyArgs outbound_ace() {
  XfrmPolicyArgs p;
  p.src = 0x0a000001;  // 10.0.0.1
  p.smask = 0x118;     // only the low byte, 24, counts
  p.dst = 0xc0a80102;  // 192.168.1.2
  p.dmask = 32;
  p.sport = 500;
  p.dport = 4500;
  p.dir = 1;
  p.proto = 17;
  p.action = 1;
  p.tunnelid = 7;
  p.reqid = 3;
  p.tun_mode = 1;
  p.sec_protocol = 51;
  return p;
}

class PolicyMessages : public ::testing::Test {
 protected:
  PolicyMessages() { t.devices.add_device("svti7"); }
  uint32_t svti7() const { return static_cast<uint32_t>(t.devices.device("svti7")->ifindex); }
  Message last_request() { return t.kernel.requests().back(); }
  KernelTestAgent t;
  cpa_netlink_ctr_t& ctr = t.agent.counters.netlink_dbg_ctrs.n_outbound_policy_add;
};

// The selector shared by both requests, at `at` (16: right after the header).
void expect_selector(const Message& m, size_t at) {
  EXPECT_EQ(be32_at(m, at + 0), 0xc0a80102u);  // daddr
  EXPECT_TRUE(zero_between(m, at + 4, at + 16));
  EXPECT_EQ(be32_at(m, at + 16), 0x0a000001u);  // saddr
  EXPECT_TRUE(zero_between(m, at + 20, at + 32));
  EXPECT_EQ(be16_at(m, at + 32), 4500);  // dport
  EXPECT_EQ(u16_at(m, at + 34), 0xffff);
  EXPECT_EQ(be16_at(m, at + 36), 500);  // sport
  EXPECT_EQ(u16_at(m, at + 38), 0xffff);
  EXPECT_EQ(u16_at(m, at + 40), 2);  // family
  EXPECT_EQ(u8_at(m, at + 42), 32);  // prefixlen_d
  EXPECT_EQ(u8_at(m, at + 43), 24);  // prefixlen_s
  EXPECT_EQ(u8_at(m, at + 44), 17);  // proto
  EXPECT_TRUE(zero_between(m, at + 45, at + 56));  // padding, ifindex, user
}

TEST_F(PolicyMessages, AddIsHeaderBodySvtiIndexAndTemplateByteForByte) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), &ctr), 0);
  const Message m = last_request();
  ASSERT_EQ(m.size(), 284u);
  EXPECT_EQ(u32_at(m, 0), 284u);
  EXPECT_EQ(u16_at(m, 4), 19);
  EXPECT_EQ(u16_at(m, 6), 5);
  EXPECT_EQ(u32_at(m, 8), 1u);
  EXPECT_EQ(u32_at(m, 12), static_cast<uint32_t>(getpid()));
  expect_selector(m, 16);
  for (size_t limit = 72; limit < 104; limit += 8) EXPECT_EQ(u64_at(m, limit), ~0ull);
  EXPECT_TRUE(zero_between(m, 104, 200));  // expiry times, current lifetime, stats, priority, index
  EXPECT_EQ(u8_at(m, 200), 1);             // dir
  EXPECT_EQ(u8_at(m, 201), 1);             // action
  EXPECT_TRUE(zero_between(m, 202, 208));  // flags, share, hole
  EXPECT_EQ(u16_at(m, 208), 8);
  EXPECT_EQ(u16_at(m, 210), 34);
  EXPECT_EQ(u32_at(m, 212), svti7());
  EXPECT_EQ(u16_at(m, 216), 68);
  EXPECT_EQ(u16_at(m, 218), 5);
  EXPECT_TRUE(zero_between(m, 220, 240));  // template destination and SPI
  EXPECT_EQ(u8_at(m, 240), 51);            // template protocol
  EXPECT_EQ(u16_at(m, 244), 2);            // template family
  EXPECT_TRUE(zero_between(m, 248, 264));  // template source
  EXPECT_EQ(u32_at(m, 264), 3u);           // reqid
  EXPECT_EQ(u8_at(m, 268), 1);             // mode
  EXPECT_TRUE(zero_between(m, 269, 272));  // share, optional
  for (size_t algos = 272; algos < 284; algos += 4) EXPECT_EQ(u32_at(m, algos), 0xffffffffu);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "*** tunnelid 7 n_tunnelid " + std::to_string(svti7()) + "\n"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "SUCCESS: netlink policy create status"));
  EXPECT_TRUE(t.kernel.violations().empty()) << t.kernel.violations().front();
}

TEST_F(PolicyMessages, GetOrDeleteIsSelectorIndexDirectionAndSvtiIndex) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), nullptr), 0);
  const uint32_t index = t.kernel.policies().at(0).index;
  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 0, outbound_ace(), 0, nullptr), 0);
  const Message m = last_request();
  ASSERT_EQ(m.size(), 88u);
  EXPECT_EQ(u32_at(m, 0), 88u);
  EXPECT_EQ(u16_at(m, 4), 21);
  EXPECT_EQ(u16_at(m, 6), 5);
  EXPECT_EQ(u32_at(m, 12), 0u);  // no port id in a get or delete
  expect_selector(m, 16);
  EXPECT_EQ(u32_at(m, 72), 0u);  // index
  EXPECT_EQ(u8_at(m, 76), 1);    // dir
  EXPECT_TRUE(zero_between(m, 77, 80));
  EXPECT_EQ(u16_at(m, 80), 8);
  EXPECT_EQ(u16_at(m, 82), 34);
  EXPECT_EQ(u32_at(m, 84), svti7());
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Message len 276 Type 19"));
  char line[64];
  std::snprintf(line, sizeof line, "Index from kernel 0x%x", index);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, line));

  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 1, outbound_ace(), index, nullptr), 0);
  EXPECT_EQ(u16_at(last_request(), 4), 20);
  EXPECT_EQ(u32_at(last_request(), 72), index);
  EXPECT_TRUE(t.kernel.policies().empty());
  EXPECT_TRUE(t.kernel.violations().empty());
}

TEST_F(PolicyMessages, MessageTypesAndCountingFollowTheOperationCode) {
  struct Case {
    bool add;
    uint32_t code;
    uint16_t type;
    bool counted;
  };
  const Case cases[] = {{true, 0, 19, true}, {true, 7, 25, true}, {false, 0, 21, false},
                        {false, 1, 20, true}, {false, 2, 20, false}};
  for (const Case& c : cases) {
    cpa_netlink_ctr_t triple;
    t.kernel.script_next(ScriptedAnswer::refusal(ENOENT));  // counted outcomes land in resp_err
    const int rc = c.add ? kestrix_nlink_policy_add(t.agent.nlink, c.code, outbound_ace(), &triple)
                         : kestrix_nlink_policy_getordel(t.agent.nlink, c.code, outbound_ace(), 0, &triple);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(u16_at(last_request(), 4), c.type) << c.code;
    EXPECT_EQ(triple.req, c.counted ? 1u : 0u) << c.type << "/" << c.code;
    EXPECT_EQ(triple.resp_err, c.counted ? 1u : 0u) << c.type << "/" << c.code;
    EXPECT_EQ(triple.resp_ok, 0u);
  }
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "FAIL: netlink policy create status"));
}

TEST_F(PolicyMessages, AcceptedRequestsCountOkAndTheKernelKeepsWhatWasSent) {
  XfrmPolicyArgs any_port = outbound_ace();
  any_port.sport = any_port.dport = 0;
  any_port.tunnelid = 9;  // no device: index 0 is sent all the same
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, any_port, &ctr), 0);
  const Message m = last_request();
  EXPECT_EQ(u16_at(m, 48), 0);
  EXPECT_EQ(u16_at(m, 50), 0xffff);
  EXPECT_EQ(u16_at(m, 52), 0);
  EXPECT_EQ(u16_at(m, 54), 0xffff);
  EXPECT_EQ(u32_at(m, 212), 0u);
  EXPECT_EQ(ctr.req, 1u);
  EXPECT_EQ(ctr.resp_ok, 1u);
  const auto policies = t.kernel.policies();
  ASSERT_EQ(policies.size(), 1u);
  EXPECT_EQ(policies[0].reqid, 3u);
  EXPECT_EQ(policies[0].dir, 1);

  // A second add of the same policy is refused by the kernel; an update replaces it.
  EXPECT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, any_port, &ctr), 1);
  EXPECT_EQ(ctr.resp_err, 1u);
  EXPECT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 1, any_port, &ctr), 0);
  EXPECT_EQ(t.kernel.policies().size(), 1u);
}

}  // namespace
}  // namespace cpa::test
