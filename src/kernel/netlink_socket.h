// The agent's NETLINK_XFRM sockets: the request socket (no groups) and the
// monitor socket (bound to multicast groups).
#pragma once

#include <cstdint>

#include "platform/scoped_fd.h"

namespace cpa {

// When this environment variable names a unix seqpacket socket, the agent's
// XFRM sockets are connections to it instead of NETLINK_XFRM sockets: the
// end-to-end tests serve a fake platform kernel there. Binding such a socket
// sends its sockaddr_nl as the first packet, so that the fake kernel learns
// the group mask; everything after that is netlink framing as usual
// (sendto's address is ignored on a connected seqpacket socket).
inline constexpr const char* kFakeXfrmKernelVariable = "CPA_FAKE_XFRM_KERNEL";

// Opens and binds a NETLINK_XFRM socket with multicast `groups` (0: the
// request socket). Invalid when it failed (logged).
ScopedFd kestrix_nlink_socket_create(uint32_t groups);

}  // namespace cpa
