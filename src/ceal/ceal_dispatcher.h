// CEAL requests: the envelope, the dispatch by api type and the response
// framing. Each api type has a body handler that fills its response.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/agent.h"
#include "wire/received_bytes.h"

namespace cpa {

inline constexpr size_t kCealBodyOffset = 6;  // first byte of `ceal_api`

// One api type's work. `response` arrives zero-filled at the type's fixed
// size; the handler fills it from kCealBodyOffset on (and may resize it,
// where the response size depends on the request). `msg` is the whole
// received datagram. Returns 0, or 1 when the request failed inside the
// agent: then nothing is sent and a failed command is counted.
using CealBodyHandler = int (*)(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);

int kestrix_pal_process_ceal_msg(Agent& agent, ReceivedBytes msg);

// Fills a response whose body is the request's 4-byte handle and a status:
// the handle bytes as they arrived (zero where none did), then `status`.
void ceal_answer_handle(ReceivedBytes msg, std::vector<uint8_t>& response, ce_status_t status);

// Writes the 6-byte CEAL response head (type, total length, api type).
int kestrix_ceal_build_response(uint16_t ceal_cmd_type, uint8_t* buf, uint16_t sendlen);

}  // namespace cpa
