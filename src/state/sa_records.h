// A tunnel's inbound and outbound SAs, in host byte order. An SA owns the
// cipher record it claimed; releasing the SA releases the record with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "state/cipher_record.h"
#include "state/object_lists.h"
#include "wire/acl_records.h"
#include "wire/cp_dp_msg.h"

namespace cpa {

// At most this many SAs per direction per tunnel. Around a rekey a tunnel
// holds the old and the new SA until the RP deletes the old one, so 64
// leaves room for dozens of rekeys whose deletes are late.
inline constexpr size_t kMaxSasPerDirection = 64;

// One decrypting SA, built by an SPI insert.
struct cpa_inbound_sa_s : ListNode<cpa_inbound_sa_s> {
  uint32_t spi = 0;
  uint8_t protocol = 0;
  kestrix_addr dest_addr{};
  kestrix_addr src_addr{};
  uint32_t sa = 0;  // the flow id: the decrypt action's `sa`
  uint32_t src_mask = 0;
  uint32_t dest_mask = 0;
  uint32_t static_seqno = 0;
  uint32_t dyn_seq_no = 0;
  uint16_t fvrf = 0;
  uint32_t ace_index = 0;
  kestrix_cdh_action action{};
  std::unique_ptr<kestrix_ce_cipher_list_t> sa_info;
};
using cpa_inbound_sa_t = cpa_inbound_sa_s;
using InboundSaList = ObjectList<cpa_inbound_sa_t>;

// One encrypting SA, built by a crypto flow insert or modify.
struct cpa_outbound_sa_s : ListNode<cpa_outbound_sa_s> {
  uint64_t sa = 0;  // the flow id: the encrypt action's `sa`, zero-extended
  uint32_t spi = 0;
  uint8_t protocol = 0;  // 50 ESP or 51 AH, from the cipher record
  kestrix_addr dest_addr{};
  kestrix_addr src_addr{};
  uint32_t static_seq_no = 0;
  uint32_t dyn_seqno = 0;
  uint32_t ace_index = 0;
  uint16_t ivrf = 0;
  kestrix_cdh_action inbound{};
  kestrix_cdh_action outbound{};
  std::unique_ptr<kestrix_ce_cipher_list_t> sa_info;
};
using cpa_outbound_sa_t = cpa_outbound_sa_s;
using OutboundSaList = ObjectList<cpa_outbound_sa_t>;

// All return 0 on success and 1 on failure (null node, empty list, node not
// in the list); a deleted SA is released with its cipher record.
inline int insert_node_inb_sa(InboundSaList& head, std::unique_ptr<cpa_inbound_sa_t> node) {
  return head.insert_node(std::move(node));
}
inline int insert_node_out_sa(OutboundSaList& head, std::unique_ptr<cpa_outbound_sa_t> node) {
  return head.insert_node(std::move(node));
}
inline int delete_node_in_sa(InboundSaList& head, const cpa_inbound_sa_t* node) {
  return head.unlink_node(node) ? 0 : 1;
}
inline int delete_node_out_sa(OutboundSaList& head, const cpa_outbound_sa_t* node) {
  return head.unlink_node(node) ? 0 : 1;
}

}  // namespace cpa
