// The algorithm attributes of an SA add. Both kernels take the same
// attributes; only the header structs come from each one's own definitions.
#pragma once

#include <string.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "netlink/nl_message.h"
#include "kernel/xfrm_algorithms.h"
#include "state/cipher_record.h"
#include "wire/cipher_info.h"

namespace cpa {

inline constexpr uint32_t kAeadIcvBits = 128;

// The key bytes a record holds; its length never reaches past the key store.
inline size_t key_bytes(const kestrix_key_val_t& key) {
  return std::min<size_t>(key.len, kMaxKeyBytes);
}

// Appends an algorithm attribute: the header `Algo` named `name` with the
// key's length in bits (and `icv_bits` for AEAD), followed by the key bytes.
template <class Algo>
void append_algo(NlMessage& msg, uint16_t atype, const char* name, const kestrix_key_val_t& key,
                 uint32_t icv_bits = 0) {
  uint8_t payload[sizeof(Algo) + kMaxKeyBytes] = {};
  Algo header{};
  std::memcpy(header.alg_name, name, std::min(std::strlen(name), sizeof header.alg_name));
  header.alg_key_len = static_cast<uint32_t>(key_bytes(key) * 8);
  if constexpr (requires { header.alg_icv_len; }) header.alg_icv_len = icv_bits;
  std::memcpy(payload, &header, sizeof header);
  std::memcpy(payload + sizeof header, key.data, key_bytes(key));
  msg.put_attr(atype, payload, sizeof header + key_bytes(key));
  explicit_bzero(payload, sizeof payload);
}

// ESP's cipher (and MAC, when it has one), then AH's MAC; false when a code
// has no kernel name. `Algo` and `Aead` are the kernel's algorithm headers.
template <class Algo, class Aead>
bool append_algorithms(NlMessage& msg, const kestrix_ce_cipher_list_t& sa_info,
                       uint16_t attr_auth, uint16_t attr_crypt, uint16_t attr_aead) {
  const kestrix_ce_cipher_info& ci = sa_info.ce_cipher;
  const auto auth = [&](uint32_t mac, const kestrix_key_val_t& key) {
    const char* name = kestrix_auth_algo_name(mac);
    if (name) append_algo<Algo>(msg, attr_auth, name, key);
    return name != nullptr;
  };
  if (ci.esp_used) {
    const char* name = kestrix_enc_algo_name(ci.esp_cipher);
    if (!name) return false;
    if (ci.esp_cipher == KESTRIX_CE_GCM || ci.esp_cipher == KESTRIX_CE_GMAC)
      append_algo<Aead>(msg, attr_aead, name, sa_info.esp_key_info, kAeadIcvBits);
    else
      append_algo<Algo>(msg, attr_crypt, name, sa_info.esp_key_info);
    if (ci.esp_mac && !auth(ci.esp_mac, sa_info.esp_mac_key_info)) return false;
  }
  return !ci.ah_used || auth(ci.ah_mac, sa_info.ah_key_info);
}

}  // namespace cpa
