#include "kernel/netlink_listener.h"

#include <sys/socket.h>

#include <cstdint>

namespace cpa {

int kestrix_nlink_listener(int nl_fd) {
  uint8_t datagram[4096];
  return recv(nl_fd, datagram, sizeof datagram, 0) > 0 ? 0 : 1;
}

}  // namespace cpa
