// Framing and dispatch of request datagrams: the split by message type, the
// PAL dispatch table, the PAL response format and the outcome counting.
#pragma once

#include <array>
#include <cstdint>

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

using PalResponseBuffer = std::array<uint8_t, kPalMaxResponse>;

// Handles one received datagram. Returns the handler's result for PAL and
// CEAL messages, 0 for an unknown message type, 1 when nothing could be done.
int kestrix_pal_process_msg(Agent& agent, ReceivedBytes msg);

int kestrix_pal_process_pal_msg(Agent& agent, ReceivedBytes msg);

// Fills `buf` with the response datagram of `pal_cmd_type`; returns its length.
uint16_t kestrix_pal_build_response(uint16_t pal_cmd_type, PalResponseBuffer& buf,
                                    const kestrix_pal_resp_t& comd_resp);

}  // namespace cpa
