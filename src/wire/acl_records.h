// The typed record stream that follows the fixed part of ACL modify, SPI
// insert and crypto flow requests: access-control entries (ACEs) and packet
// actions. Every multi-byte field is big-endian on the wire; the agent's
// records hold the same layouts after conversion to host order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpa {

// Kind of a record in the stream.
enum kestrix_acl_type : uint16_t {
  KESTRIX_PAL_ACE_ACL_DESC = 1,
  KESTRIX_PAL_ACE_ACE_DESC = 2,
  KESTRIX_PAL_ACE_DEL_ACE_DESC = 3,
  KESTRIX_PAL_ACE_DECR_ACL_IN_ACTION = 4,
  KESTRIX_PAL_ACE_DECR_ACL_OUT_ACTION = 5,
  KESTRIX_PAL_ACE_DECR_ACL_IN_DENY_ACTION = 6,
  KESTRIX_PAL_ACE_DECR_ACL_OUT_DENY_ACTION = 7,
  KESTRIX_PAL_IN_ACTION = 8,
  KESTRIX_PAL_OUT_ACTION = 9,
  KESTRIX_PAL_IN_DENY_ACTION = 10,
  KESTRIX_PAL_OUT_DENY_ACTION = 11,
};

// Header of one stream element; the body follows it directly.
struct __attribute__((packed)) kestrix_acl_actions {
  uint16_t kestrix_acl_type;  // a kestrix_acl_type
  uint16_t length;            // not trusted: bodies have fixed sizes
};
static_assert(sizeof(kestrix_acl_actions) == 4);
static_assert(offsetof(kestrix_acl_actions, length) == 2);

// ---- ACE ------------------------------------------------------------------

enum crypto_ace_ip_type : uint32_t {
  crypto_ace_dummy_entry = 0,
  crypto_ace_ipv4 = 4,
  crypto_ace_ipv6 = 6,
};

enum : uint32_t {
  kestrix_ace_permit = 0,
  kestrix_ace_deny_jump = 1,
  kestrix_ace_deny_action = 2,
  kestrix_ace_no_match = 3,
  kestrix_ace_need_reassembly = 4,
  kestrix__ace_discard = 5,
};

inline constexpr int kAcePortCapacity = 10;

struct __attribute__((packed)) kestrix_crypto_ace_port {
  uint32_t type;
  uint8_t num_port;  // valid entries of `port`
  uint16_t port[kAcePortCapacity];
};
static_assert(sizeof(kestrix_crypto_ace_port) == 25);
static_assert(offsetof(kestrix_crypto_ace_port, num_port) == 4);
static_assert(offsetof(kestrix_crypto_ace_port, port) == 5);

struct __attribute__((packed)) kestrix_crypto_ace_ipv4 {
  uint32_t local_addr;
  uint32_t local_mask;  // prefix length
  uint32_t remote_addr;
  uint32_t remote_mask;  // prefix length
  uint16_t protocol;
  uint16_t gap;
  uint32_t any_port;
  kestrix_crypto_ace_port local_port;
  kestrix_crypto_ace_port remote_port;
};
static_assert(sizeof(kestrix_crypto_ace_ipv4) == 74);  // the union pads it to 100
static_assert(offsetof(kestrix_crypto_ace_ipv4, local_mask) == 4);
static_assert(offsetof(kestrix_crypto_ace_ipv4, remote_addr) == 8);
static_assert(offsetof(kestrix_crypto_ace_ipv4, remote_mask) == 12);
static_assert(offsetof(kestrix_crypto_ace_ipv4, protocol) == 16);
static_assert(offsetof(kestrix_crypto_ace_ipv4, any_port) == 20);
static_assert(offsetof(kestrix_crypto_ace_ipv4, local_port) == 24);
static_assert(offsetof(kestrix_crypto_ace_ipv4, remote_port) == 49);

struct __attribute__((packed)) kestrix_crypto_ace_ipv6 {
  uint8_t local_addr[16];
  uint32_t local_mask;
  uint8_t remote_addr[16];
  uint32_t remote_mask;
  uint16_t protocol;
  uint16_t gap;
  uint32_t any_port;
  kestrix_crypto_ace_port local_port;
  kestrix_crypto_ace_port remote_port;
  uint16_t tail_gap;
};
static_assert(sizeof(kestrix_crypto_ace_ipv6) == 100);
static_assert(offsetof(kestrix_crypto_ace_ipv6, local_mask) == 16);
static_assert(offsetof(kestrix_crypto_ace_ipv6, remote_addr) == 20);
static_assert(offsetof(kestrix_crypto_ace_ipv6, remote_mask) == 36);
static_assert(offsetof(kestrix_crypto_ace_ipv6, protocol) == 40);
static_assert(offsetof(kestrix_crypto_ace_ipv6, any_port) == 44);
static_assert(offsetof(kestrix_crypto_ace_ipv6, local_port) == 48);
static_assert(offsetof(kestrix_crypto_ace_ipv6, remote_port) == 73);
static_assert(offsetof(kestrix_crypto_ace_ipv6, tail_gap) == 98);

