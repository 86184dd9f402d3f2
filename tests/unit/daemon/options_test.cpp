#include "daemon/options.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace cpa {
namespace {

TEST(Options, ValuesAndWhatIsPrinted) {
  struct Case {
    std::vector<std::string> args;
    bool runs;
    int replay_window, unit_test, log_level;  // log_level -1: nothing filtered
    std::string printed;
  } cases[] = {
      {{}, true, 0, 0, -1, ""},
      {{"-r", "64", "-d", "3"}, true, 64, 0, 3, ""},
      {{"-r", "48"}, true, 32, 0, -1, "The replay window size values can either be 32 or 64. Setting it to default\n"},
      {{"-d", "9"}, true, 0, 0, -1, "\nDEBUG must be between 0-7\n"},
      {{"-d", "-1"}, true, 0, 0, -1, "\nDEBUG must be between 0-7\n"},
      {{"-d", "x"}, true, 0, 0, -1, ""},
      {{"-u"}, true, 0, 1, -1, "Enabling UT\n"},
      {{"-u", "-h", "-r", "64"}, false, 0, 0, 0, "Enabling UT\n\nUsage: ipsec_cpa -d <DEBUG LVL>\nDEBUG LVL: 0-7\n"},
      {{"-?"}, false, 0, 0, 0, "\nUsage: ipsec_cpa -d <DEBUG LVL>\nDEBUG LVL: 0-7\n"},
      {{"-x"}, false, 0, 0, 0, "\nUsage: ipsec_cpa -d <DEBUG LVL>\nDEBUG LVL: 0-7\n"},
  };
  for (Case& c : cases) {
    c.args.insert(c.args.begin(), "ipsec_cpa");
    std::vector<char*> argv;
    for (auto& a : c.args) argv.push_back(a.data());
    argv.push_back(nullptr);
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    const std::optional<Options> parsed = parse_options(static_cast<int>(c.args.size()), argv.data(), out);
    std::fclose(out);
    const std::string what = ::testing::PrintToString(c.args);
    EXPECT_EQ(std::string(text, size), c.printed) << what;
    std::free(text);
    ASSERT_EQ(parsed.has_value(), c.runs) << what;
    if (!c.runs) continue;
    EXPECT_EQ(parsed->settings.g_replay_window_size, c.replay_window) << what;
    EXPECT_EQ(parsed->settings.g_unit_test_on, c.unit_test) << what;
    EXPECT_EQ(parsed->filter_log ? parsed->log_severity : -1, c.log_level) << what;
  }
}

}  // namespace
}  // namespace cpa
