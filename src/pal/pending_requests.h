// PAL commands whose handling has not been built yet. They are traced,
// counted and answered CRYPTO_ERR_UNSUPPORTED in their own response shape.
#pragma once

#include "daemon/agent.h"
#include "pal/pal_request.h"

namespace cpa {

ce_status_t kestrix_proc_not_yet_supported(Agent& agent, const PalRequest& request);

}  // namespace cpa
