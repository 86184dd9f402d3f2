#include "platform/tunnel_devices.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "platform/link_requests.h"
#include "wire/ip_tunnel_parm.h"

namespace cpa {
namespace {

constexpr char kSvtiPrefix[] = "svti";
constexpr size_t kSvtiPrefixLength = sizeof kSvtiPrefix - 1;

bool name_fits(const char* ifname) {
  if (!ifname) {
    cpa_log(LOG_DEBUG, "Null ifname");
    return false;
  }
  if (std::strlen(ifname) > kTunnelNameSize) {
    cpa_log(LOG_ERR, "ifname size cannot be > %d", static_cast<int>(kTunnelNameSize));
    return false;
  }
  return true;
}

// An ifreq addressing `name`, which name_fits() has accepted.
ifreq named_ifreq(const char* name) {
  ifreq ifr{};
  std::memcpy(ifr.ifr_name, name, strnlen(name, IFNAMSIZ));
  return ifr;
}

ip_tunnel_parm tunnel_parm(const char* name, uint8_t protocol) {
  ip_tunnel_parm parm{};
  std::memcpy(parm.name, name, strnlen(name, kTunnelNameSize));
  parm.iph.version_ihl = kIpv4HeaderTemplate;
  parm.iph.protocol = protocol;
  return parm;
}

// The socket the device ioctls go through; a failure to open it is logged.
SysCallFd ioctl_socket(NetDeviceSysCalls& sys) {
  const SysCallResult opened = sys.socket(AF_INET, SOCK_DGRAM, 0);
  if (opened.rc < 0) cpa_log(LOG_ERR, "socket failed: %s", std::strerror(opened.error));
  return SysCallFd(sys, opened);
}

// A failed call's result: its negative errno, never 0.
int failed(int error) { return error ? -error : -EIO; }

void print_ioctl_error(int error) { std::fprintf(stderr, "ioctl: %s\n", std::strerror(error)); }

// ---- the stand-in: a persistent tun device of the tunnel's name ----------

// Attaches to the tun device `ifname` (creating it when absent) and sets its
// persistence; a device that is not persistent vanishes when the last
// descriptor on it closes. 0 or an errno.
int tun_set_persist(NetDeviceSysCalls& sys, const char* ifname, bool persist) {
  SysCallFd tun(sys, sys.open(kTunControlPath, O_RDWR));
  if (!tun.valid()) return tun.error();
  ifreq ifr = named_ifreq(ifname);
  ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (const SysCallResult r = sys.ioctl(tun.get(), TUNSETIFF, &ifr); r.rc < 0) return r.error;
  const SysCallResult r =
      sys.ioctl(tun.get(), TUNSETPERSIST, reinterpret_cast<void*>(uintptr_t{persist}));
  return r.rc < 0 ? r.error : 0;
}

bool device_exists(NetDeviceSysCalls& sys, int s, const char* ifname) {
  ifreq ifr = named_ifreq(ifname);
  return sys.ioctl(s, SIOCGIFINDEX, &ifr).rc >= 0;
}

// Answers an existing device with EEXIST, as the control device does, so
// that a stale device is replaced the same way on either kernel.
int standin_create(NetDeviceSysCalls& sys, int s, const char* ifname) {
  if (device_exists(sys, s, ifname)) return EEXIST;
  return tun_set_persist(sys, ifname, true);
}

int standin_delete(NetDeviceSysCalls& sys, int s, const char* ifname) {
  if (!device_exists(sys, s, ifname)) return ENODEV;
  return tun_set_persist(sys, ifname, false);
}

// ---- the tunnel ioctls, falling back to the stand-in per call ------------

// The control device is missing: a stock kernel.
bool no_control_device(int error) { return error == ENODEV || error == ENXIO; }

int add_tunnel(NetDeviceSysCalls& sys, int s, const char* ifname) {
  ip_tunnel_parm parm = tunnel_parm(ifname, IPPROTO_ESP);
  ifreq ifr = named_ifreq(kSvtiControlDevice);
  ifr.ifr_data = reinterpret_cast<char*>(&parm);
  const SysCallResult r = sys.ioctl(s, kSiocAddTunnel, &ifr);
  if (r.rc >= 0) return 0;
  return no_control_device(r.error) ? standin_create(sys, s, ifname) : r.error;
}

int delete_tunnel(NetDeviceSysCalls& sys, int s, const char* ifname) {
  ip_tunnel_parm parm = tunnel_parm("", 0);
  ifreq ifr = named_ifreq(ifname);
  ifr.ifr_data = reinterpret_cast<char*>(&parm);
  const SysCallResult r = sys.ioctl(s, kSiocDelTunnel, &ifr);
  if (r.rc >= 0) return 0;
  // The delete addresses the device itself: a stock kernel answers ENODEV
  // for a missing one and EOPNOTSUPP for the stand-in's tun device.
  const bool stock_kernel = no_control_device(r.error) || r.error == EOPNOTSUPP;
  return stock_kernel ? standin_delete(sys, s, ifname) : r.error;
}

// ---- linux mode: an xfrm interface over rtnetlink ------------------------

int route_request(NetDeviceSysCalls& sys, const std::vector<uint8_t>& msg) {
  const SysCallResult r = sys.route_request(msg.data(), msg.size());
  return r.rc < 0 ? r.error : 0;
}

// The interface id is the tunnel id, which the SAs and policies carry.
int add_xfrm_interface(NetDeviceSysCalls& sys, int, const char* ifname) {
  const int tunnel_id = kestrix_ifname_to_tunid(ifname);
  const int error = route_request(
      sys, new_xfrm_interface_request(ifname, static_cast<uint32_t>(tunnel_id < 0 ? 0 : tunnel_id)));
  // An unknown link kind: the kernel was built without xfrm interfaces.
  if (error == EOPNOTSUPP)
    cpa_log(LOG_ERR, "%s: the kernel has no xfrm interfaces (CONFIG_XFRM_INTERFACE, module xfrm_interface)",
            ifname);
  return error;
}

int delete_link(NetDeviceSysCalls& sys, int, const char* ifname) {
  return route_request(sys, delete_link_request(ifname));
}

bool delete_stale(NetDeviceSysCalls& sys, const char* ifname, const DeviceOps& ops) {
  cpa_log(LOG_INFO, "SVTI interface %s, tunnelId %d already exists", ifname,
          kestrix_ifname_to_tunid(ifname));
  cpa_log(LOG_INFO, "Deleting stale SVTI interface %s", ifname);
  if (svti_del(sys, ifname, ops) != 0) return false;
  cpa_log(LOG_DEBUG, "---svti deleted [%s]", ifname);
  cpa_log(LOG_INFO, "ReCreating SVTI interface %s", ifname);
  return true;
}

}  // namespace

const DeviceOps& platform_device_ops() {
  static constexpr DeviceOps kOps{add_tunnel, delete_tunnel, "ioctl : %s- %s"};
  return kOps;
}

const DeviceOps& xfrm_interface_device_ops() {
  static constexpr DeviceOps kOps{add_xfrm_interface, delete_link, "rtnetlink : %s- %s"};
  return kOps;
}

std::string kestrix_tunid_to_ifname(uint32_t tunnel_id) {
  return kSvtiPrefix + std::to_string(tunnel_id);
}

int kestrix_ifname_to_tunid(const char* ifname) {
  if (!name_fits(ifname) || std::strncmp(ifname, kSvtiPrefix, kSvtiPrefixLength) != 0) return -1;
  // Read like "%d": leading blanks and a sign are taken, trailing text is ignored.
  const char* digits = ifname + kSvtiPrefixLength;
  char* end = nullptr;
  const long id = std::strtol(digits, &end, 10);
  if (end == digits || id < 0 || id > INT_MAX) return -1;
  return static_cast<int>(id);
}

int svti_add(NetDeviceSysCalls& sys, const char* ifname, const DeviceOps& ops) {
  if (!name_fits(ifname)) return -ENAMETOOLONG;
  const SysCallFd s = ioctl_socket(sys);
  if (!s.valid()) return failed(s.error());
  // A stale device is replaced once; should the new one collide again,
  // something else keeps creating it and the attach fails.
  for (bool replaced = false;; replaced = true) {
    const int error = ops.create(sys, s.get(), ifname);
    if (error == 0) break;
    cpa_log(LOG_ERR, ops.failure, ifname, std::strerror(error));
    print_ioctl_error(error);
    if (error != EEXIST || replaced || !delete_stale(sys, ifname, ops)) {
      cpa_log(LOG_ERR, "interface already exists");
      return failed(error);
    }
  }
  cpa_log(LOG_INFO, "Created SVTI interface %s", ifname);
  const int rc = setifflags(sys, s.get(), ifname, IFF_UP);
  cpa_log(LOG_DEBUG, "svti add returns err %d", rc);
  return rc;
}

int svti_del(NetDeviceSysCalls& sys, const char* ifname, const DeviceOps& ops) {
  if (!name_fits(ifname)) return -ENAMETOOLONG;
  const SysCallFd s = ioctl_socket(sys);
  if (!s.valid()) return failed(s.error());
  const int error = ops.remove(sys, s.get(), ifname);
  if (error == 0) return 0;
  cpa_log(LOG_ERR, "ioctl: failed");
  print_ioctl_error(error);
  return failed(error);
}

int setifflags(NetDeviceSysCalls& sys, int s, const char* vname, int value) {
  ifreq ifr = named_ifreq(vname);
  if (const SysCallResult r = sys.ioctl(s, SIOCGIFFLAGS, &ifr); r.rc < 0) {
    cpa_log(LOG_DEBUG, "socket failed: %s", std::strerror(r.error));
    return failed(r.error);
  }
  const auto flags = static_cast<uint16_t>(ifr.ifr_flags);
  const auto bits = static_cast<uint16_t>(value < 0 ? -static_cast<long>(value) : value);
  ifr.ifr_flags = static_cast<short>(value < 0 ? flags & ~bits : flags | bits);
  SysCallResult r = sys.ioctl(s, SIOCSIFFLAGS, &ifr);
  if (r.rc >= 0) {
    ifreq mtu = named_ifreq(vname);
    mtu.ifr_mtu = kSvtiMtu;
    r = sys.ioctl(s, SIOCSIFMTU, &mtu);
  }
  if (r.rc < 0) {
    cpa_log(LOG_ERR, "socket failed: %s", std::strerror(r.error));
    return failed(r.error);
  }
  return 0;
}

// What if_nametoindex does, through the device seam.
unsigned svti_ifindex(NetDeviceSysCalls& sys, uint32_t tunnel_id) {
  char name[IFNAMSIZ] = {};
  std::snprintf(name, sizeof name, "svti%d", static_cast<int>(tunnel_id));
  SysCallFd s(sys, sys.socket(AF_INET, SOCK_DGRAM, 0));
  if (!s.valid()) return 0;
  ifreq ifr = named_ifreq(name);
  return sys.ioctl(s.get(), SIOCGIFINDEX, &ifr).rc < 0 ? 0 : static_cast<unsigned>(ifr.ifr_ifindex);
}

}  // namespace cpa
