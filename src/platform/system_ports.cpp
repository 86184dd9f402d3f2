#include "platform/system_ports.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace cpa {

timespec SystemClock::monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

int ShellCommandRunner::run(const char* command) { return std::system(command); }

void ProcessEnvironment::set(const char* name, const char* value) { setenv(name, value, 1); }

namespace {
SysCallResult outcome(int rc) { return {rc, rc < 0 ? errno : 0}; }
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

}  // namespace cpa
