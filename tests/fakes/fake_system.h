// Fakes of the system seams: a clock that moves only when told, a shell that
// records commands, and an RP that records every datagram sent to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pal/rp_link.h"
#include "platform/system_ports.h"

namespace cpa::test {

class FakeClock final : public Clock {
 public:
  timespec monotonic_now() override { return now; }
  timespec now{1000, 0};
};

class FakeCommandRunner final : public CommandRunner {
 public:
  int run(const char* command) override {
    commands.emplace_back(command);
    return 0;
  }
  std::vector<std::string> commands;
};

class RecordingOutbox final : public RpOutbox {
 public:
  ssize_t send_to_rp(const uint8_t* buf, size_t len) override {
    if (fail_sends) return -1;
    sent.emplace_back(buf, buf + len);
    return static_cast<ssize_t>(len);
  }
  std::vector<std::vector<uint8_t>> sent;
  bool fail_sends = false;
};

}  // namespace cpa::test