union __attribute__((packed)) kestrix_crypto_ace_selector {
  kestrix_crypto_ace_ipv4 ipv4;
  kestrix_crypto_ace_ipv6 ipv6;
};
static_assert(sizeof(kestrix_crypto_ace_selector) == 100);

struct __attribute__((packed)) kestrix_crypto_ace {
  uint32_t ip_type;  // crypto_ace_ip_type
  uint32_t type;     // kestrix_ace_permit ...
  uint16_t seqno;
  uint32_t reverse;
  uint32_t handle;  // the RP's identity of the ACE
  kestrix_crypto_ace_selector selector;
  uint32_t hint;
};
static_assert(sizeof(kestrix_crypto_ace) == 122);
static_assert(offsetof(kestrix_crypto_ace, type) == 4);
static_assert(offsetof(kestrix_crypto_ace, seqno) == 8);
static_assert(offsetof(kestrix_crypto_ace, reverse) == 10);
static_assert(offsetof(kestrix_crypto_ace, handle) == 14);
static_assert(offsetof(kestrix_crypto_ace, selector) == 18);
static_assert(offsetof(kestrix_crypto_ace, hint) == 118);

// ---- packet action --------------------------------------------------------

enum : uint32_t {
  CDH_ACTION_DISCARD_PACKET = 0,
  CDH_ACTION_DISCARD_PACKET_NOTIFY_RP = 1,
  CDH_ACTION_FORWARD_PACKET = 2,
  CDH_ACTION_DECRYPT_PACKET = 3,
  CDH_ACTION_ENCRYPT_PACKET = 4,
};

struct __attribute__((packed)) kestrix_cdh_encrypt_data {
  uint32_t sa;
  uint16_t post_encrypt_fvrf;
  uint16_t gap;
  uint32_t dummy_generate;
};
static_assert(sizeof(kestrix_cdh_encrypt_data) == 12);
static_assert(offsetof(kestrix_cdh_encrypt_data, post_encrypt_fvrf) == 4);
static_assert(offsetof(kestrix_cdh_encrypt_data, dummy_generate) == 8);

struct __attribute__((packed)) kestrix_cdh_decrypt_data {
  uint32_t sa;
  uint64_t post_decrypt_check;
  uint16_t post_decrypt_ivrf;
  uint16_t gap;
  uint32_t reinject;
  uint32_t tunnel_id;
};
static_assert(sizeof(kestrix_cdh_decrypt_data) == 24);
static_assert(offsetof(kestrix_cdh_decrypt_data, post_decrypt_check) == 4);
static_assert(offsetof(kestrix_cdh_decrypt_data, post_decrypt_ivrf) == 12);
static_assert(offsetof(kestrix_cdh_decrypt_data, reinject) == 16);
static_assert(offsetof(kestrix_cdh_decrypt_data, tunnel_id) == 20);

union __attribute__((packed)) kestrix_cdh_action_data {
  uint32_t notify_rp_handle;
  kestrix_cdh_encrypt_data encrypt;
  kestrix_cdh_decrypt_data decrypt;
  uint8_t raw[24];
};
static_assert(sizeof(kestrix_cdh_action_data) == 24);

struct __attribute__((packed)) kestrix_cdh_action {
  uint32_t action;  // CDH_ACTION_...
  kestrix_cdh_action_data data;
};
static_assert(sizeof(kestrix_cdh_action) == 28);
static_assert(offsetof(kestrix_cdh_action, data) == 4);

// Walkers advance by these sizes whatever the header's `length` says.
inline constexpr size_t kAceRecordSize = sizeof(kestrix_acl_actions) + sizeof(kestrix_crypto_ace);
inline constexpr size_t kActionRecordSize =
    sizeof(kestrix_acl_actions) + sizeof(kestrix_cdh_action);
static_assert(kAceRecordSize == 126);
static_assert(kActionRecordSize == 32);

// ---- ACL modify opcode ----------------------------------------------------

enum crypto_map_update_action : uint32_t {
  kestrix_append_ace = 0,
  kestrix_insert_ace = 1,
  kestrix_insert_all = 2,
  kestrix_remove_ace = 3,
  kestrix_remove_all = 4,
  kestrix_replace = 5,
};

}  // namespace cpa
