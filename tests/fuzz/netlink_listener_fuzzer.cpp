// Arbitrary datagrams from the monitor socket through the listener's checks and handlers, for an agent with
// two tunnels (request ids 1 and 2) on either kernel's event layouts: the first byte picks the kernel.
#include <cstdint>
#include <vector>

#include "fakes/test_agent.h"
#include "kernel/netlink_listener.h"
#include "pal/tunnel_policy_events.h"

namespace {

struct ListeningAgent {
  explicit ListeningAgent(cpa::KernelFlavour flavour) : t(cpa::AgentSettings{0, 0, flavour}) {
    t.open_tunnel(1);
    t.open_tunnel(2);
  }
  cpa::test::TestAgent t;
  cpa::TunnelPolicyEvents events{t.agent.tunnels, t.agent.sys.rp};
  const cpa::NetlinkListenerContext ctx{t.agent.nlink, t.agent.tunnels, events, t.agent.counters.netlink_dbg_ctrs};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ListeningAgent* agents[] = {new ListeningAgent(cpa::KernelFlavour::kPlatform),
                                     new ListeningAgent(cpa::KernelFlavour::kLinux)};
  if (size == 0) return 0;
  ListeningAgent& a = *agents[data[0] & 1];
  // An exactly sized copy, so that any read past the datagram is caught.
  const std::vector<uint8_t> datagram(data + 1, data + size);
  cpa::kestrix_nlink_handle_datagram(a.ctx, cpa::ReceivedBytes(datagram.data(), datagram.size()));
  a.t.take_sent();
  for (ListeningAgent* each : agents) each->t.log.clear();  // the newest agent's log takes every line
  return 0;
}
