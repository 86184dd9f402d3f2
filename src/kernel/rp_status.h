// The one translation of a kernel or platform call's result (0, or a
// non-zero failure: a negative errno, or 1 from the calls not yet converted)
// into the status the RP is answered.
#pragma once

#include "wire/cp_dp_msg.h"

namespace cpa {

// CRYPTO_NO_ERR for 0, else `failure`: the status the request's handler
// answers for a refusal.
constexpr ce_status_t rp_status(int result, ce_status_t failure) {
  return result == 0 ? CRYPTO_NO_ERR : failure;
}

}  // namespace cpa
