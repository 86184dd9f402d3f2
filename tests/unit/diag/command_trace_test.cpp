#include "diag/command_trace.h"

#include <gtest/gtest.h>

#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa {
namespace {

TEST(CommandTrace, StartAndEndLinesWithElapsedSeconds) {
  test::LogCapture log;
  test::FakeClock clock;
  CommandTrace trace(clock);
  clock.now = {10, 900000000};
  trace.pal_cmd_print(2, 0xab, 0x1, 0, 0);
  clock.now = {12, 150000000};
  trace.pal_cmd_print(2, 0xab, 0x1, 1, 6);
  trace.pal_cmd_print(26, 1, 2, 0, 0);
  trace.pal_cmd_print(-1, 1, 2, 0, 0);
  clock.now = {12, 150012345};
  trace.ceal_cmd_print(4, 1, 1);
  trace.ceal_cmd_print(5, 0, 0);
  EXPECT_EQ(log.transcript(), test::read_file(CPA_TESTDATA "/command_trace.txt"));
}

}  // namespace
}  // namespace cpa
