// CEAL requests: the envelope, the dispatch by api type and the response
// framing. Key material, statistics and flow deletion are not built yet:
// each api type is answered in its response shape with CRYPTO_ERR_UNSUPPORTED
// where that shape has a status field.
#pragma once

#include <cstdint>

#include "daemon/agent.h"
#include "wire/received_bytes.h"

namespace cpa {

int kestrix_pal_process_ceal_msg(Agent& agent, ReceivedBytes msg);

// Writes the 6-byte CEAL response head (type, total length, api type).
int kestrix_ceal_build_response(uint16_t ceal_cmd_type, uint8_t* buf, uint16_t sendlen);

}  // namespace cpa
