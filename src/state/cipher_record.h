// A cipher record: the parameters and keys of one IPsec SA as the RP
// delivered them, in host order, waiting to be installed in the kernel.
// It is owned by exactly one place at a time: `cipher_info_list` while it
// waits, then the SA that claimed it (unlink_node hands it over).
#pragma once

#include <string.h>

#include <cstddef>
#include <cstdint>

#include "state/object_lists.h"
#include "wire/cipher_info.h"

namespace cpa {

inline constexpr uint16_t kMaxKeyBytes = 256;

// At most this many records wait for their SA. A tunnel waits for two at a
// time (the inbound and outbound keys of one rekey), so four per tunnel lets
// all 4095 tunnels rekey twice over before a single SA claims its keys, while
// the full list stays near 17 MiB.
inline constexpr size_t kMaxWaitingCipherRecords = 4 * 4095;
// A record no SA claimed for this long is released: the RP inserts the SA
// right after its keys, so an SA this late is not coming.
inline constexpr int64_t kUnclaimedCipherSeconds = 10 * 60;

// One stored key: `type` is the key's TLV type (0 when absent), `len` the
// number of key bytes at the start of `data`. Its bytes are wiped when it
// goes, so that freed memory and core images hold no key.
struct kestrix_key_val_t {
  kestrix_key_val_t() = default;
  kestrix_key_val_t(const kestrix_key_val_t&) = default;
  kestrix_key_val_t& operator=(const kestrix_key_val_t&) = default;
  ~kestrix_key_val_t() { explicit_bzero(data, sizeof data); }

  uint16_t type = 0;
  uint16_t len = 0;
  uint8_t data[kMaxKeyBytes] = {};
};

struct cpa_cipher_info_list_ : ListNode<cpa_cipher_info_list_> {
  int32_t ipsec_index = 0;  // the CEAL flow id ("ceid")
  uint32_t ipsec_sa = 0;    // the RP's SA handle; an action's `sa` claims it
  int64_t waiting_since = 0;  // monotonic seconds when it joined the list
  kestrix_ce_cipher_info ce_cipher{};
  kestrix_key_val_t esp_key_info;
  kestrix_key_val_t esp_mac_key_info;
  kestrix_key_val_t ah_key_info;
};
using kestrix_ce_cipher_list_t = cpa_cipher_info_list_;
using CipherList = ObjectList<kestrix_ce_cipher_list_t>;

inline int insert_node_cipher_info(CipherList& head, std::unique_ptr<kestrix_ce_cipher_list_t> node) {
  return head.insert_node(std::move(node));
}

}  // namespace cpa
