// What the kernel's policy events ask of the policy layer: the listener
// hands it the kernel index of a new policy and the acquires for a tunnel.
#pragma once

#include <cstdint>

#include "state/tunnel_table.h"
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

// The tunnels' policies as the kernel's events reach them. The index goes to
// the newest policy's ACEs. The RP is not told of acquires yet: every acquire
// ends as one for a tunnel whose policy has no notify-RP action.
class TunnelPolicyEvents final : public KernelPolicyEvents {
 public:
  explicit TunnelPolicyEvents(TunnelTable& tunnels) : tunnels_(tunnels) {}
  int kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) override;
  int kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t index) override;

 private:
  TunnelTable& tunnels_;
};

}  // namespace cpa
