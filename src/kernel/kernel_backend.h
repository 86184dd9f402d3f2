// What differs between the kernels the agent can program, chosen once at
// start-up from the -k option: the XFRM message bodies, the tunnel devices,
// the netlink groups the listener joins, and how a tunnel's policies are tied
// to its SAs and found again. Nothing above the kernel layer asks which
// kernel runs; it reads these facts.
#pragma once

#include <cstdint>

#include "kernel/kernel_dialect.h"
#include "platform/kernel_flavour.h"
#include "platform/tunnel_devices.h"

namespace cpa {

// Where the flow and global statistics counters are read.
enum class CounterSource { kFastPathSegment, kKernelSas };

struct KernelBackend {
  const KernelDialect& dialect;  // the XFRM message bodies
  const DeviceOps& devices;      // how the tunnels' SVTI devices are made and removed
  uint32_t monitor_groups;       // the XFRM groups the listener joins
  // A stock kernel checks forwarded decrypted traffic against forward
  // policies, so there every inbound policy has a forward copy.
  bool forward_copies;
  // A stock kernel resolves a policy only to SAs of its template's mode,
  // protocol (and tunnel endpoints), so there the templates follow the SAs.
  bool templates_follow_sas;
  // The platform names a policy by the kernel index its event reported; a
  // stock kernel finds it by selector, direction and interface id.
  bool remove_by_selector;
  CounterSource counters;
};

// The backend of `flavour`; the only place that tells the kernels apart.
const KernelBackend& kernel_backend(KernelFlavour flavour);

}  // namespace cpa
