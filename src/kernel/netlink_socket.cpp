#include "kernel/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "diag/log.h"

namespace cpa {

int kestrix_nlink_socket_create(uint32_t groups) {
  if (groups != 0 && (groups & 0x1f) == 0) {
    cpa_log(LOG_ERR, "Cannot create socket with wrong N/L group");
    return -1;
  }
  const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_XFRM);
  if (fd < 0) {
    cpa_log(LOG_ERR, "ERROR: N/L socket failed! reason: %s", std::strerror(errno));
    return -1;
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_pid = 0;
  local.nl_groups = groups;
  cpa_log(LOG_DEBUG, "nl_pid now  %d", 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
    cpa_log(LOG_ERR, "ERROR: bind failed! reason: %s", std::strerror(errno));
    close(fd);
    return -1;
  }
  if (groups == 0)
    cpa_log(LOG_DEBUG, "nlsock_fd = %d", fd);
  else
    cpa_log(LOG_DEBUG, "nlmon_fd = %d", fd);
  return fd;
}

}  // namespace cpa
