// Which kernel the agent programs: the platform's patched kernel (its XFRM
// dialect, tunnel control device and fast path), or a stock Linux kernel
// (its own XFRM layouts, xfrm interfaces, kernel SA counters).
#pragma once

namespace cpa {

enum class KernelFlavour { kPlatform, kLinux };

inline const char* flavour_name(KernelFlavour f) {
  return f == KernelFlavour::kLinux ? "linux" : "platform";
}

}  // namespace cpa
