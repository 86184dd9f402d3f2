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
  const std::vector<test::LogLine> expected = {
      {LOG_INFO, "KESTRIX_PAL_SADB_INIT_COMPLETED 000000ab 00000001"},
      {LOG_INFO, "KESTRIX_PAL_SADB_INIT_COMPLETED 000000ab 00000001 status 6 Time 1.25000 seconds"},
      {LOG_INFO, "INV PAL Cmd 00000001 00000002"},
      {LOG_INFO, "INV PAL Cmd 00000001 00000002"},
      {LOG_INFO, "KESTRIX_CEAL_CE_DELETE_FLOW 1 Time 0.00001 seconds"},
      {LOG_INFO, "INV CEAL Cmd"},
  };
  EXPECT_EQ(log.lines(), expected);
}

}  // namespace
}  // namespace cpa
