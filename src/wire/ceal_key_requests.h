// The CEAL request bodies of key material and flow deletion, placed right
// after the api type. Handles are opaque: they go back to the RP unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/cipher_info.h"

namespace cpa {

// The CEAL command (api type and its largest body) is this long; what a
// CREATE_KEY_BY_KEYS request carries beyond it is its key area.
inline constexpr uint16_t kCealCommandSize = 277;
inline constexpr size_t kCealKeyAreaOffset = 4 + kCealCommandSize;

struct __attribute__((packed)) kestrix_ce_key_create_keys_req {
  uint8_t callback_handle[4];  // opaque
  int32_t ipsec_index;         // big-endian; the CEAL flow id
  uint32_t ipsec_sa;           // big-endian; the SA handle that claims the keys
  kestrix_ce_cipher_info ce_cipher;
};
static_assert(sizeof(kestrix_ce_key_create_keys_req) == 275);
static_assert(offsetof(kestrix_ce_key_create_keys_req, ipsec_index) == 4);
static_assert(offsetof(kestrix_ce_key_create_keys_req, ipsec_sa) == 8);
static_assert(offsetof(kestrix_ce_key_create_keys_req, ce_cipher) == 12);
static_assert(2 + sizeof(kestrix_ce_key_create_keys_req) == kCealCommandSize);

// One key of the key area; `len` key bytes follow it.
struct __attribute__((packed)) kestrix_tlv_msg {
  uint16_t type;  // big-endian
  uint16_t len;   // big-endian
};
static_assert(sizeof(kestrix_tlv_msg) == 4);
static_assert(offsetof(kestrix_tlv_msg, len) == 2);

enum kestrix_ce_cipher_info_type : uint16_t {
  KESTRIX_CE_CIPHER_INFO_TYPE_ESP_KEY = 1,
  KESTRIX_CE_CIPHER_INFO_TYPE_ESP_MAC = 2,
  KESTRIX_CE_CIPHER_INFO_TYPE_AH = 3,
};

struct __attribute__((packed)) kestrix_delete_flow_req {
  uint8_t request_handle[4];  // opaque
  uint32_t flow_id;           // big-endian
  uint8_t stats_hdle_struct[4];
};
static_assert(sizeof(kestrix_delete_flow_req) == 12);
static_assert(offsetof(kestrix_delete_flow_req, flow_id) == 4);

}  // namespace cpa
