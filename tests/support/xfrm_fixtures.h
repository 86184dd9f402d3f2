// The kernel message inputs the SA and policy tests share: a cipher record
// and an outbound policy with every field set.
#pragma once

#include <cstdint>

#include "kernel/kernel_dialect.h"
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

// An outbound UDP policy in tunnel mode with AH, every field set.
inline XfrmPolicyArgs outbound_ace() {
  XfrmPolicyArgs p;
  p.src = 0x0a000001;  // 10.0.0.1
  p.smask = 0x118;     // only the low byte, 24, counts
  p.dst = 0xc0a80102;  // 192.168.1.2
  p.dmask = 32;
  p.sport = 500;
  p.dport = 4500;
  p.dir = 1;
  p.proto = 17;
  p.action = 1;
  p.tunnelid = 7;
  p.reqid = 3;
  p.tun_mode = 1;
  p.sec_protocol = 51;
  return p;
}

}  // namespace cpa::test
