// The listener on the platform kernel's event layouts.
#include "fuzz/listener_fuzz_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz_listener<cpa::KernelFlavour::kPlatform>(data, size);
}
