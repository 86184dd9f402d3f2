#include "kernel/netlink_transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "fakes/kernel_test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

// A request the fake kernel serves: a policy get (80-byte header and body,
// then an 8-byte SVTI attribute).
Message policy_get() {
  Message body(72, 0);
  body[40] = 2;   // selector family
  body[64] = 8;   // rta_len
  body[66] = 34;  // rta_type
  return nl_message(21, 5, 0, 0, body);
}

class Transport : public ::testing::Test {
 protected:
  int send(Message request) {
    return t.agent.nlink.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size());
  }
  KernelTestAgent t;
  net_buf answer{};
};

TEST_F(Transport, AcknowledgementAcceptsAndRefusalSetsErrnoAndLogsKernelText) {
  FakeXfrmKernel& kernel = t.kernel;
  Message sa_get = nl_message(18, 5, 0, 0, Message(40, 0));
  sa_get[16 + 20] = 2;
  EXPECT_EQ(send(sa_get), 1);  // no such SA
  EXPECT_EQ(errno, ESRCH);
  EXPECT_TRUE(t.log.has(LOG_ERR, "RTNETLINK answers: No such process (3)\n"));

  kernel.script_next(ScriptedAnswer::refusal(EEXIST));
  EXPECT_EQ(send(policy_get()), 1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_TRUE(t.log.has(LOG_ERR, "RTNETLINK answers: File exists (17)\n"));

  kernel.script_next(ScriptedAnswer::bytes(nl_message(NLMSG_ERROR, 0, 3, getpid(), Message(20, 0))));
  EXPECT_EQ(send(policy_get()), 0);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "NETLINK SEND SUCCESS"));
  EXPECT_TRUE(kernel.violations().empty());
}

TEST_F(Transport, EveryAttemptTakesASequenceNumberAndTheRequestCarriesIt) {
  NetlinkTransport detached(t.devices);
  Message request = policy_get();
  EXPECT_EQ(detached.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size()), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "Cannot send, N/L socket fd is invalid!"));
  EXPECT_EQ(detached.g_seq(), 2u);
  EXPECT_EQ(u32_at(request, 8), 1u);

  send(policy_get());
  send(policy_get());
  const auto sent = t.kernel.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(u32_at(sent[0], 8), 1u);
  EXPECT_EQ(u32_at(sent[1], 8), 2u);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "*** SENT sendlen [88], nlmsg_len [88],NLMSG_OK? [1]\n"));
}

TEST_F(Transport, LateAnswersAreSkippedButLaterOrForeignOnesFail) {
  t.kernel.script_next(ScriptedAnswer::refusal(ENOENT).after_late_answer());
  EXPECT_EQ(send(policy_get()), 1);
  EXPECT_EQ(errno, ENOENT);  // the answer that counted is the second one

  t.kernel.script_next(ScriptedAnswer::refusal(ENOENT).with_seq_offset(1));
  EXPECT_EQ(send(policy_get()), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: (nh->nlmsg_seq[3] > seq[2]!)or (nh->nlmsg_pid != getpid())"));

  t.log.clear();
  t.kernel.script_next(ScriptedAnswer().with_pid(4242));
  EXPECT_EQ(send(policy_get()), 1);
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: (nh->nlmsg_seq[3] > seq[3]!)or (nh->nlmsg_pid != getpid())"));
}

TEST_F(Transport, ShortAndMalformedAnswersFail) {
  struct Case {
    Message raw;
    const char* recv_line;
  };
  Message claims_more = nl_message(NLMSG_ERROR, 0, 1, getpid(), Message(20, 0));
  claims_more[0] = 200;
  Message error_without_code = nl_message(NLMSG_ERROR, 0, 3, getpid(), {});
  const Case cases[] = {
      {Message{36, 0, 0, 0, 2, 0}, "*** RECV recvlen [6], nlmsg_len [36],NLMSG_OK? [0]"},
      {claims_more, "*** RECV recvlen [36], nlmsg_len [200],NLMSG_OK? [0]"},
      {error_without_code, "*** RECV recvlen [16], nlmsg_len [16],NLMSG_OK? [1]"},
  };
  for (const Case& c : cases) {
    t.log.clear();
    t.kernel.script_next(ScriptedAnswer::bytes(c.raw));
    EXPECT_EQ(send(policy_get()), 1);
    EXPECT_TRUE(t.log.has(LOG_DEBUG, c.recv_line)) << c.recv_line;
    EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: NLMSG_OK failed!")) << c.recv_line;
  }
}

TEST_F(Transport, AGetAnsweredByTheObjectLeavesItInTheAnswer) {
  const Message object = nl_message(19, 0, 1, getpid(), Message(192, 0xab));
  t.kernel.script_next(ScriptedAnswer::bytes(object));
  EXPECT_EQ(send(policy_get()), 0);
  EXPECT_TRUE(std::equal(object.begin(), object.end(), answer.begin()));
}

TEST(TransportSocket, SendAndReceiveFailuresAreReported) {
  LogCapture log;
  FakeNetDevices devices;
  net_buf answer{};
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  NetlinkTransport nl(devices);
  nl.attach(ScopedFd(ends[0]));
  ScopedFd kernel(ends[1]);
  Message request = policy_get();

  shutdown(kernel.get(), SHUT_WR);  // the kernel end will never answer
  EXPECT_EQ(nl.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size()), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "netlink receive error Success (0)\n"));

  uint8_t first[128];
  ASSERT_EQ(recv(kernel.get(), first, sizeof first, 0), 88);
  kernel.reset();
  EXPECT_EQ(nl.kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size()), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "netlink send error Broken pipe (32)\n"));
}

