// The ARP command queue with real shells: order, each command's own
// environment, the time limit, and the bound on what waits.
#include "platform/command_queue.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "base/log.h"
#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa {
namespace {

// Runs the queue as the agent's loop would, until it is idle.
void drain(CommandQueue& queue) {
  queue.advance();
  while (!queue.idle()) {
    pollfd wake{queue.wake_fd(), POLLIN, 0};
    poll(&wake, wake.fd < 0 ? 0 : 1, queue.timeout_ms());
    queue.advance();
  }
}

TEST(CommandQueue, RunsInOrderWithTheirEnvironmentWithinTheLimit) {
  test::LogCapture log;
  SystemClock clock;
  ctr32 dropped;
  CommandQueue queue(clock, 300, 3, dropped);
  const std::string out = ::testing::TempDir() + "cpa_queue_" + std::to_string(getpid());
  queue.set("OUT", out.c_str());
  queue.set("X", "first");
  EXPECT_EQ(queue.run("sleep 0.1; echo $X >> $OUT"), 0);
  queue.set("X", "second");
  EXPECT_EQ(queue.run("echo $X >> $OUT; sleep 5; echo late >> $OUT"), 0);
  EXPECT_EQ(queue.run("echo third >> $OUT"), 0);
  EXPECT_EQ(queue.run("echo dropped >> $OUT"), -1);
  EXPECT_EQ(static_cast<uint32_t>(dropped), 1u);
  timespec start = clock.monotonic_now();
  drain(queue);
  EXPECT_LT(clock.monotonic_now().tv_sec - start.tv_sec, 3);  // the sleep 5 was killed
  EXPECT_EQ(test::read_file(out), "first\nsecond\nthird\n");
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"Command timed out after 300 ms, killed"});
  unlink(out.c_str());
}

}  // namespace
}  // namespace cpa
