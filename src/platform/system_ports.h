// Narrow seams over the system: the monotonic clock, the shell and its
// environment, and the calls that manage network devices.
// The agent uses the real ones; tests hand in fakes.
#pragma once

#include <time.h>

#include <chrono>
#include <cstddef>

namespace cpa {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual timespec monotonic_now() = 0;
};

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs `command` through the shell; returns what system() returns.
  virtual int run(const char* command) = 0;
};

// The variables the shell commands inherit.
class Environment {
 public:
  virtual ~Environment() = default;
  // Sets `name` to `value`, overwriting an earlier value.
  virtual void set(const char* name, const char* value) = 0;
};

// The outcome of one system call: what it returned, and errno when it failed.
struct SysCallResult {
  int rc;
  int error;  // errno when rc < 0, else 0
};

// The system calls behind the tunnel devices: the descriptors opened for
// ioctls, the ioctls, and the closes; and the link requests over rtnetlink.
class NetDeviceSysCalls {
 public:
  virtual ~NetDeviceSysCalls() = default;
  virtual SysCallResult socket(int domain, int type, int protocol) = 0;
  virtual SysCallResult open(const char* path, int flags) = 0;
  virtual SysCallResult ioctl(int fd, unsigned long request, void* arg) = 0;
  virtual SysCallResult close(int fd) = 0;
  // Sends one NETLINK_ROUTE request (a whole message, header first) and
  // waits for the kernel's acknowledgement: rc 0, or -1 with its error
  // (ETIMEDOUT past kNetlinkAnswerDeadline).
  virtual SysCallResult route_request(const void* msg, size_t len) = 0;
};

// How long a netlink request waits for the kernel's answer before it fails
// with ETIMEDOUT: a silent kernel must not hold up the main loop.
inline constexpr std::chrono::milliseconds kNetlinkAnswerDeadline{1000};

// A descriptor opened through a NetDeviceSysCalls, closed through it on every path.
class SysCallFd {
 public:
  SysCallFd(NetDeviceSysCalls& sys, SysCallResult opened) : sys_(sys), opened_(opened) {}
  SysCallFd(const SysCallFd&) = delete;
  SysCallFd& operator=(const SysCallFd&) = delete;
  ~SysCallFd() {
    if (valid()) sys_.close(opened_.rc);
  }

  bool valid() const { return opened_.rc >= 0; }
  int get() const { return opened_.rc; }
  int error() const { return opened_.error; }  // errno of a failed open

 private:
  NetDeviceSysCalls& sys_;
  SysCallResult opened_;
};

class SystemClock final : public Clock {
 public:
  timespec monotonic_now() override;
};

class ShellCommandRunner final : public CommandRunner {
 public:
  int run(const char* command) override;
};

class KernelNetDeviceSysCalls final : public NetDeviceSysCalls {
 public:
  SysCallResult socket(int domain, int type, int protocol) override;
  SysCallResult open(const char* path, int flags) override;
  SysCallResult ioctl(int fd, unsigned long request, void* arg) override;
  SysCallResult close(int fd) override;
  SysCallResult route_request(const void* msg, size_t len) override;
};

}  // namespace cpa
