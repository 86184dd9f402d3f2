// The command line: -d <level>, -r <size>, -u.
#pragma once

#include <cstdio>
#include <optional>

#include "agent/agent.h"

namespace cpa {

struct Options {
  AgentSettings settings;
  int log_severity = 0;
  bool filter_log = false;  // -d gave a level in 0-7
};

// Parses the options, printing their messages to `out`. Returns nothing when
// the usage was printed and the agent is to exit with status 0.
std::optional<Options> parse_options(int argc, char* const argv[], FILE* out);

}  // namespace cpa
