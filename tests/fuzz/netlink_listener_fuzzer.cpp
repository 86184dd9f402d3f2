// Arbitrary datagrams from the monitor socket through the listener's checks
// and handlers, for an agent with two tunnels (request ids 1 and 2).
#include <arpa/inet.h>

#include <cstdint>
#include <vector>

#include "daemon/agent.h"
#include "fakes/null_log.h"
#include "fakes/fake_net_devices.h"
#include "fakes/fake_system.h"
#include "kernel/netlink_listener.h"

namespace {

struct Fixture {
  Fixture() : agent({}, cpa::AgentSeams{clock, commands, rp, devices}) {
    for (uint32_t create = 1; create <= 2; ++create) {
      const cpa::kestrix_pal_initialize_start_req req{htonl(1), htonl(create), 0};
      cpa::cdh_sadbhandle handle;
      agent.tunnels.create_alloc_sadbhdl(req, &handle);
    }
  }
  cpa::test::NullLog log;
  cpa::test::FakeClock clock;
  cpa::test::FakeCommandRunner commands;
  cpa::test::RecordingOutbox rp;
  cpa::test::FakeNetDevices devices;
  cpa::Agent agent;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture* fixture = new Fixture;
  // An exactly sized copy, so that any read past the datagram is caught.
  std::vector<uint8_t> datagram(data, data + size);
  cpa::kestrix_nlink_handle_datagram(fixture->agent, cpa::ReceivedBytes(datagram.data(), datagram.size()));
  fixture->rp.sent.clear();
  return 0;
}
