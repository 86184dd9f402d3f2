// Byte-order helpers for fields that cross the wire. 16- and 32-bit fields
// use the socket API's ntohs/ntohl; 64-bit fields use kestrix_bswap64.
#pragma once

#include <arpa/inet.h>

#include <cstdint>

namespace cpa {

// Non-zero when the host stores the 32-bit number 1 most significant byte first.
inline int am_big_endian() {
  const uint32_t one = 1;
  return *reinterpret_cast<const uint8_t*>(&one) == 0;
}

// Network <-> host order for 64-bit values; identity on a big-endian host.
inline uint64_t kestrix_bswap64(uint64_t val) {
  if (am_big_endian()) return val;
  return (static_cast<uint64_t>(ntohl(static_cast<uint32_t>(val))) << 32) |
         ntohl(static_cast<uint32_t>(val >> 32));
}

}  // namespace cpa
