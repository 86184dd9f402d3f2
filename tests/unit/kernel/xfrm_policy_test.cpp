// Policy add and get/delete requests, byte for byte, against the fake
// platform kernel.
#include "kernel/xfrm_policy.h"

#include <gtest/gtest.h>

#include <tuple>

#include "fakes/kernel_test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

// An outbound UDP policy in tunnel mode with AH, every field set; only the low byte of smask counts.
XfrmPolicyArgs outbound_ace() {
  return {.src = 0x0a000001, .smask = 0x118, .dst = 0xc0a80102, .dmask = 32, .sport = 500, .dport = 4500,
          .dir = 1, .proto = 17, .tunnelid = 7, .action = 1, .reqid = 3, .tun_mode = 1, .sec_protocol = 51};
}

// The selector of outbound_ace(): destination, source, ports with full masks,
// AF_INET, prefixes, protocol.
Bytes selector() {
  return Bytes().be32(0xc0a80102).zeros(12).be32(0x0a000001).zeros(12)
      .be16(4500).h16(0xffff).be16(500).h16(0xffff).h16(2).u8(32).u8(24).u8(17).zeros(11);
}

class PolicyMessages : public ::testing::Test {
 protected:
  PolicyMessages() { t.devices.add_device("svti7"); }
  uint32_t svti7() const { return static_cast<uint32_t>(t.devices.device("svti7")->ifindex); }
  Message last_request() { return t.kernel.requests().back(); }
  KernelTestAgent t;
  cpa_netlink_ctr_t& ctr = t.agent.counters.netlink_dbg_ctrs.n_outbound_policy_add;
};

TEST_F(PolicyMessages, AddIsHeaderBodySvtiIndexAndTemplateByteForByte) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), &ctr), 0);
  const Message expected =
      Bytes()
          .h32(284).h16(19).h16(5).h32(1).h32(getpid())
          .append(selector())
          .h64(~0ull).h64(~0ull).h64(~0ull).h64(~0ull)  // byte and packet limits
          .zeros(96)                                     // expiry, lifetime, stats, priority, index
          .u8(1).u8(1).zeros(6)                          // direction, action
          .h16(8).h16(34).h32(svti7())                   // XFRMA_SVTI_IFINDEX
          .h16(68).h16(5)                                // XFRMA_TMPL:
          .zeros(20).u8(51).zeros(3).h16(2).zeros(18)    //   id (AH), family
          .h32(3).u8(1).zeros(3)                         //   reqid, tunnel mode
          .h32(~0u).h32(~0u).h32(~0u);                   //   every algorithm
  EXPECT_EQ(last_request(), expected);
  EXPECT_EQ(ctr.req + ctr.resp_ok, 2u);
}

TEST_F(PolicyMessages, GetOrDeleteIsSelectorIndexDirectionAndSvtiIndex) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), nullptr), 0);
  const uint32_t index = t.kernel.policies().at(0).index;
  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 0, outbound_ace(), 0, nullptr), 0);
  // No port id in a get or delete.
  EXPECT_EQ(last_request(), Bytes()
                                .h32(88).h16(21).h16(5).h32(2).h32(0)
                                .append(selector()).h32(0).u8(1).zeros(3)
                                .h16(8).h16(34).h32(svti7())
                                .vec());
  char line[64];
  std::snprintf(line, sizeof line, "Index from kernel 0x%x", index);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, line));

  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 1, outbound_ace(), index, nullptr), 0);
  EXPECT_EQ(u32_at(last_request(), 72), index);
  EXPECT_TRUE(t.kernel.policies().empty());
}

TEST_F(PolicyMessages, MessageTypesAndCountingFollowTheOperationCode) {
  // add?, operation code, message type, counted?
  for (const auto& [add, code, type, counted] : {std::tuple{true, 0, 19, true}, {true, 7, 25, true},
                                                 {false, 0, 21, false}, {false, 1, 20, true}, {false, 2, 20, false}}) {
    cpa_netlink_ctr_t triple;
    t.kernel.refuse_next(ENOENT);  // counted outcomes land in resp_err
    EXPECT_EQ(add ? kestrix_nlink_policy_add(t.agent.nlink, code, outbound_ace(), &triple)
                  : kestrix_nlink_policy_getordel(t.agent.nlink, code, outbound_ace(), 0, &triple),
              -ENOENT);
    EXPECT_EQ(u16_at(last_request(), 4), type) << code;
    EXPECT_EQ(std::vector<uint32_t>({triple.req, triple.resp_ok, triple.resp_err}),
              std::vector<uint32_t>({counted, 0, counted}))
        << type << "/" << code;
  }
}

TEST_F(PolicyMessages, AnyPortIsPortZeroAndAMissingDeviceIndexZero) {
  XfrmPolicyArgs any_port = outbound_ace();
  any_port.sport = any_port.dport = 0;
  any_port.tunnelid = 9;  // no device: index 0 is sent all the same
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, any_port, &ctr), 0);
  const Message m = last_request();
  EXPECT_EQ(Message(m.begin() + 48, m.begin() + 56), Bytes().be16(0).h16(0xffff).be16(0).h16(0xffff).vec());
  EXPECT_EQ(u32_at(m, 212), 0u);
}

}  // namespace
}  // namespace cpa::test
