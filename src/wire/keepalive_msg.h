// The keepalive datagram exchanged with the RP on its own UDP port.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/cp_dp_msg.h"

namespace cpa {

struct __attribute__((packed)) kestrix_hello_payload {
  uint16_t keepalive_interval;
  uint16_t keepalive_retries;
  uint32_t palIp;
  uint32_t ikeIp;
  char hostId[12];
};
static_assert(sizeof(kestrix_hello_payload) == 24);
static_assert(offsetof(kestrix_hello_payload, palIp) == 4);
static_assert(offsetof(kestrix_hello_payload, ikeIp) == 8);
static_assert(offsetof(kestrix_hello_payload, hostId) == 12);

struct __attribute__((packed)) kestrix_keepalive_msg {
  kestrix_cp_dp_msg_t header;
  kestrix_hello_payload payload;
};
static_assert(sizeof(kestrix_keepalive_msg) == 28);
static_assert(offsetof(kestrix_keepalive_msg, payload) == 4);

}  // namespace cpa
