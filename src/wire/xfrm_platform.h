// NETLINK_XFRM as the platform kernel speaks it: the message and attribute
// numbers the agent uses, the published XFRM structures it sends and reads,
// and the message bodies that the platform kernel lays out for a 64-bit
// kernel. The agent may be built for any word size while the kernel is
// 64-bit, so nothing here comes from <linux/xfrm.h> (whose 64-bit fields are
// aligned differently on a 32-bit build): every structure is packed, made of
// fixed-width fields, and pinned below. Host byte order unless a field says
// network order.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>

namespace cpa {

// ---- Numbers ----------------------------------------------------------------

enum xfrm_msg_type : uint16_t {
  XFRM_MSG_NEWSA = 16,
  XFRM_MSG_DELSA = 17,
  XFRM_MSG_GETSA = 18,
  XFRM_MSG_NEWPOLICY = 19,
  XFRM_MSG_DELPOLICY = 20,
  XFRM_MSG_GETPOLICY = 21,
  XFRM_MSG_ALLOCSPI = 22,
  XFRM_MSG_ACQUIRE = 23,
  XFRM_MSG_EXPIRE = 24,
  XFRM_MSG_UPDPOLICY = 25,
  XFRM_MSG_UPDSA = 26,
  XFRM_MSG_POLEXPIRE = 27,
  XFRM_MSG_FLUSHSA = 28,
  XFRM_MSG_FLUSHPOLICY = 29,
  XFRM_MSG_NEWAE = 30,
  XFRM_MSG_GETAE = 31,
  XFRM_MSG_REPORT = 32,
};

enum xfrm_attr_type : uint16_t {
  XFRMA_ALG_AUTH = 1,
  XFRMA_ALG_CRYPT = 2,
  XFRMA_TMPL = 5,
  XFRMA_POLICY_TYPE = 16,
  XFRMA_ALG_AEAD = 18,
  XFRMA_SVTI_IFINDEX = 34,  // the platform's own: u32 index of the tunnel's SVTI device
};

// Multicast group masks (bit n-1 for group n).
inline constexpr uint32_t kXfrmGroupAcquire = 1u << 0;  // XFRMNLGRP_ACQUIRE
inline constexpr uint32_t kXfrmGroupPolicy = 1u << 3;   // XFRMNLGRP_POLICY

inline constexpr uint16_t kNlmFlagsRequestAck = 5;  // NLM_F_REQUEST | NLM_F_ACK
inline constexpr uint8_t kXfrmPolicyIn = 0;
inline constexpr uint8_t kXfrmPolicyOut = 1;
inline constexpr uint8_t kXfrmPolicyFwd = 2;

// ---- Netlink framing --------------------------------------------------------

// nlmsghdr, nlmsgerr and rtattr are made of 16- and 32-bit fields only, so
// the system's definitions hold on every word size; pinned all the same.
static_assert(sizeof(nlmsghdr) == 16);
static_assert(offsetof(nlmsghdr, nlmsg_type) == 4);
static_assert(offsetof(nlmsghdr, nlmsg_flags) == 6);
static_assert(offsetof(nlmsghdr, nlmsg_seq) == 8);
static_assert(offsetof(nlmsghdr, nlmsg_pid) == 12);
static_assert(sizeof(nlmsgerr) == 20);
static_assert(offsetof(nlmsgerr, msg) == 4);
static_assert(sizeof(rtattr) == 4);
static_assert(offsetof(rtattr, rta_type) == 2);

// ---- Published XFRM structures ---------------------------------------------

union __attribute__((packed)) xfrm_address_t {
  uint32_t a4;  // IPv4, network order
  uint32_t a6[4];
};
static_assert(sizeof(xfrm_address_t) == 16);

struct __attribute__((packed)) xfrm_selector {
  xfrm_address_t daddr;  // network order
  xfrm_address_t saddr;  // network order
  uint16_t dport;        // network order
  uint16_t dport_mask;   // network order
  uint16_t sport;        // network order
  uint16_t sport_mask;   // network order
  uint16_t family;
  uint8_t prefixlen_d;
  uint8_t prefixlen_s;
  uint8_t proto;
  uint8_t pad[3];
  int32_t ifindex;
  uint32_t user;
};
static_assert(sizeof(xfrm_selector) == 56);
static_assert(offsetof(xfrm_selector, saddr) == 16);
static_assert(offsetof(xfrm_selector, dport) == 32);
static_assert(offsetof(xfrm_selector, dport_mask) == 34);
static_assert(offsetof(xfrm_selector, sport) == 36);
static_assert(offsetof(xfrm_selector, sport_mask) == 38);
static_assert(offsetof(xfrm_selector, family) == 40);
static_assert(offsetof(xfrm_selector, prefixlen_d) == 42);
static_assert(offsetof(xfrm_selector, prefixlen_s) == 43);
static_assert(offsetof(xfrm_selector, proto) == 44);
static_assert(offsetof(xfrm_selector, ifindex) == 48);
static_assert(offsetof(xfrm_selector, user) == 52);

struct __attribute__((packed)) xfrm_id {
  xfrm_address_t daddr;  // network order
  uint32_t spi;          // network order
  uint8_t proto;
  uint8_t pad[3];
};
static_assert(sizeof(xfrm_id) == 24);
static_assert(offsetof(xfrm_id, spi) == 16);
static_assert(offsetof(xfrm_id, proto) == 20);

struct __attribute__((packed)) xfrm_lifetime_cfg {
  uint64_t soft_byte_limit;
  uint64_t hard_byte_limit;
  uint64_t soft_packet_limit;
  uint64_t hard_packet_limit;
  uint64_t soft_add_expires_seconds;
  uint64_t hard_add_expires_seconds;
  uint64_t soft_use_expires_seconds;
  uint64_t hard_use_expires_seconds;
};
static_assert(sizeof(xfrm_lifetime_cfg) == 64);
static_assert(offsetof(xfrm_lifetime_cfg, hard_byte_limit) == 8);
static_assert(offsetof(xfrm_lifetime_cfg, soft_packet_limit) == 16);
static_assert(offsetof(xfrm_lifetime_cfg, hard_packet_limit) == 24);
static_assert(offsetof(xfrm_lifetime_cfg, soft_add_expires_seconds) == 32);
static_assert(offsetof(xfrm_lifetime_cfg, hard_add_expires_seconds) == 40);
static_assert(offsetof(xfrm_lifetime_cfg, soft_use_expires_seconds) == 48);
static_assert(offsetof(xfrm_lifetime_cfg, hard_use_expires_seconds) == 56);

inline constexpr uint64_t kXfrmInfinity = ~uint64_t{0};

struct __attribute__((packed)) xfrm_lifetime_cur {
  uint64_t bytes;
  uint64_t packets;
  uint64_t add_time;
  uint64_t use_time;
};
static_assert(sizeof(xfrm_lifetime_cur) == 32);
static_assert(offsetof(xfrm_lifetime_cur, packets) == 8);
static_assert(offsetof(xfrm_lifetime_cur, add_time) == 16);
static_assert(offsetof(xfrm_lifetime_cur, use_time) == 24);

struct __attribute__((packed)) xfrm_stats {
  uint32_t replay_window;
  uint32_t replay;
  uint32_t integrity_failed;
};
static_assert(sizeof(xfrm_stats) == 12);
static_assert(offsetof(xfrm_stats, replay) == 4);
static_assert(offsetof(xfrm_stats, integrity_failed) == 8);

struct __attribute__((packed)) xfrm_usersa_id {
  xfrm_address_t daddr;  // network order
  uint32_t spi;          // network order
  uint16_t family;
  uint8_t proto;
  uint8_t pad;
};
static_assert(sizeof(xfrm_usersa_id) == 24);
static_assert(offsetof(xfrm_usersa_id, spi) == 16);
static_assert(offsetof(xfrm_usersa_id, family) == 20);
static_assert(offsetof(xfrm_usersa_id, proto) == 22);

struct __attribute__((packed)) xfrm_userpolicy_id {
  xfrm_selector sel;
  uint32_t index;
  uint8_t dir;
  uint8_t pad[3];
};
static_assert(sizeof(xfrm_userpolicy_id) == 64);
static_assert(offsetof(xfrm_userpolicy_id, index) == 56);
static_assert(offsetof(xfrm_userpolicy_id, dir) == 60);

struct __attribute__((packed)) xfrm_user_tmpl {
  xfrm_id id;
  uint16_t family;
  uint8_t pad1[2];
  xfrm_address_t saddr;  // network order
  uint32_t reqid;
  uint8_t mode;
  uint8_t share;
  uint8_t optional;
  uint8_t pad2;
  uint32_t aalgos;
  uint32_t ealgos;
  uint32_t calgos;
};
static_assert(sizeof(xfrm_user_tmpl) == 64);
static_assert(offsetof(xfrm_user_tmpl, family) == 24);
static_assert(offsetof(xfrm_user_tmpl, saddr) == 28);
static_assert(offsetof(xfrm_user_tmpl, reqid) == 44);
static_assert(offsetof(xfrm_user_tmpl, mode) == 48);
static_assert(offsetof(xfrm_user_tmpl, share) == 49);
static_assert(offsetof(xfrm_user_tmpl, optional) == 50);
static_assert(offsetof(xfrm_user_tmpl, aalgos) == 52);
static_assert(offsetof(xfrm_user_tmpl, ealgos) == 56);
static_assert(offsetof(xfrm_user_tmpl, calgos) == 60);

// The key bytes follow these two headers.
struct __attribute__((packed)) xfrm_algo {
  char alg_name[64];
  uint32_t alg_key_len;  // bits
};
static_assert(sizeof(xfrm_algo) == 68);
static_assert(offsetof(xfrm_algo, alg_key_len) == 64);

struct __attribute__((packed)) xfrm_algo_aead {
  char alg_name[64];
  uint32_t alg_key_len;  // bits
  uint32_t alg_icv_len;  // bits
};
static_assert(sizeof(xfrm_algo_aead) == 72);
static_assert(offsetof(xfrm_algo_aead, alg_key_len) == 64);
static_assert(offsetof(xfrm_algo_aead, alg_icv_len) == 68);

// Body of an SA get or delete: the SA's id, then a source address that the
// agent always leaves zero.
struct __attribute__((packed)) xfrm_usersa_id_saddr {
  xfrm_usersa_id id;
  xfrm_address_t saddr;
};
static_assert(sizeof(xfrm_usersa_id_saddr) == 40);
static_assert(offsetof(xfrm_usersa_id_saddr, saddr) == 24);

// ---- The platform kernel's bodies ------------------------------------------

struct __attribute__((packed)) xfrm_usersa_info_64 {
  xfrm_selector sel;
  xfrm_id id;
  xfrm_address_t saddr;  // network order
  xfrm_lifetime_cfg lft;
  xfrm_lifetime_cur curlft;
  xfrm_stats stats;
  uint32_t oseq;
  uint32_t seq;
  uint32_t reqid;
  uint16_t family;
  uint8_t mode;  // 0 transport, 1 tunnel
  uint8_t replay_window;
  uint8_t flags;
  uint8_t hole1;
  uint8_t reserved[2];
};
static_assert(sizeof(xfrm_usersa_info_64) == 224);
static_assert(offsetof(xfrm_usersa_info_64, id) == 56);
static_assert(offsetof(xfrm_usersa_info_64, saddr) == 80);
static_assert(offsetof(xfrm_usersa_info_64, lft) == 96);
static_assert(offsetof(xfrm_usersa_info_64, curlft) == 160);
static_assert(offsetof(xfrm_usersa_info_64, stats) == 192);
static_assert(offsetof(xfrm_usersa_info_64, oseq) == 204);
static_assert(offsetof(xfrm_usersa_info_64, seq) == 208);
static_assert(offsetof(xfrm_usersa_info_64, reqid) == 212);
static_assert(offsetof(xfrm_usersa_info_64, family) == 216);
static_assert(offsetof(xfrm_usersa_info_64, mode) == 218);
static_assert(offsetof(xfrm_usersa_info_64, replay_window) == 219);
static_assert(offsetof(xfrm_usersa_info_64, flags) == 220);
static_assert(offsetof(xfrm_usersa_info_64, hole1) == 221);
static_assert(offsetof(xfrm_usersa_info_64, reserved) == 222);

struct __attribute__((packed)) xfrm_policy_stats_64 {
  uint64_t errors;
  uint64_t acquires;
  uint64_t exceptions;
};
static_assert(sizeof(xfrm_policy_stats_64) == 24);
static_assert(offsetof(xfrm_policy_stats_64, acquires) == 8);
static_assert(offsetof(xfrm_policy_stats_64, exceptions) == 16);

struct __attribute__((packed)) xfrm_userpolicy_info_64 {
  xfrm_selector sel;
  xfrm_lifetime_cfg lft;
  xfrm_lifetime_cur curlft;
  xfrm_policy_stats_64 stats;
  uint32_t priority;
  uint32_t index;
  uint8_t dir;     // 0 in, 1 out, 2 forward
  uint8_t action;  // 0 allow, 1 block
  uint8_t flags;
  uint8_t share;
  uint32_t hole;
};
static_assert(sizeof(xfrm_userpolicy_info_64) == 192);
static_assert(offsetof(xfrm_userpolicy_info_64, lft) == 56);
static_assert(offsetof(xfrm_userpolicy_info_64, curlft) == 120);
static_assert(offsetof(xfrm_userpolicy_info_64, stats) == 152);
static_assert(offsetof(xfrm_userpolicy_info_64, priority) == 176);
static_assert(offsetof(xfrm_userpolicy_info_64, index) == 180);
static_assert(offsetof(xfrm_userpolicy_info_64, dir) == 184);
static_assert(offsetof(xfrm_userpolicy_info_64, action) == 185);
static_assert(offsetof(xfrm_userpolicy_info_64, flags) == 186);
static_assert(offsetof(xfrm_userpolicy_info_64, share) == 187);
static_assert(offsetof(xfrm_userpolicy_info_64, hole) == 188);

struct __attribute__((packed)) xfrm_user_acquire_64 {
  xfrm_id id;
  xfrm_address_t saddr;  // network order
  xfrm_selector sel;
  xfrm_userpolicy_info_64 policy;
  uint32_t aalgos;
  uint32_t ealgos;
  uint32_t calgos;
  uint32_t seq;
};
static_assert(sizeof(xfrm_user_acquire_64) == 304);
static_assert(offsetof(xfrm_user_acquire_64, saddr) == 24);
static_assert(offsetof(xfrm_user_acquire_64, sel) == 40);
static_assert(offsetof(xfrm_user_acquire_64, policy) == 96);
static_assert(offsetof(xfrm_user_acquire_64, aalgos) == 288);
static_assert(offsetof(xfrm_user_acquire_64, ealgos) == 292);
static_assert(offsetof(xfrm_user_acquire_64, calgos) == 296);
static_assert(offsetof(xfrm_user_acquire_64, seq) == 300);

struct __attribute__((packed)) xfrm_user_polexpire_64 {
  xfrm_userpolicy_info_64 pol;
  uint8_t hard;
  uint8_t hole[7];
};
static_assert(sizeof(xfrm_user_polexpire_64) == 200);
static_assert(offsetof(xfrm_user_polexpire_64, hard) == 192);
static_assert(offsetof(xfrm_user_polexpire_64, hole) == 193);

}  // namespace cpa
