// The datagram header shared by every message between the RP and the agent,
// the status codes carried in responses, and the address type of requests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpa {

enum msg_type_t : uint16_t { MSG_PAL = 0, MSG_CEAL = 1, MSG_IKE = 2, MSG_KEEP_ALIVE = 3 };

struct __attribute__((packed)) kestrix_cp_dp_msg_t {
  uint16_t message_type;    // big-endian
  uint16_t message_length;  // big-endian; request: bytes after the header, response: total
};
static_assert(sizeof(kestrix_cp_dp_msg_t) == 4);
static_assert(offsetof(kestrix_cp_dp_msg_t, message_length) == 2);

enum ce_status_t : uint32_t {
  CRYPTO_ERR_INTERNAL = 0,
  CRYPTO_NO_ERR = 1,
  CRYPTO_ERR_UNSUPPORTED = 2,
  CRYPTO_ERR_RESOURCES = 3,
  CRYPTO_ERR_TIMEOUT = 4,
  CRYPTO_ERR_BUFFER_OVERFLOW = 5,
  CRYPTO_ERR_NO_SESSION = 6,
  CRYPTO_ERR_BUSY = 7,
  CRYPTO_ERR_INVALID = 8,
  CRYPTO_ERR_WEAK_KEY = 9,
  CRYPTO_ERR_BOGUS_SPI = 10,
  CRYPTO_ERR_REPLAY = 11,
  CRYPTO_ERR_AUTH_FAILED = 12,
  CRYPTO_ERR_VERIFY_FAILED = 13,
  CRYPTO_ERR_NO_SUCH_KEY = 14,
  CRYPTO_ERR_HARDWARE_ERROR = 15,
  CRYPTO_ERR_STANDBY = 16,
  CRYPTO_ERR_NAME_NOT_FOUND = 17,
  CRYPTO_ERR_TFC_PACKET = 18,
  CRYPTO_ERR_SEQ_NUMBER_WRAPPED = 19,
  CRYPTO_ERR_BAD_KEY_LENGTH = 20,
};

// A tunnel's handle: its table slot, big-endian on the wire, host order inside.
using cdh_sadbhandle = uint32_t;

struct __attribute__((packed)) kestrix_addr {
  uint8_t type;
  uint8_t length;
  union __attribute__((packed)) {
    uint32_t ip_address;  // IPv4, first 4 bytes
    uint8_t ipv6_address[16];
  };
};
static_assert(sizeof(kestrix_addr) == 18);
static_assert(offsetof(kestrix_addr, ip_address) == 2);

}  // namespace cpa
