// What the kernel's policy events ask of the policy layer: the listener
// hands it the kernel index of a new policy and the acquires for a tunnel.
// The policy layer implements it; the agent wires the two together.
#pragma once

#include <cstdint>

#include "wire/xfrm_platform.h"

namespace cpa {

class KernelPolicyEvents {
 public:
  virtual ~KernelPolicyEvents() = default;
  // Gives the kernel policy index `k_index` of direction `dir` to tunnel
  // `index`'s policy; 0 when an ACE took it, 1 otherwise.
  virtual int kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) = 0;
  // Asks the RP for an SA of tunnel `index`; 0 when the RP was told, 1 otherwise.
  virtual int kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t index) = 0;
};

}  // namespace cpa
