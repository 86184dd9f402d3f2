// The agent's NETLINK_XFRM sockets: the request socket (no groups) and the
// monitor socket (bound to multicast groups).
#pragma once

#include <cstdint>

#include "platform/scoped_fd.h"

namespace cpa {

// Opens and binds a NETLINK_XFRM socket with multicast `groups` (0: the
// request socket). Invalid when it failed (logged). The test build of the
// agent (CPA_TEST_SEAMS) may connect to a fake kernel instead.
ScopedFd kestrix_nlink_socket_create(uint32_t groups);

}  // namespace cpa
