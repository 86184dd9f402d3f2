#include "kernel/netlink_listener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <tuple>

#include "fakes/kernel_test_agent.h"
#include "support/returns_within.h"
#include "support/wire_builder.h"

namespace cpa::test {
namespace {

using Update = std::tuple<uint32_t, uint32_t, uint8_t>;  // tunnel's request id, kernel index, direction

struct RecordingPolicyEvents final : KernelPolicyEvents {
  int kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) override {
    updates.push_back({index, k_index, dir});
    return 0;
  }
  int kestrix_notify_rp(const xfrm_user_acquire_64*, uint32_t index) override {
    notified.push_back(index);
    return 0;
  }
  std::vector<Update> updates;
  std::vector<uint32_t> notified;
};

class Listener : public ::testing::Test {
 protected:
  int listen() { return kestrix_nlink_listener(ctx, monitor.get()); }
  // Each message in a buffer exactly as long as it, so that a read past it is caught.
  int call(int (*f)(const NetlinkListenerContext&, ReceivedBytes), const Message& m) {
    const Message exact(m);
    return f(ctx, ReceivedBytes(exact.data(), exact.size()));
  }
  int handle(const Message& m) { return call(kestrix_nlink_process_msg, m); }
  int policy(const Message& m) { return call(kestrix_nlink_proc_policy, m); }
  int acquire(const Message& m) { return call(kestrix_nlink_proc_acquire, m); }

  KernelTestAgent t;
  ScopedFd monitor = t.kernel.monitor_socket(kXfrmGroupPolicy);
  RecordingPolicyEvents events;
  NetlinkListenerContext ctx{t.agent.nlink, t.agent.tunnels, events, t.agent.counters.netlink_dbg_ctrs};
};

// New policies of the kernel's or the agent's own, and deletions and expiries
// (read from their own bodies), give their index to the tunnel of the template.
TEST_F(Listener, OnlyTheKernelsAndTheAgentsOwnEventsAreHandled) {
  const uint32_t reqid = t.open_tunnel(0x100);
  t.kernel.multicast(kXfrmGroupPolicy, policy_event(19, 4242, 0x99, 1, reqid));
  t.kernel.multicast(kXfrmGroupPolicy, policy_event(19, 0, 0x18, 0, reqid));
  t.kernel.multicast(kXfrmGroupPolicy, policy_event(19, getpid(), 0x21, 1, reqid));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(listen(), 0);
  EXPECT_EQ(t.log.count("XFRM_MSG_NEWPOLICY::"), 2);
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_notify_new_policy_req, 2u);
  const Bytes tmpl = Bytes().h16(68).h16(5).zeros(44).h32(reqid).zeros(16);
  EXPECT_EQ(policy(nl_message(20, 0, 0, 0, Bytes().zeros(56).h32(0x29).u8(1).zeros(3).append(tmpl))), 0);
  EXPECT_EQ(policy(nl_message(27, 0, 0, 0, Bytes().zeros(180).h32(0x3a).u8(2).zeros(15).append(tmpl))), 0);
  EXPECT_EQ(events.updates,
            (std::vector<Update>{{reqid, 0x18, 0}, {reqid, 0x21, 1}, {reqid, 0x29, 1}, {reqid, 0x3a, 2}}));
}

TEST_F(Listener, EveryOtherEventIsOnlyLogged) {
  const std::pair<uint16_t, const char*> labelled[] = {
      {16, "XFRM_MSG_NEWSA:"},        {17, "XFRM_MSG_DELSA:"},       {20, "XFRM_MSG_DELPOLICY:"},
      {24, "XFRM_MSG_EXPIRE:"},       {25, "XFRM_MSG_UPDPOLICY:"},   {26, "XFRM_MSG_UPDSA:"},
      {27, "XFRM_MSG_POLEXPIRE:"},    {28, "XFRM_MSG_FLUSHSA:"},     {29, "XFRM_MSG_FLUSHPOLICY:"},
      {30, "XFRM_MSG_NEWAE:"},        {32, "XFRM_MSG_REPORT:"}};
  const uint32_t reqid = t.open_tunnel(0x100);
  for (const auto& [type, label] : labelled) {
    t.log.clear();
    EXPECT_EQ(handle(policy_event(type, 0, 0x10, 1, reqid)), 0);
    EXPECT_EQ(t.log.lines(), (std::vector<LogLine>{{LOG_DEBUG, label}})) << type;
  }
  EXPECT_TRUE(events.updates.empty());

  for (uint16_t type : {NLMSG_NOOP, NLMSG_DONE}) {  // netlink's own types: not unknown
    t.log.clear();
    handle(nl_message(type, 0, 0, 0, {}));
    EXPECT_EQ(t.log.lines(), (std::vector<LogLine>{{LOG_DEBUG, "msg type " + std::to_string(type) + "\n"}}));
  }
  t.log.clear();
  handle(nl_message(40, 0x300, 0, 0, Message(4, 0)));
  EXPECT_EQ(t.log.lines(), (std::vector<LogLine>{{LOG_DEBUG, "msg type 40\n"},
                                                 {LOG_ERR, "Unknown message: 00000020 0x00000028 0x00000300\n"}}));
}

