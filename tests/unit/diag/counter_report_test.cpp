#include "diag/counter_report.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa {
namespace {

TEST(CounterReport, WritesEveryCounterInItsPlace) {
  // Every counter gets a distinct value, 1, 2, 3... in declaration order (the
  // records hold nothing but ctr32s), so a counter in the wrong place shows.
  DebugCounters counters;
  static_assert(sizeof counters % sizeof(ctr32) == 0);
  ctr32* all = reinterpret_cast<ctr32*>(&counters);
  for (size_t i = 0; i < sizeof counters / sizeof(ctr32); ++i)
    for (size_t n = 0; n <= i; ++n) ++all[i];
  test::FakeCommandRunner commands;
  const std::string path = ::testing::TempDir() + "cpa_ctrs_" + std::to_string(getpid());
  Pal_Ceal_dbg_counter_display(counters, commands, path.c_str());
  EXPECT_EQ(test::read_file(path), test::read_file(CPA_TESTDATA "/counter_report.txt"));
  EXPECT_TRUE(commands.commands.empty());
  unlink(path.c_str());
}

}  // namespace
}  // namespace cpa
