#include "fakes/fake_net_devices.h"

#include <netinet/in.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace cpa::test {
namespace {

SysCallResult ok(int rc = 0) { return {rc, 0}; }
SysCallResult failed(int error) { return {-1, error}; }

std::string name_of(const char* field, size_t size) {
  return std::string(field, strnlen(field, size));
}

}  // namespace

// Xfrm interfaces are the real kernel's test's: this kernel has none.
SysCallResult FakeNetDevices::route_request(const void*, size_t) { return failed(EOPNOTSUPP); }

SysCallResult FakeNetDevices::socket(int domain, int type, int) {
  if (fail_socket) return failed(fail_socket);
  if (domain != AF_INET || type != SOCK_DGRAM) return failed(EAFNOSUPPORT);
  fds_.insert(next_fd_);
  return ok(next_fd_++);
}

SysCallResult FakeNetDevices::open(const char*, int) { return failed(ENOENT); }  // no tun driver

SysCallResult FakeNetDevices::close(int fd) {
  if (fds_.erase(fd)) return ok();
  ++bad_closes;
  return failed(EBADF);
}

SysCallResult FakeNetDevices::ioctl(int fd, unsigned long request, void* arg) {
  if (!fds_.count(fd)) return failed(EBADF);
  if (auto f = fail.find(request); f != fail.end()) return failed(f->second);
  return socket_ioctl(request, arg);
}

SysCallResult FakeNetDevices::tunnel_ioctl(unsigned long request, void* arg) {
  auto& ifr = *static_cast<ifreq*>(arg);
  const std::string target = name_of(ifr.ifr_name, IFNAMSIZ);
  tunnel_ioctl_targets.push_back(target);
  tunnel_parms.push_back(*reinterpret_cast<const ip_tunnel_parm*>(ifr.ifr_data));
  if (request == kSiocAddTunnel) {
    if (!control_device || target != "svti_cfg") return failed(ENODEV);
    const std::string name = name_of(tunnel_parms.back().name, kTunnelNameSize);
    if (devices_.count(name)) return failed(EEXIST);
    add_device(name);
    return ok();
  }
  auto dev = devices_.find(target);
  if (dev == devices_.end()) return failed(ENODEV);
  if (dev->second.tun) return failed(EOPNOTSUPP);
  devices_.erase(dev);
  return ok();
}

SysCallResult FakeNetDevices::socket_ioctl(unsigned long request, void* arg) {
  if (request == kSiocAddTunnel || request == kSiocDelTunnel) return tunnel_ioctl(request, arg);
  auto& ifr = *static_cast<ifreq*>(arg);
  auto dev = devices_.find(name_of(ifr.ifr_name, IFNAMSIZ));
  if (dev == devices_.end()) return failed(ENODEV);
  switch (request) {
    case SIOCGIFINDEX:
      ifr.ifr_ifindex = dev->second.ifindex;
      return ok();
    case SIOCGIFFLAGS:
      ifr.ifr_flags = static_cast<short>(dev->second.flags);
      return ok();
    case SIOCSIFFLAGS:
      dev->second.flags = static_cast<uint16_t>(ifr.ifr_flags);
      return ok();
    case SIOCSIFMTU:
      dev->second.mtu = ifr.ifr_mtu;
      return ok();
    case SIOCGIFADDR:
    case SIOCGIFNETMASK: {
      sockaddr_in sin{};
      sin.sin_family = AF_INET;
      sin.sin_addr.s_addr = request == SIOCGIFADDR ? dev->second.addr : dev->second.netmask;
      std::memcpy(&ifr.ifr_addr, &sin, sizeof sin);
      return ok();
    }
    default:
      return failed(ENOTTY);
  }
}

FakeNetDevices::Device& FakeNetDevices::add_device(const std::string& name, bool tun) {
  return devices_[name] = Device{.ifindex = next_ifindex_++, .tun = tun};
}

const FakeNetDevices::Device* FakeNetDevices::device(const std::string& name) const {
  auto it = devices_.find(name);
  return it == devices_.end() ? nullptr : &it->second;
}

}  // namespace cpa::test
