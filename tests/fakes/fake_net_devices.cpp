#include "fakes/fake_net_devices.h"

#include <linux/if_tun.h>
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

SysCallResult FakeNetDevices::new_descriptor(bool tun) {
  const int fd = next_fd_++;
  fds_[fd] = Descriptor{tun, {}};
  return ok(fd);
}

SysCallResult FakeNetDevices::socket(int domain, int type, int) {
  if (fail_socket) return failed(fail_socket);
  if (domain != AF_INET || type != SOCK_DGRAM) return failed(EAFNOSUPPORT);
  return new_descriptor(false);
}

SysCallResult FakeNetDevices::open(const char* path, int) {
  if (fail_open) return failed(fail_open);
  if (std::strcmp(path, "/dev/net/tun") != 0) return failed(ENOENT);
  return new_descriptor(true);
}

SysCallResult FakeNetDevices::close(int fd) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) {
    ++bad_closes;
    return failed(EBADF);
  }
  const std::string attached = it->second.attached;
  fds_.erase(it);
  if (!attached.empty() && !devices_.at(attached).persistent) devices_.erase(attached);
  return ok();
}

SysCallResult FakeNetDevices::ioctl(int fd, unsigned long request, void* arg) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) return failed(EBADF);
  if (auto f = fail.find(request); f != fail.end()) return failed(f->second);
  return it->second.tun ? tun_ioctl(it->second, request, arg) : socket_ioctl(request, arg);
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
    create(name, false);
    return ok();
  }
  auto dev = devices_.find(target);
  if (dev == devices_.end()) return failed(ENODEV);
  if (dev->second.tun) return failed(EOPNOTSUPP);  // not a tunnel device
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

SysCallResult FakeNetDevices::tun_ioctl(Descriptor& fd, unsigned long request, void* arg) {
  if (request == TUNSETPERSIST) {
    if (fd.attached.empty()) return failed(EBADFD);
    devices_.at(fd.attached).persistent = reinterpret_cast<uintptr_t>(arg) != 0;
    return ok();
  }
  if (request != TUNSETIFF) return failed(ENOTTY);
  auto& ifr = *static_cast<ifreq*>(arg);
  const std::string name = name_of(ifr.ifr_name, IFNAMSIZ);
  if (!fd.attached.empty() || ifr.ifr_flags != (IFF_TUN | IFF_NO_PI)) return failed(EINVAL);
  auto dev = devices_.find(name);
  if (dev != devices_.end() && !dev->second.tun) return failed(EINVAL);
  if (dev == devices_.end()) create(name, true);
  fd.attached = name;
  return ok();
}

FakeNetDevices::Device& FakeNetDevices::create(const std::string& name, bool tun) {
  Device& dev = devices_[name];
  dev = Device{};
  dev.ifindex = next_ifindex_++;
  dev.tun = tun;
  return dev;
}

FakeNetDevices::Device& FakeNetDevices::add_device(const std::string& name, bool tun) {
  Device& dev = create(name, tun);
  dev.persistent = tun;
  return dev;
}

const FakeNetDevices::Device* FakeNetDevices::device(const std::string& name) const {
  auto it = devices_.find(name);
  return it == devices_.end() ? nullptr : &it->second;
}

}  // namespace cpa::test
