// The agent's state, created once by the daemon (and afresh by each test):
// the tables it keeps, its counters, its command trace, and the seams through
// which it reaches the system.
#pragma once

#include "base/counters.h"
#include "base/thread_shared.h"
#include "diag/command_trace.h"
#include "kernel/kernel_backend.h"
#include "kernel/netlink_transport.h"
#include "kernel/tunnel_programming.h"
#include "platform/fastpath_segment.h"
#include "platform/kernel_flavour.h"
#include "platform/rp_outbox.h"
#include "platform/system_ports.h"
#include "state/cipher_record.h"
#include "state/peer_table.h"
#include "state/tunnel_table.h"

namespace cpa {

struct AgentSettings {
  int g_unit_test_on = 0;         // -u
  int g_replay_window_size = 0;   // -r: 32 or 64; 0 when not given
  KernelFlavour kernel_flavour = KernelFlavour::kPlatform;  // -k
};

struct AgentSeams {
  Clock& clock;
  CommandRunner& commands;
  RpOutbox& rp;
  NetDeviceSysCalls& devices;
};

struct Agent {
  Agent(AgentSettings s, AgentSeams seams)
      : settings(s),
        backend(kernel_backend(s.kernel_flavour)),
        sys(seams),
        trace(seams.clock),
        nlink(seams.devices, counters.netlink_dbg_ctrs.n_answer_timeout, backend.dialect),
        kernel(nlink, backend, counters.netlink_dbg_ctrs, s.g_replay_window_size) {}
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  AgentSettings settings;
  const KernelBackend& backend;  // what differs between the kernels, chosen from -k
  AgentSeams sys;
  DebugCounters counters;
  ThreadShared shared;
  CommandTrace trace;
  TunnelTable tunnels;
  PeerTable peers;
  CipherList cipher_info_list;  // key material not yet claimed by an SA, newest first
  int64_t next_cipher_sweep_s = 0;  // when release_unclaimed next walks the list
  FastPathStats fastpath;  // the fast path's counters; mapped at start-up
  NetlinkTransport nlink;  // kernel requests; its socket is attached at start-up
  TunnelKernelProgram kernel;  // what the tunnels hold in the kernel
};

}  // namespace cpa