TEST(Attributes, AppendedAtTheAlignedEndOnlyWhenTheyFit) {
  LogCapture log;
  Message msg(64, 0xee);
  msg[0] = 18;  // nlmsg_len 18: the next attribute starts at 20
  msg[1] = msg[2] = msg[3] = 0;
  const uint8_t three[3] = {1, 2, 3};
  ASSERT_EQ(add_nl_attr(msg.data(), 9, msg.size(), three, sizeof three), 0);
  EXPECT_EQ(u32_at(msg, 0), 28u);  // 20 + 7 rounded up
  EXPECT_EQ(u16_at(msg, 20), 7);
  EXPECT_EQ(u16_at(msg, 22), 9);
  EXPECT_EQ(Message(msg.begin() + 24, msg.begin() + 27), (Message{1, 2, 3}));

  const uint8_t big[37] = {};
  EXPECT_EQ(add_nl_attr(msg.data(), 9, msg.size(), big, sizeof big), 1);  // 28 + 44 > 64
  EXPECT_TRUE(log.has(LOG_ERR, "ERROR: Invalid attr len!"));
  EXPECT_EQ(u32_at(msg, 0), 28u);
  EXPECT_EQ(add_nl_attr(msg.data(), 9, msg.size(), big, 32), 0);  // exactly to the end
  EXPECT_EQ(u32_at(msg, 0), 64u);
}

TEST(Attributes, LookupWalksOnlyWellFormedAttributes) {
  const Message two{8, 0, 1, 0, 0xa, 0xb, 0xc, 0xd, 6, 0, 2, 0, 0x11, 0x22, 0, 0};
  const ReceivedBytes attrs(two.data(), two.size());
  const auto second = kestrix_rtattr_get(2, attrs);
  ASSERT_TRUE(second);
  ASSERT_EQ(second->size(), 2u);
  EXPECT_EQ(second->data()[1], 0x22);
  EXPECT_FALSE(kestrix_rtattr_get(3, attrs));
  EXPECT_FALSE(kestrix_rtattr_get(1, attrs.slice(0, 3)));
  EXPECT_FALSE(kestrix_rtattr_get(2, attrs.slice(0, 12)));  // the second runs past the end

  for (uint16_t bad_len : {0, 3, 17}) {
    Message m = two;
    m[0] = static_cast<uint8_t>(bad_len);
    EXPECT_FALSE(kestrix_rtattr_get(2, ReceivedBytes(m.data(), m.size()))) << bad_len;
  }
}

TEST(SvtiIndex, NamesTheDeviceOfTheTunnelAndClosesWhatItOpened) {
  FakeNetDevices devices;
  devices.add_device("svti70");
  devices.add_device("svti7");
  NetlinkTransport nl(devices);
  EXPECT_EQ(nl.get_svtiindex(7), static_cast<unsigned>(devices.device("svti7")->ifindex));
  EXPECT_EQ(nl.get_svtiindex(8), 0u);
  devices.fail_socket = EMFILE;
  EXPECT_EQ(nl.get_svtiindex(7), 0u);
  EXPECT_EQ(devices.open_descriptors(), 0);
  EXPECT_EQ(devices.bad_closes, 0);
}

}  // namespace
}  // namespace cpa::test
