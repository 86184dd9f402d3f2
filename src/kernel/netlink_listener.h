// Kernel XFRM events arriving on the monitor socket.
#pragma once

namespace cpa {

// Reads one datagram from the monitor socket. Events are not acted upon yet.
// Returns 0 when a datagram was read, 1 on end of file or error.
int kestrix_nlink_listener(int nl_fd);

}  // namespace cpa
