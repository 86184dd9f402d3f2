// Kernel XFRM events arriving on the monitor socket: new policies give their
// kernel index to the tunnel's policy, acquires ask the RP for an SA, every
// other event is only logged.
#pragma once

#include "daemon/agent.h"
#include "wire/received_bytes.h"

namespace cpa {

// Reads datagrams from the monitor socket until a well-formed one arrives and
// handles its first message. Returns 0 when a message was read (handled or
// ignored), 1 on end of file or an error that receiving again cannot cure.
int kestrix_nlink_listener(Agent& agent, int nl_fd);

// One datagram from the monitor socket. Returns false when it is malformed
// (logged), true when its first message was handled or ignored.
bool kestrix_nlink_handle_datagram(Agent& agent, ReceivedBytes datagram);

// Dispatches one message (header included, `nlmsg_len` bytes) by type. Returns 0.
int kestrix_nlink_process_msg(Agent& agent, ReceivedBytes msg);

// A policy message: its kernel index goes to the tunnel named by the
// template's request id. Returns the index update's result, or 1.
int kestrix_nlink_proc_policy(Agent& agent, ReceivedBytes msg);

// An acquire: the RP is asked for an SA of the tunnel named by the template's
// request id. Returns the notification's result, or 1.
int kestrix_nlink_proc_acquire(Agent& agent, ReceivedBytes msg);

}  // namespace cpa
