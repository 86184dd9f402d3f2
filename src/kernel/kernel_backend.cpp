#include "kernel/kernel_backend.h"

#include "wire/xfrm_platform.h"

namespace cpa {
namespace {

constexpr uint32_t kPolicyEventGroups = 8;

}  // namespace

const KernelBackend& kernel_backend(KernelFlavour flavour) {
  static const KernelBackend kPlatform{platform_dialect(), platform_device_ops(), kPolicyEventGroups,
                                       false, false, false, CounterSource::kFastPathSegment};
  // A stock kernel sends acquires to their own group only.
  static const KernelBackend kLinux{linux_dialect(), xfrm_interface_device_ops(),
                                    kPolicyEventGroups | kXfrmGroupAcquire, true, true, true,
                                    CounterSource::kKernelSas};
  return flavour == KernelFlavour::kLinux ? kLinux : kPlatform;
}

}  // namespace cpa
