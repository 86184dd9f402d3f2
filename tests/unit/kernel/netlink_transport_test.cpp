#include "kernel/netlink_transport.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "fakes/kernel_test_agent.h"
#include "kernel/netlink_socket.h"
#include "kernel/xfrm_policy.h"
#include "support/returns_within.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

// A request the fake kernel serves: a policy get (80-byte header and body, then an 8-byte SVTI attribute).
Message policy_get() { return nl_message(21, 5, 0, 0, Bytes().zeros(40).h16(2).zeros(22).h16(8).h16(34).zeros(4)); }

class Transport : public ::testing::Test {
 protected:
  int send(Message request = policy_get()) {
    return t.agent.nlink.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size());
  }
  uint32_t next_seq() const { return t.agent.nlink.g_seq(); }
  KernelTestAgent t;
  net_buf answer{};
};

TEST_F(Transport, AcknowledgementAcceptsAndRefusalIsTheKernelsErrorLoggedWithItsText) {
  t.kernel.refuse_next(EEXIST);
  EXPECT_EQ(send(), -EEXIST);
  EXPECT_TRUE(t.log.has(LOG_ERR, "RTNETLINK answers: File exists (17)\n"));

  t.kernel.answer_next({nl_error(next_seq(), getpid(), 0)});
  EXPECT_EQ(send(), 0);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "NETLINK SEND SUCCESS"));
}

// The requests' own sequence numbers are checked with their bytes.
TEST_F(Transport, WithoutASocketTheAttemptStillTakesASequenceNumber) {
  NetlinkTransport detached(t.devices, t.agent.counters.netlink_dbg_ctrs.n_answer_timeout);
  Message request = policy_get();
  EXPECT_EQ(detached.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size()), -EBADF);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Cannot send, N/L socket fd is invalid!"));
  EXPECT_EQ(detached.g_seq(), 2u);
  EXPECT_EQ(u32_at(request, 8), 1u);
}

TEST_F(Transport, LateAnswersAreSkippedButLaterOrForeignOnesFail) {
  t.kernel.answer_next({nl_error(next_seq() - 1, getpid(), 0), nl_error(next_seq(), getpid(), ENOENT)});
  EXPECT_EQ(send(), -ENOENT);  // the answer that counted is the second one

  t.kernel.answer_next({nl_error(next_seq() + 1, getpid(), ENOENT)});
  EXPECT_EQ(send(), -EPROTO);
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: (nh->nlmsg_seq[3] > seq[2]!)or (nh->nlmsg_pid != getpid())"));

  t.kernel.answer_next({nl_error(next_seq(), 4242, 0)});
  EXPECT_EQ(send(), -EPROTO);
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: (nh->nlmsg_seq[3] > seq[3]!)or (nh->nlmsg_pid != getpid())"));
}

TEST_F(Transport, ShortAndMalformedAnswersFail) {
  Message claims_more = nl_error(1, getpid(), 0);
  claims_more[0] = 200;
  const std::pair<Message, const char*> cases[] = {
      {Message{36, 0, 0, 0, 2, 0}, "*** RECV recvlen [6], nlmsg_len [36],NLMSG_OK? [0]"},
      {claims_more, "*** RECV recvlen [36], nlmsg_len [200],NLMSG_OK? [0]"},
      {nl_message(NLMSG_ERROR, 0, 3, getpid(), {}), "*** RECV recvlen [16], nlmsg_len [16],NLMSG_OK? [1]"},
  };
  for (const auto& [raw, recv_line] : cases) {
    t.log.clear();
    t.kernel.answer_next({raw});
    EXPECT_EQ(send(), -EBADMSG);
    EXPECT_TRUE(t.log.has(LOG_DEBUG, recv_line)) << recv_line;
    EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: NLMSG_OK failed!")) << recv_line;
  }
}

TEST(TransportSocket, SilenceTimesOutLateAnswersAreSkippedAndSocketFailuresAreReported) {
  LogCapture log;
  FakeNetDevices devices;
  net_buf answer{};
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  ctr32 timeouts;
  NetlinkTransport nl(devices, timeouts, platform_dialect(), std::chrono::milliseconds(50));
  nl.attach(ScopedFd(ends[0]));
  ScopedFd kernel(ends[1]);
  Message request = policy_get();
  auto exchange = [&] { return nl.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size()); };

  EXPECT_EQ(returns_within(nl.nlsock_fd(), exchange), -ETIMEDOUT);
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"No netlink answer to request 1 within 50 ms"});
  EXPECT_EQ(timeouts, 1u);
  for (const Message& m : {nl_error(1, getpid(), 0), nl_error(2, getpid(), ENOENT)})  // the late one first
    send(kernel.get(), m.data(), m.size(), 0);
  EXPECT_EQ(exchange(), -ENOENT);

  shutdown(kernel.get(), SHUT_WR);  // the kernel end will never answer
  EXPECT_EQ(exchange(), -EIO);
  EXPECT_TRUE(log.has(LOG_ERR, "netlink receive error Success (0)\n"));

  uint8_t request_read[128];  // a close with requests unread would be a reset, not a broken pipe
  while (recv(kernel.get(), request_read, sizeof request_read, MSG_DONTWAIT) == 88) {}
  kernel.reset();
  EXPECT_EQ(exchange(), -EPIPE);
  EXPECT_TRUE(log.has(LOG_ERR, "netlink send error Broken pipe (32)\n"));
}

// The agent's sockets against the running kernel, inside a network namespace made for the test (root only).
// The stock kernel does not take the platform's adds, but answers a get of an absent policy.
uint32_t bound_groups(int fd) {
  sockaddr_nl local{};
  socklen_t len = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
  return local.nl_groups;
}

TEST(RealKernel, SocketsBindToTheirGroupsAndAnAbsentPolicyIsTheKernelsError) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
  bool ran = false;
  std::thread([&] {  // on a thread of its own, in a fresh network namespace
    if (unshare(CLONE_NEWNET) != 0) return;
    ran = true;
    LogCapture log;
    ScopedFd request = kestrix_nlink_socket_create(0);
    ScopedFd monitor = kestrix_nlink_socket_create(8);
    ASSERT_TRUE(request.valid() && monitor.valid());
    EXPECT_EQ(std::pair(bound_groups(request.get()), bound_groups(monitor.get())), std::pair(0u, 8u));
    EXPECT_FALSE(kestrix_nlink_socket_create(0x20).valid());
    EXPECT_TRUE(log.has(LOG_ERR, "Cannot create socket with wrong N/L group"));

    KernelNetDeviceSysCalls devices;
    ctr32 timeouts;
    NetlinkTransport nl(devices, timeouts);
    nl.attach(std::move(request));
    const XfrmPolicyArgs policy{.dst = 0x0a000002, .dmask = 32, .dir = 1};
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 0, policy, 0, nullptr), -ENOENT);
    EXPECT_TRUE(log.has(LOG_ERR, "RTNETLINK answers: No such file or directory (2)\n"));
  }).join();
  if (!ran) GTEST_SKIP() << "no network namespace";
}

}  // namespace
}  // namespace cpa::test
