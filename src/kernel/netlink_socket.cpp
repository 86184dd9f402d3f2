#include "kernel/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.h"

namespace cpa {
namespace {

// When CPA_FAKE_XFRM_KERNEL names a unix seqpacket socket, the agent's
// XFRM sockets are connections to it instead of NETLINK_XFRM sockets: the
// end-to-end tests serve a fake platform kernel there. Binding such a socket
// sends its sockaddr_nl as the first packet, so that the fake kernel learns
// the group mask; everything after that is netlink framing as usual
// (sendto's address is ignored on a connected seqpacket socket). Only the
// test binary looks at it: the installed agent always talks to the kernel.
const char* fake_kernel_path() {
#ifdef CPA_TEST_SEAMS
  return std::getenv("CPA_FAKE_XFRM_KERNEL");
#else
  return nullptr;
#endif
}

ScopedFd connect_fake_kernel(const char* path) {
  ScopedFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un server{};
  server.sun_family = AF_UNIX;
  std::strncpy(server.sun_path, path, sizeof server.sun_path - 1);
  if (fd.valid() && connect(fd.get(), reinterpret_cast<sockaddr*>(&server), sizeof server) < 0)
    fd.reset();
  return fd;
}

int announce_to_fake_kernel(int fd, const sockaddr_nl& local) {
  return send(fd, &local, sizeof local, 0) == static_cast<ssize_t>(sizeof local) ? 0 : -1;
}

}  // namespace

ScopedFd kestrix_nlink_socket_create(uint32_t groups) {
  if (groups != 0 && (groups & 0x1f) == 0) {
    cpa_log(LOG_ERR, "Cannot create socket with wrong N/L group");
    return {};
  }
  const char* fake_kernel = fake_kernel_path();
  ScopedFd fd = fake_kernel ? connect_fake_kernel(fake_kernel)
                            : ScopedFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_XFRM));
  if (!fd.valid()) {
    cpa_log(LOG_ERR, "ERROR: N/L socket failed! reason: %s", std::strerror(errno));
    return {};
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_pid = 0;
  local.nl_groups = groups;
  cpa_log(LOG_DEBUG, "nl_pid now  %d", 0);
  const int bound = fake_kernel ? announce_to_fake_kernel(fd.get(), local)
                                : bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local);
  if (bound < 0) {
    cpa_log(LOG_ERR, "ERROR: bind failed! reason: %s", std::strerror(errno));
    return {};
  }
  if (groups == 0)
    cpa_log(LOG_DEBUG, "nlsock_fd = %d", fd.get());
  else
    cpa_log(LOG_DEBUG, "nlmon_fd = %d", fd.get());
  return fd;
}

}  // namespace cpa
