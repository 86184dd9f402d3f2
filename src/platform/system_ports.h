// Narrow seams over the system: the monotonic clock, the shell and the names
// of network devices. The agent uses the real ones; tests hand in fakes.
#pragma once

#include <time.h>

namespace cpa {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual timespec monotonic_now() = 0;
};

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs `command` through the shell; returns what system() returns.
  virtual int run(const char* command) = 0;
};

class InterfaceIndex {
 public:
  virtual ~InterfaceIndex() = default;
  // The kernel's interface index of the device `name`; 0 when there is none.
  virtual unsigned index_of(const char* name) = 0;
};

class SystemClock final : public Clock {
 public:
  timespec monotonic_now() override;
};

class ShellCommandRunner final : public CommandRunner {
 public:
  int run(const char* command) override;
};

class SystemInterfaceIndex final : public InterfaceIndex {
 public:
  unsigned index_of(const char* name) override;
};

}  // namespace cpa
