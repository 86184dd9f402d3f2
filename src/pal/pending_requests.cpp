#include "pal/pending_requests.h"

#include <arpa/inet.h>

namespace cpa {

ce_status_t kestrix_proc_not_yet_supported(Agent& agent, const PalRequest& request) {
  const auto head = request.body.read_padded<kestrix_pal_sadb_handles_req>(0);
  const uint32_t callback = ntohl(head->callback_handle);
  agent.trace.pal_cmd_print(request.cmd, callback, 0, 0, 0);
  const ce_status_t status = CRYPTO_ERR_UNSUPPORTED;
  agent.trace.pal_cmd_print(request.cmd, callback, 0, 1, status);
  return status;
}

}  // namespace cpa
