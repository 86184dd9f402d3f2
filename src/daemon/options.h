// The command line: -d <level>, -r <size>, -u, -k <kernel>, -R <addr>[/<len>]...
#pragma once

#include <cstdio>
#include <optional>
#include <vector>

#include "agent/agent.h"
#include "link/rp_allow_list.h"

namespace cpa {

struct Options {
  AgentSettings settings;
  int log_severity = 0;
  bool filter_log = false;  // -d gave a level in 0-7
  std::vector<Ipv4Prefix> rp_allow_list;  // -R, repeatable; empty admits every sender
};

// Parses the options, printing their messages to `out`. Returns nothing when
// the usage was printed and the agent is to exit with status 0.
std::optional<Options> parse_options(int argc, char* const argv[], FILE* out);

}  // namespace cpa
