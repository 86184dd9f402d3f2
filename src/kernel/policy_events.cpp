#include "kernel/policy_events.h"

#include "diag/log.h"

namespace cpa {

int PolicylessTunnels::kestrix_policy_index_update(uint32_t index, uint32_t k_index, uint8_t dir) {
  if (!tunnels_.at(index))
    cpa_log(LOG_ERR, "no ace found for dir %d, index 0x%x", dir, k_index);
  else
    cpa_log(LOG_ERR, "no policy found for dir %d, index 0x%x", dir, k_index);
  return 1;
}

int PolicylessTunnels::kestrix_notify_rp(const xfrm_user_acquire_64* acq, uint32_t) {
  if (!acq) {
    cpa_log(LOG_DEBUG, "Null acp");
    return 1;
  }
  cpa_log(LOG_ERR, "outbound action not found for notify rp");
  return 1;
}

}  // namespace cpa
