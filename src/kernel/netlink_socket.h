// The agent's NETLINK_XFRM sockets: the request socket (no groups) and the
// monitor socket (bound to multicast groups).
#pragma once

#include <cstdint>

namespace cpa {

// Opens and binds a NETLINK_XFRM socket with multicast `groups` (0: the
// request socket). Returns the descriptor, or -1.
int kestrix_nlink_socket_create(uint32_t groups);

}  // namespace cpa
