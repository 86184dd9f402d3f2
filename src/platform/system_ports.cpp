#include "platform/system_ports.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/log.h"
#include "wire/received_bytes.h"

namespace cpa {

timespec SystemClock::monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

int ShellCommandRunner::run(const char* command) { return std::system(command); }

namespace {

SysCallResult outcome(int rc) { return {rc, rc < 0 ? errno : 0}; }

// The kernel's answer to the one request sent on a fresh socket: the error
// code of its acknowledgement, read only from the bytes that arrived.
SysCallResult route_ack(int fd) {
  pollfd p{fd, POLLIN, 0};
  int ready;
  do ready = poll(&p, 1, static_cast<int>(kNetlinkAnswerDeadline.count()));
  while (ready < 0 && errno == EINTR);
  if (ready == 0) {
    cpa_log(LOG_ERR, "No rtnetlink answer within %d ms", static_cast<int>(kNetlinkAnswerDeadline.count()));
    return {-1, ETIMEDOUT};
  }
  uint8_t answer[1024];
  ssize_t n;
  do n = ::recv(fd, answer, sizeof answer, MSG_DONTWAIT);
  while (n < 0 && errno == EINTR);
  if (n < 0) return outcome(-1);
  const ReceivedBytes got(answer, static_cast<size_t>(n));
  const auto header = got.read<nlmsghdr>(0);
  const auto error = got.read<int32_t>(sizeof(nlmsghdr) + offsetof(nlmsgerr, error));
  if (!header || header->nlmsg_type != NLMSG_ERROR || !error) return {-1, EPROTO};
  return *error == 0 ? SysCallResult{0, 0} : SysCallResult{-1, -*error};
}

}  // namespace

SysCallResult KernelNetDeviceSysCalls::socket(int domain, int type, int protocol) {
  return outcome(::socket(domain, type | SOCK_CLOEXEC, protocol));
}
SysCallResult KernelNetDeviceSysCalls::open(const char* path, int flags) {
  return outcome(::open(path, flags | O_CLOEXEC));
}
SysCallResult KernelNetDeviceSysCalls::ioctl(int fd, unsigned long request, void* arg) {
  return outcome(::ioctl(fd, request, arg));
}
SysCallResult KernelNetDeviceSysCalls::close(int fd) { return outcome(::close(fd)); }

SysCallResult KernelNetDeviceSysCalls::route_request(const void* msg, size_t len) {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return outcome(fd);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  SysCallResult result = outcome(static_cast<int>(::sendto(
      fd, msg, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel)));
  if (result.rc >= 0) result = route_ack(fd);
  ::close(fd);
  return result;
}

}  // namespace cpa
