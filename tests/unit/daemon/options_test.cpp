#include "daemon/options.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace cpa {
namespace {

struct Parsed {
  std::optional<Options> options;
  std::string printed;
};

Parsed parse(std::vector<std::string> args) {
  args.insert(args.begin(), "ipsec_cpa");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  Parsed result{parse_options(static_cast<int>(args.size()), argv.data(), out), ""};
  std::fclose(out);
  result.printed.assign(text, size);
  std::free(text);
  return result;
}

TEST(Options, DefaultsWithoutOptions) {
  const auto r = parse({});
  ASSERT_TRUE(r.options);
  EXPECT_EQ(r.options->settings.g_replay_window_size, 0);
  EXPECT_EQ(r.options->settings.g_unit_test_on, 0);
  EXPECT_FALSE(r.options->filter_log);
  EXPECT_EQ(r.printed, "");
}

TEST(Options, ReplayWindowIs32Or64ElseDefaultsTo32) {
  EXPECT_EQ(parse({"-r", "64"}).options->settings.g_replay_window_size, 64);
  const auto r = parse({"-r", "48"});
  EXPECT_EQ(r.options->settings.g_replay_window_size, 32);
  EXPECT_EQ(r.printed, "The replay window size values can either be 32 or 64. Setting it to default\n");
}

TEST(Options, DebugLevelFiltersOnlyWhenValid) {
  const auto ok = parse({"-d", "3"});
  EXPECT_TRUE(ok.options->filter_log);
  EXPECT_EQ(ok.options->log_severity, 3);
  for (const char* bad : {"9", "-1"}) {
    const auto r = parse({"-d", bad});
    ASSERT_TRUE(r.options) << bad;
    EXPECT_FALSE(r.options->filter_log) << bad;
    EXPECT_EQ(r.printed, "\nDEBUG must be between 0-7\n") << bad;
  }
  EXPECT_FALSE(parse({"-d", "x"}).options->filter_log);
}

TEST(Options, UnitTestModeAnnouncesItself) {
  const auto r = parse({"-u"});
  EXPECT_EQ(r.options->settings.g_unit_test_on, 1);
  EXPECT_EQ(r.printed, "Enabling UT\n");
}

TEST(Options, HelpOrUnknownOptionPrintsUsageAndStops) {
  for (const char* opt : {"-h", "-?", "-x"}) {
    const auto r = parse({"-u", opt, "-r", "64"});
    EXPECT_FALSE(r.options) << opt;
    EXPECT_EQ(r.printed, "Enabling UT\n\nUsage: ipsec_cpa -d <DEBUG LVL>\nDEBUG LVL: 0-7\n") << opt;
  }
}

}  // namespace
}  // namespace cpa
