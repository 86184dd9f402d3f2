// Kernel XFRM events arriving on the monitor socket: new policies give their
// kernel index to the tunnel's policy, acquires ask the RP for an SA, every
// other event is only logged.
#pragma once

#include "base/counters.h"
#include "kernel/netlink_transport.h"
#include "kernel/policy_events.h"
#include "state/tunnel_table.h"
#include "wire/received_bytes.h"

namespace cpa {

// What the listener reads and where it hands the events on: the request
// transport (the kernel's dialect, the agent's port id), the tunnels (found
// by request id), the policy layer, and the event counters.
struct NetlinkListenerContext {
  const NetlinkTransport& nlink;
  const TunnelTable& tunnels;
  KernelPolicyEvents& events;
  cpa_netlink_global_ctr_t& counters;
};

// The largest event read whole; a longer one arrives cut short and is dropped.
inline constexpr size_t kEventBufSize = 65536;

// Reads datagrams from the monitor socket, never waiting, until a well-formed
// one arrives and handles its first message; malformed ones are dropped and
// counted. Returns 0 when a message was read (handled or ignored) or nothing
// is queued, 1 on end of file or an error that receiving again cannot cure.
int kestrix_nlink_listener(const NetlinkListenerContext& ctx, int nl_fd);

// One datagram from the monitor socket. Returns false when it is malformed
// (logged), true when its first message was handled or ignored.
bool kestrix_nlink_handle_datagram(const NetlinkListenerContext& ctx, ReceivedBytes datagram);

// Dispatches one message (header included, `nlmsg_len` bytes) by type. Returns 0.
int kestrix_nlink_process_msg(const NetlinkListenerContext& ctx, ReceivedBytes msg);

// A policy message: its kernel index goes to the tunnel named by the
// template's request id. Returns the index update's result, or 1.
int kestrix_nlink_proc_policy(const NetlinkListenerContext& ctx, ReceivedBytes msg);

// An acquire: the RP is asked for an SA of the tunnel named by the template's
// request id. Returns the notification's result, or 1.
int kestrix_nlink_proc_acquire(const NetlinkListenerContext& ctx, ReceivedBytes msg);

}  // namespace cpa