TEST_F(Listener, MalformedDatagramsAreLoggedAndOnlyTheFirstMessageOfOneCounts) {
  const uint32_t reqid = t.open_tunnel(0x100);
  Message two = policy_event(30, 0, 0, 0, std::nullopt);
  const Message second = policy_event(19, 0, 0x51, 1, reqid);
  two.insert(two.end(), second.begin(), second.end());
  for (const uint16_t nlmsg_len : {511, 15}) {  // more than arrived, less than a header
    Message lying = policy_event(19, 0, 0x31, 1, reqid);
    std::memcpy(lying.data(), &nlmsg_len, 2);
    t.kernel.multicast(kXfrmGroupPolicy, lying);
  }
  t.kernel.multicast(kXfrmGroupPolicy, Message{16, 0, 0, 0, 19, 0, 0, 0});
  t.kernel.multicast(kXfrmGroupPolicy, policy_event(19, 0, 0x41, 1, reqid));
  EXPECT_EQ(listen(), 0);
  EXPECT_EQ(t.log.count("ERROR: NLMSG_OK failed!"), 3);
  t.kernel.multicast(kXfrmGroupPolicy, two);  // a monitor socket holds only a few datagrams
  EXPECT_EQ(listen(), 0);
  EXPECT_EQ(t.log.count("XFRM_MSG_NEWAE:"), 1);
  EXPECT_EQ(events.updates, (std::vector<Update>{{reqid, 0x41, 1}}));
}

// Nothing is queued behind them: a listener that waited for more would hang here.
TEST_F(Listener, ALyingOrLargeEventIsReadWithoutWaitingForMore) {
  const uint32_t reqid = t.open_tunnel(0x100);
  Message lying = policy_event(19, 0, 0x31, 1, reqid), large = policy_event(19, 0, 0x61, 1, reqid);
  lying[0] = 0xff;  // more than arrived
  large.insert(large.end(), {0x8c, 0x13, 0, 0});  // an unknown attribute of 5004 bytes
  large.resize(large.size() + 5000);
  large[0] = static_cast<uint8_t>(large.size()), large[1] = static_cast<uint8_t>(large.size() >> 8);
  for (const Message& m : {lying, large}) {
    t.kernel.multicast(kXfrmGroupPolicy, m);
    EXPECT_EQ(returns_within(monitor.get(), [&] { return listen(); }), 0);
  }
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_event_drop, 1u);
  EXPECT_EQ(events.updates, (std::vector<Update>{{reqid, 0x61, 1}}));
}

TEST_F(Listener, PoliciesWithoutUsableTemplateOrTunnelChangeNothing) {
  t.open_tunnel(0x100);
  Message short_template = policy_event(19, 0, 0x10, 1, 1);
  short_template[16 + 192] = 4 + 40;  // the template ends before its request id
  short_template.resize(16 + 192 + 44);
  short_template[0] = static_cast<uint8_t>(short_template.size());
  for (const Message& m : {policy_event(19, 0, 0x10, 1, std::nullopt), short_template}) {
    t.log.clear();
    EXPECT_EQ(policy(m), 1);
    EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: requested rta not found: XFRMA_TMPL"));
  }
  const Message unknown = policy_event(19, 0, 0x10, 1, 77);
  EXPECT_EQ(policy(unknown), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "reqid 77 not found"));
  EXPECT_TRUE(t.log.has(LOG_ERR, " netlink process message error "));
  EXPECT_TRUE(events.updates.empty());
}

TEST_F(Listener, AcquiresOfAKnownTunnelNotifyTheRp) {
  const uint32_t reqid = t.open_tunnel(0x100);
  t.kernel.multicast(kXfrmGroupPolicy, acquire_event(reqid));
  EXPECT_EQ(listen(), 0);
  EXPECT_EQ(events.notified, std::vector<uint32_t>{reqid});
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "XFRM_MSG_ACQUIRE:"));
  EXPECT_EQ(t.agent.counters.netlink_dbg_ctrs.n_notify_acquire_msg, 1u);
  // Without a tunnel, as for a policy (above), with the acquire's own line.
  EXPECT_EQ(acquire(acquire_event(77)), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Process an acquire notification ERROR"));
  EXPECT_EQ(events.notified.size(), 1u);
}

TEST_F(Listener, EndOfFileAndHardErrorsEndTheCall) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  ScopedFd mine(ends[0]);
  close(ends[1]);
  EXPECT_EQ(kestrix_nlink_listener(ctx, mine.get()), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "netlink receive EOF! "));
  EXPECT_EQ(kestrix_nlink_listener(ctx, -1), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "netlink receive error Bad file descriptor (9)\n"));
}

}  // namespace
}  // namespace cpa::test
