// The keepalive thread's steps, served one at a time on the test's thread
// against a real UDP socket on loopback playing the RP.
#include "link/keepalive.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "fakes/fake_system.h"
#include "fakes/log_capture.h"
#include "support/wire_builder.h"

namespace cpa {
namespace {

class KeepaliveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rp_.reset(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(rp_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    socklen_t len = sizeof addr;
    getsockname(rp_.get(), reinterpret_cast<sockaddr*>(&addr), &len);
    keepalive_ = std::make_unique<Keepalive>(
        shared_, counters_, commands_, KeepaliveConfig{0, ntohs(addr.sin_port), "/nonexistent/ctrs"});
    ASSERT_EQ(keepalive_->keepalive_timers_init(), 0);
    ASSERT_EQ(keepalive_->keepalive_socket_init(), 0);
  }

  void rp_sends(const std::vector<uint8_t>& datagram) {
    sockaddr_in to{};
    socklen_t len = sizeof to;
    getsockname(keepalive_->socket_fd(), reinterpret_cast<sockaddr*>(&to), &len);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(rp_.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    keepalive_->serve_socket();
  }
  std::vector<uint8_t> rp_receives() {
    uint8_t buf[2048];
    const ssize_t n = recv(rp_.get(), buf, sizeof buf, MSG_DONTWAIT);
    return n < 0 ? std::vector<uint8_t>{} : std::vector<uint8_t>(buf, buf + n);
  }
  // Makes a timer readable at once, as if its period had passed.
  static void expire(int timer_fd) {
    itimerspec now{};
    now.it_value.tv_nsec = 1;
    timerfd_settime(timer_fd, 0, &now, nullptr);
    usleep(1000);
  }
  std::vector<uint8_t> keepalive_from_rp() { return test::Bytes().be16(3).raw({0x18, 0}).zeros(24); }

  test::LogCapture log_;
  ThreadShared shared_;
  DebugCounters counters_;
  test::FakeCommandRunner commands_;
  ScopedFd rp_;
  std::unique_ptr<Keepalive> keepalive_;
};

TEST_F(KeepaliveTest, FirstKeepaliveArmsTheTimersOnce) {
  rp_sends(test::Bytes().be16(0).be16(0));
  EXPECT_TRUE(log_.has(LOG_ERR, "Unknown msgtype for Keepalive thread, msg_type 0"));
  EXPECT_FALSE(keepalive_->running());
  rp_sends(keepalive_from_rp());
  EXPECT_TRUE(keepalive_->running());
  EXPECT_TRUE(log_.has(LOG_INFO, "First keepalive msg received"));
  itimerspec interval{}, retry{};
  timerfd_gettime(keepalive_->interval_fd(), &interval);
  timerfd_gettime(keepalive_->retry_fd(), &retry);
  EXPECT_EQ(interval.it_interval.tv_sec, 1);
  EXPECT_EQ(retry.it_interval.tv_sec, 3);
  EXPECT_GT(interval.it_value.tv_sec + interval.it_value.tv_nsec, 0);
  rp_sends(keepalive_from_rp());
  EXPECT_EQ(log_.count("First keepalive msg received"), 1);
  EXPECT_EQ(counters_.misc_dbg_ctrs.k_keepalive_recv, 2u);
}

TEST_F(KeepaliveTest, IntervalTickSendsThe28ByteKeepaliveToTheRp) {
  rp_sends(keepalive_from_rp());
  expire(keepalive_->interval_fd());
  keepalive_->serve_interval_timer();
  const std::vector<uint8_t> expected = test::Bytes()
                                            .raw({0x00, 0x03, 0x18, 0x00})
                                            .zeros(12)
                                            .raw({'I', 'P', 'S', 'E', 'C', '_', 'D', 'P'})
                                            .zeros(4);
  EXPECT_EQ(rp_receives(), expected);
  EXPECT_EQ(counters_.misc_dbg_ctrs.k_keepalive_sent, 1u);
}

TEST_F(KeepaliveTest, ReportIsWrittenAtTheNextTickAfterTheRequest) {
  rp_sends(keepalive_from_rp());
  shared_.g_display_ctr = 1;
  expire(keepalive_->interval_fd());
  keepalive_->serve_interval_timer();
  EXPECT_EQ(shared_.g_display_ctr, 0);
  // The report path is unwritable here, so the marker command shows the attempt.
  EXPECT_EQ(commands_.commands, std::vector<std::string>{"touch /usr/admin/log/.cpa_err"});
}

TEST_F(KeepaliveTest, RetryCheckCountsAMissOnlyWithoutAnySignOfLife) {
  rp_sends(keepalive_from_rp());
  expire(keepalive_->retry_fd());
  keepalive_->serve_retry_timer();  // the keepalive counts as life
  shared_.mark_rp_activity();
  expire(keepalive_->retry_fd());
  keepalive_->serve_retry_timer();  // so does a request
  EXPECT_EQ(counters_.misc_dbg_ctrs.k_cpa_abort, 0u);
  expire(keepalive_->retry_fd());
  keepalive_->serve_retry_timer();
  EXPECT_EQ(counters_.misc_dbg_ctrs.k_cpa_abort, 1u);
  EXPECT_TRUE(log_.has(LOG_WARNING, "Max Keepalive Retry Reached. sent 0 recv 1 abort 1\n"));
}

TEST_F(KeepaliveTest, TickWithNothingToReadIsIgnored) {
  rp_sends(keepalive_from_rp());
  keepalive_->kestrix_process_aging();  // timer not expired: read fails
  EXPECT_EQ(counters_.misc_dbg_ctrs.k_cpa_abort, 0u);
}

}  // namespace
}  // namespace cpa
