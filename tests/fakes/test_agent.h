// A fresh agent wired to fakes, fed datagrams the way the event loop feeds them.
#pragma once

#include <cstdint>
#include <vector>

#include "daemon/agent.h"
#include "fakes/fake_system.h"
#include "fakes/fake_net_devices.h"
#include "fakes/log_capture.h"
#include "pal/pal_dispatcher.h"

namespace cpa::test {

struct TestAgent {
  explicit TestAgent(AgentSettings settings = {}) : agent(settings, AgentSeams{clock, commands, rp, devices}) {}

  // Delivers one datagram; the buffer is exactly as long as the datagram so
  // that a read past its end is caught by the address sanitizer.
  int deliver(const std::vector<uint8_t>& datagram) {
    std::vector<uint8_t> exact(datagram);
    return kestrix_pal_process_msg(agent, ReceivedBytes(exact.data(), exact.size()));
  }
  // The datagrams sent to the RP since the last call.
  std::vector<std::vector<uint8_t>> take_sent() {
    auto out = std::move(rp.sent);
    rp.sent.clear();
    return out;
  }

  LogCapture log;
  FakeClock clock;
  FakeCommandRunner commands;
  RecordingOutbox rp;
  FakeNetDevices devices;
  Agent agent;
};

}  // namespace cpa::test
