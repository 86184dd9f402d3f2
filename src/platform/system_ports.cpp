#include "platform/system_ports.h"

#include <net/if.h>

#include <cstdlib>

namespace cpa {

timespec SystemClock::monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

int ShellCommandRunner::run(const char* command) { return std::system(command); }

unsigned SystemInterfaceIndex::index_of(const char* name) { return if_nametoindex(name); }

}  // namespace cpa
