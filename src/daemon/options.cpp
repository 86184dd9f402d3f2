#include "daemon/options.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace cpa {
namespace {

std::nullopt_t usage(FILE* out, const char* program) {
  std::fprintf(out, "\nUsage: %s -d <DEBUG LVL>\nDEBUG LVL: 0-7\n", program);
  return std::nullopt;
}

std::optional<KernelFlavour> parse_flavour(const char* name) {
  if (std::strcmp(name, "platform") == 0) return KernelFlavour::kPlatform;
  if (std::strcmp(name, "linux") == 0) return KernelFlavour::kLinux;
  return std::nullopt;
}

}  // namespace

std::optional<Options> parse_options(int argc, char* const argv[], FILE* out) {
  Options opts;
  bool level_given = false;
  optind = 0;  // full re-initialisation, so that parsing can run more than once
  int opt;
  while ((opt = getopt(argc, argv, "h?d:ur:k:R:")) != -1) {
    switch (opt) {
      case 'd': {
        unsigned level = 0;
        const bool parsed = std::sscanf(optarg, "%u", &level) == 1;
        if (parsed) {
          opts.log_severity = static_cast<int>(level);
          level_given = true;
        }
        if (static_cast<unsigned>(opts.log_severity) > 7)
          std::fputs("\nDEBUG must be between 0-7\n", out);
        break;
      }
      case 'r': {
        const long size = std::strtol(optarg, nullptr, 10);
        if (size != 32 && size != 64) {
          std::fputs("The replay window size values can either be 32 or 64. Setting it to default\n",
                     out);
          opts.settings.g_replay_window_size = 32;
        } else {
          opts.settings.g_replay_window_size = static_cast<int>(size);
        }
        break;
      }
      case 'u':
        opts.settings.g_unit_test_on = 1;
        std::fputs("Enabling UT\n", out);
        break;
      case 'k': {
        const std::optional<KernelFlavour> flavour = parse_flavour(optarg);
        if (!flavour) return usage(out, argv[0]);
        opts.settings.kernel_flavour = *flavour;
        break;
      }
      case 'R': {
        const std::optional<Ipv4Prefix> prefix = parse_ipv4_prefix(optarg);
        if (!prefix) return usage(out, argv[0]);
        opts.rp_allow_list.push_back(*prefix);
        break;
      }
      default:
        return usage(out, argv[0]);
    }
  }
  // A level above 7 (a negative entry included) is reported and stored, but
  // only a level in 0-7 filters syslog (setlogmask(LOG_UPTO(level))); without
  // a valid -d every line reaches syslog.
  opts.filter_log = level_given && static_cast<unsigned>(opts.log_severity) <= 7;
  return opts;
}

}  // namespace cpa
