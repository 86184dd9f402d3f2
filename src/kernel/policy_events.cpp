#include "kernel/policy_events.h"

#include "diag/log.h"
#include "pal/acl_policy.h"

namespace cpa {

int TunnelPolicyEvents::kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) {
  return cpa::kestrix_policy_index_update(tunnels_, index, static_cast<int32_t>(k_index), dir);
}

int TunnelPolicyEvents::kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t) {
  if (!acq) {
    cpa_log(LOG_DEBUG, "Null acp");
    return 1;
  }
  cpa_log(LOG_ERR, "outbound action not found for notify rp");
  return 1;
}

}  // namespace cpa
