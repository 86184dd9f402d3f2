#include "platform/system_ports.h"

#include <cstdlib>

namespace cpa {

timespec SystemClock::monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

int ShellCommandRunner::run(const char* command) { return std::system(command); }

}  // namespace cpa
