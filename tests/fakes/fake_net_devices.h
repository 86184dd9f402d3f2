// A fake kernel behind the network-device system calls: it keeps a table of
// devices, answers the tunnel and interface ioctls the way a kernel does
// (with or without the platform's tunnel control device), fails any call a
// test asks it to, and tracks every descriptor so that leaks and double
// closes show. It has no tun driver: the stand-in for a missing control
// device is the real kernel's (test_intf_attach).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/system_ports.h"
#include "wire/ip_tunnel_parm.h"

namespace cpa::test {

class FakeNetDevices final : public NetDeviceSysCalls {
 public:
  struct Device {
    int ifindex = 0;
    uint16_t flags = 0;
    int mtu = 1500;
    uint32_t addr = 0;     // IPv4, network order
    uint32_t netmask = 0;  // network order
    bool tun = false;  // made by the tun driver: the control device does not delete it
  };

  SysCallResult socket(int domain, int type, int protocol) override;
  SysCallResult open(const char* path, int flags) override;
  SysCallResult ioctl(int fd, unsigned long request, void* arg) override;
  SysCallResult close(int fd) override;
  SysCallResult route_request(const void* msg, size_t len) override;

  // A device that exists before the agent acts, as one left by an earlier run
  // (or made by the agent through the control device).
  Device& add_device(const std::string& name, bool tun = false);
  const Device* device(const std::string& name) const;
  int open_descriptors() const { return static_cast<int>(fds_.size()); }

  // Knobs.
  bool control_device = true;         // the platform's "svti_cfg" exists
  std::map<unsigned long, int> fail;  // ioctl request -> errno of every such call
  int fail_socket = 0;                // errno of socket(), 0: succeeds

  // What was seen.
  std::vector<std::string> tunnel_ioctl_targets;  // ifr_name of each tunnel ioctl
  std::vector<ip_tunnel_parm> tunnel_parms;       // the record of each tunnel ioctl
  int bad_closes = 0;                             // closes of descriptors not open

 private:
  SysCallResult socket_ioctl(unsigned long request, void* arg);
  SysCallResult tunnel_ioctl(unsigned long request, void* arg);

  std::map<std::string, Device> devices_;
  std::set<int> fds_;
  int next_fd_ = 100;
  int next_ifindex_ = 2;
};

}  // namespace cpa::test
