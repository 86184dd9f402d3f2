// The cipher record the SA tests share, in both kernel dialects.
#pragma once

#include <cstdint>

#include "state/cipher_record.h"

namespace cpa::test {

inline void set_key(kestrix_key_val_t& key, uint16_t len, uint8_t first) {
  key.len = len;
  for (uint16_t i = 0; i < len; ++i) key.data[i] = static_cast<uint8_t>(first + i);
}

// ESP with AES-CBC (16-byte key) and HMAC-SHA1 (20-byte key), tunnel mode.
// Cipher records are list nodes (not copyable): tests fill them in place.
inline kestrix_ce_cipher_list_t& aes_sha1(kestrix_ce_cipher_list_t& r) {
  r.ce_cipher.esp_used = 1;
  r.ce_cipher.esp_cipher = KESTRIX_CE_AES;
  r.ce_cipher.esp_mac = KESTRIX_CE_HMAC_SHA1;
  r.ce_cipher.esp_spi = 0x1234abcd;
  r.ce_cipher.source.ip_address = 0x0a000001;
  r.ce_cipher.dest.ip_address = 0x0a000002;
  r.ce_cipher.mode = CE_TUNNEL;
  r.ce_cipher.antireplay_window_size = 64;
  r.ce_cipher.soft_time_lifetime = 3000;
  r.ce_cipher.hard_time_lifetime = 3600;
  r.ce_cipher.soft_volume_lifetime = 777;  // never sent
  set_key(r.esp_key_info, 16, 0x10);
  set_key(r.esp_mac_key_info, 20, 0x40);
  return r;
}

}  // namespace cpa::test
