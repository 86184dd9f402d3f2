// The tunnels' policies as the kernel's policy events reach them: a new
// policy's index goes to the newest policy's ACEs, an acquire becomes a
// notification to the RP.
#pragma once

#include <cstdint>

#include "kernel/policy_events.h"
#include "platform/rp_outbox.h"
#include "state/tunnel_table.h"

namespace cpa {

class TunnelPolicyEvents final : public KernelPolicyEvents {
 public:
  TunnelPolicyEvents(TunnelTable& tunnels, RpOutbox& rp) : tunnels_(tunnels), rp_(rp) {}
  int kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) override;
  int kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t index) override;

 private:
  TunnelTable& tunnels_;
  RpOutbox& rp_;
};

}  // namespace cpa
