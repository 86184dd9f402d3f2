// Arbitrary datagrams from the monitor socket through the listener's checks
// and handlers, for an agent of one kernel flavour with two tunnels (request
// ids 1 and 2).
#pragma once

#include <cstdint>
#include <vector>

#include "fakes/test_agent.h"
#include "kernel/netlink_listener.h"
#include "pal/tunnel_policy_events.h"

template <cpa::KernelFlavour kFlavour>
int fuzz_listener(const uint8_t* data, size_t size) {
  static cpa::test::TestAgent* t = [] {
    auto* agent = new cpa::test::TestAgent(cpa::AgentSettings{0, 0, kFlavour});
    agent->open_tunnel(1);
    agent->open_tunnel(2);
    return agent;
  }();
  static cpa::TunnelPolicyEvents events(t->agent.tunnels, t->agent.sys.rp);
  static const cpa::NetlinkListenerContext ctx{t->agent.nlink, t->agent.tunnels, events,
                                               t->agent.counters.netlink_dbg_ctrs};
  // An exactly sized copy, so that any read past the datagram is caught.
  const std::vector<uint8_t> datagram(data, data + size);
  cpa::kestrix_nlink_handle_datagram(ctx, cpa::ReceivedBytes(datagram.data(), datagram.size()));
  t->take_sent();
  t->log.clear();
  return 0;
}
