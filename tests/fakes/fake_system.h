// Fakes of the system seams: a clock that moves only when told, an
// environment, a shell that records commands (and the environment each one
// would inherit), and an RP that records every datagram sent to it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/rp_outbox.h"
#include "platform/system_ports.h"

namespace cpa::test {

class FakeClock final : public Clock {
 public:
  timespec monotonic_now() override { return now; }
  timespec now{1000, 0};
};

using EnvValues = std::map<std::string, std::string>;

class FakeEnvironment final : public Environment {
 public:
  void set(const char* name, const char* value) override { values[name] = value; }
  EnvValues values;
};

class FakeCommandRunner final : public CommandRunner {
 public:
  int run(const char* command) override {
    commands.emplace_back(command);
    if (environment) environments.push_back(environment->values);
    return 0;
  }
  std::vector<std::string> commands;
  const FakeEnvironment* environment = nullptr;  // when set, each command's inherited values
  std::vector<EnvValues> environments;
};

class RecordingOutbox final : public RpOutbox {
 public:
  ssize_t send_to_rp(const uint8_t* buf, size_t len) override {
    sent.emplace_back(buf, buf + len);
    return static_cast<ssize_t>(len);
  }
  std::vector<std::vector<uint8_t>> sent;
};

}  // namespace cpa::test
