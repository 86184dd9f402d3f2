#include "pal/tunnel_policy_events.h"

#include "pal/acl_policy.h"
#include "pal/notify_rp.h"

namespace cpa {

int TunnelPolicyEvents::kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) {
  return cpa::kestrix_policy_index_update(tunnels_, index, static_cast<int32_t>(k_index), dir);
}

int TunnelPolicyEvents::kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t index) {
  return cpa::kestrix_notify_rp(rp_, tunnels_, acq, index);
}

}  // namespace cpa
