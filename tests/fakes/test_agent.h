// A fresh agent wired to fakes, fed datagrams the way the event loop feeds them.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "agent/agent.h"
#include "fakes/fake_net_devices.h"
#include "fakes/fake_system.h"
#include "fakes/log_capture.h"
#include "pal/pal_dispatcher.h"
#include "support/wire_builder.h"

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
  std::vector<std::vector<uint8_t>> take_sent() { return std::exchange(rp.sent, {}); }
  // Delivers one datagram; the one response it drew (empty when none or several).
  std::vector<uint8_t> exchange(const std::vector<uint8_t>& datagram) {
    deliver(datagram);
    auto sent = take_sent();
    return sent.size() == 1 ? sent[0] : std::vector<uint8_t>{};
  }
  // Opens a tunnel as the RP does (SADB_INIT_START); its slot, which is also its request id.
  uint32_t open_tunnel(uint32_t create_handle) {
    const auto r = exchange(pal_request(1, Bytes().be32(0xC0FFEE).be32(create_handle).be32(0)));
    return r.size() == 18 ? uint32_t{r[10]} << 24 | uint32_t{r[11]} << 16 | uint32_t{r[12]} << 8 | r[13] : 0;
  }

  LogCapture log;
  FakeClock clock;
  FakeCommandRunner commands;
  RecordingOutbox rp;
  FakeNetDevices devices;
  Agent agent;
};

}  // namespace cpa::test
