// One received PAL request as the handlers see it: the command (from
// `pal_api_type` on), its body, and the header's message_length, all bounded
// by the bytes that actually arrived.
#pragma once

#include <cstdint>

#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

struct PalRequest {
  uint16_t cmd;             // host order
  uint16_t message_length;  // host order, as the header says (not trusted)
  ReceivedBytes command;    // from `pal_api_type`
  ReceivedBytes body;       // from the first body byte
};

}  // namespace cpa
