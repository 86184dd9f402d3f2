// The agent's state, created once by the daemon (and afresh by each test):
// the tables it keeps, its counters, its command trace, and the seams through
// which it reaches the system.
#pragma once

#include <memory>

#include "ceal/fastpath_stats.h"
#include "daemon/thread_shared.h"
#include "diag/command_trace.h"
#include "diag/counters.h"
#include "kernel/netlink_transport.h"
#include "kernel/policy_events.h"
#include "pal/rp_link.h"
#include "pal/tunnel_policy_events.h"
#include "platform/system_ports.h"
#include "state/cipher_record.h"
#include "state/peer_table.h"
#include "state/tunnel_table.h"

namespace cpa {

struct AgentSettings {
  int g_unit_test_on = 0;         // -u
  int g_replay_window_size = 0;   // -r: 32 or 64; 0 when not given
};

struct AgentSeams {
  Clock& clock;
  CommandRunner& commands;
  RpOutbox& rp;
  NetDeviceSysCalls& devices;
};

struct Agent {
  Agent(AgentSettings s, AgentSeams seams)
      : settings(s), sys(seams), trace(seams.clock), nlink(seams.devices) {}
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  AgentSettings settings;
  AgentSeams sys;
  DebugCounters counters;
  ThreadShared shared;
  CommandTrace trace;
  TunnelTable tunnels;
  PeerTable peers;
  CipherList cipher_info_list;  // key material not yet claimed by an SA, newest first
  FastPathStats fastpath;  // the fast path's counters; mapped at start-up
  NetlinkTransport nlink;  // kernel requests; its socket is attached at start-up
  // What the kernel listener reaches of the policy layer.
  std::unique_ptr<KernelPolicyEvents> policy_events =
      std::make_unique<TunnelPolicyEvents>(tunnels, sys.rp);
};

}  // namespace cpa
