// The tunnels' SVTI devices: "svti" followed by the tunnel id. They are made
// and removed through the platform kernel's tunnel control device, and
// brought up with the tunnel MTU. On a kernel without that control device a
// persistent tun device of the same name stands in, so that the device still
// exists, has an interface index and carries traffic settings. In linux mode
// each is an xfrm interface whose interface id is the tunnel id, made and
// removed over rtnetlink.
#pragma once

#include <cstdint>
#include <string>

#include "platform/system_ports.h"

namespace cpa {

inline constexpr int kSvtiMtu = 9160;
inline constexpr const char* kSvtiControlDevice = "svti_cfg";
inline constexpr const char* kTunControlPath = "/dev/net/tun";

// "svti" followed by the tunnel id in unsigned decimal.
std::string kestrix_tunid_to_ifname(uint32_t tunnel_id);

// The number behind the "svti" prefix, or -1.
int kestrix_ifname_to_tunid(const char* ifname);

// How one kernel makes and removes the devices; each returns 0 or an errno.
struct DeviceOps {
  int (*create)(NetDeviceSysCalls& sys, int s, const char* ifname);
  int (*remove)(NetDeviceSysCalls& sys, int s, const char* ifname);
  const char* failure;  // logged with the device and the error text
};

// The platform's tunnel control device (or its stand-in).
const DeviceOps& platform_device_ops();
// Xfrm interfaces over rtnetlink, on a stock kernel.
const DeviceOps& xfrm_interface_device_ops();

// Creates the device and brings it up; a device of that name left from an
// earlier run is deleted and created again. 0, or a negative errno.
int svti_add(NetDeviceSysCalls& sys, const char* ifname,
             const DeviceOps& ops = platform_device_ops());

// Deletes the device. 0, or a negative errno.
int svti_del(NetDeviceSysCalls& sys, const char* ifname,
             const DeviceOps& ops = platform_device_ops());

// Sets the device's flags from `value` (a negative value clears the bits of
// its magnitude, a positive one sets them) and its MTU to the tunnel MTU,
// through the open socket `s`. 0, or a negative errno.
int setifflags(NetDeviceSysCalls& sys, int s, const char* vname, int value);

// The interface index of tunnel `tunnel_id`'s SVTI device; 0 when there is none.
unsigned svti_ifindex(NetDeviceSysCalls& sys, uint32_t tunnel_id);

}  // namespace cpa
