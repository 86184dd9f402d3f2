// The cipher information block of a key request: the parameters of one IPsec
// SA as the RP describes it. On the wire every multi-byte field is
// big-endian; the agent's cipher records hold the same block in host order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/cp_dp_msg.h"

namespace cpa {

enum kestrix_ce_cipher : uint32_t {
  KESTRIX_CE_NO_CIPHER = 0,
  KESTRIX_CE_DES = 1,
  KESTRIX_CE_3DES = 2,
  KESTRIX_CE_AES = 3,
  KESTRIX_CE_SEAL = 4,
  KESTRIX_CE_GCM = 5,
  KESTRIX_CE_GMAC = 6,
  KESTRIX_CE_MAX_CIPHER = 7,
};

enum kestrix_ce_mac : uint32_t {
  KESTRIX_CE_NO_MAC = 0,
  KESTRIX_CE_HMAC_MD5 = 1,
  KESTRIX_CE_HMAC_SHA1 = 2,
  KESTRIX_CE_HMAC_SHA256 = 3,
  KESTRIX_CE_HMAC_SHA384 = 4,
  KESTRIX_CE_HMAC_SHA512 = 5,
};

enum kestrix_ce_compression : uint32_t { CE_NO_COMPRESS = 0, CE_LZS = 1 };
enum kestrix_ce_mode : uint32_t { CE_TRANSPORT = 0, CE_TUNNEL = 1 };
enum kestrix_ce_format : uint32_t { CE_IPv4 = 0, CE_IPv6 = 1, CE_either = 2 };
enum crypto_prefragmentation : uint32_t {
  crypto_prefragmentation_default = 0,
  crypto_prefragmentation_enable = 1,
  crypto_prefragmentation_disable = 2,
};

// An antireplay_window_size of this value turns the replay window off.
inline constexpr uint32_t kAntiReplayDisabled = 0xFFFFFFFF;

struct __attribute__((packed)) kestrix_timebased_replay_check_t {
  uint32_t replay_enabled;
  uint32_t tunnel_mode;
};
static_assert(sizeof(kestrix_timebased_replay_check_t) == 8);

struct __attribute__((packed)) kestrix_ce_cipher_info {
  uint32_t outbound;  // non-zero: encrypt SA; 0: decrypt SA
  uint32_t esp_used;
  uint32_t esp_cipher;             // kestrix_ce_cipher
  uint32_t esp_cipher_key_length;  // bits
  uint32_t esp_mac;                // kestrix_ce_mac; 0: no ESP authentication
  uint32_t esp_spi;
  uint32_t ah_used;
  uint32_t ah_mac;  // kestrix_ce_mac
  uint32_t ah_spi;
  uint32_t ippcp_used;  // kestrix_ce_compression
  uint16_t cpi;
  uint32_t antireplay_window_size;
  kestrix_addr source;
  kestrix_addr dest;
  uint32_t preserve_header;
  uint32_t tunnel_id;
  uint32_t mode;  // kestrix_ce_mode
  uint32_t inner_format;
  uint32_t outer_format;
  uint32_t ipv4_df_setting;
  uint32_t ipv6_flow_label;
  uint32_t do_antireplay_check;
  uint32_t extended_sequence_number;
  kestrix_timebased_replay_check_t kestrix_timebased_replay_check;
  uint32_t ipsec_inline_tagging_enabled;
  uint32_t udp_encaps;
  uint16_t udp_source_port;
  uint16_t udp_dest_port;
  kestrix_addr orig_remote_ip_addr;
  uint32_t ctcp_encaps;
  uint32_t standby;
  uint32_t peer_handle;
  uint64_t soft_time_lifetime;  // seconds
  uint64_t hard_time_lifetime;  // seconds
  uint64_t soft_volume_lifetime;
  uint64_t hard_volume_lifetime;
  uint64_t negotiated_lifetime;
  uint32_t sa_handle;
  uint32_t prefrag_setting;  // crypto_prefragmentation
  uint16_t initial_mtu;
  uint16_t plaintext_mtu;
  uint32_t cmd_handle;
  uint16_t qos_group;
  uint8_t qos_preclassify;
  uint32_t HA_ipsec_update_interval;
  uint64_t gcm_iv_low_value;
  uint64_t gcm_iv_high_value;
  uint64_t gcm_iv_warning_count;
  uint32_t transform_negotiated_flags;
  uint32_t support_dummy_packet;
};
static_assert(sizeof(kestrix_ce_cipher_info) == 263);
static_assert(offsetof(kestrix_ce_cipher_info, esp_used) == 4);
static_assert(offsetof(kestrix_ce_cipher_info, esp_cipher) == 8);
static_assert(offsetof(kestrix_ce_cipher_info, esp_cipher_key_length) == 12);
static_assert(offsetof(kestrix_ce_cipher_info, esp_mac) == 16);
static_assert(offsetof(kestrix_ce_cipher_info, esp_spi) == 20);
static_assert(offsetof(kestrix_ce_cipher_info, ah_used) == 24);
static_assert(offsetof(kestrix_ce_cipher_info, ah_mac) == 28);
static_assert(offsetof(kestrix_ce_cipher_info, ah_spi) == 32);
static_assert(offsetof(kestrix_ce_cipher_info, ippcp_used) == 36);
static_assert(offsetof(kestrix_ce_cipher_info, cpi) == 40);
static_assert(offsetof(kestrix_ce_cipher_info, antireplay_window_size) == 42);
static_assert(offsetof(kestrix_ce_cipher_info, source) == 46);
static_assert(offsetof(kestrix_ce_cipher_info, source.ip_address) == 48);
static_assert(offsetof(kestrix_ce_cipher_info, dest) == 64);
static_assert(offsetof(kestrix_ce_cipher_info, dest.ip_address) == 66);
static_assert(offsetof(kestrix_ce_cipher_info, preserve_header) == 82);
static_assert(offsetof(kestrix_ce_cipher_info, tunnel_id) == 86);
static_assert(offsetof(kestrix_ce_cipher_info, mode) == 90);
static_assert(offsetof(kestrix_ce_cipher_info, inner_format) == 94);
static_assert(offsetof(kestrix_ce_cipher_info, outer_format) == 98);
static_assert(offsetof(kestrix_ce_cipher_info, ipv4_df_setting) == 102);
static_assert(offsetof(kestrix_ce_cipher_info, ipv6_flow_label) == 106);
static_assert(offsetof(kestrix_ce_cipher_info, do_antireplay_check) == 110);
static_assert(offsetof(kestrix_ce_cipher_info, extended_sequence_number) == 114);
static_assert(offsetof(kestrix_ce_cipher_info, kestrix_timebased_replay_check.replay_enabled) == 118);
static_assert(offsetof(kestrix_ce_cipher_info, kestrix_timebased_replay_check.tunnel_mode) == 122);
static_assert(offsetof(kestrix_ce_cipher_info, ipsec_inline_tagging_enabled) == 126);
static_assert(offsetof(kestrix_ce_cipher_info, udp_encaps) == 130);
static_assert(offsetof(kestrix_ce_cipher_info, udp_source_port) == 134);
static_assert(offsetof(kestrix_ce_cipher_info, udp_dest_port) == 136);
static_assert(offsetof(kestrix_ce_cipher_info, orig_remote_ip_addr) == 138);
static_assert(offsetof(kestrix_ce_cipher_info, orig_remote_ip_addr.ip_address) == 140);
static_assert(offsetof(kestrix_ce_cipher_info, ctcp_encaps) == 156);
static_assert(offsetof(kestrix_ce_cipher_info, standby) == 160);
static_assert(offsetof(kestrix_ce_cipher_info, peer_handle) == 164);
static_assert(offsetof(kestrix_ce_cipher_info, soft_time_lifetime) == 168);
static_assert(offsetof(kestrix_ce_cipher_info, hard_time_lifetime) == 176);
static_assert(offsetof(kestrix_ce_cipher_info, soft_volume_lifetime) == 184);
static_assert(offsetof(kestrix_ce_cipher_info, hard_volume_lifetime) == 192);
static_assert(offsetof(kestrix_ce_cipher_info, negotiated_lifetime) == 200);
static_assert(offsetof(kestrix_ce_cipher_info, sa_handle) == 208);
static_assert(offsetof(kestrix_ce_cipher_info, prefrag_setting) == 212);
static_assert(offsetof(kestrix_ce_cipher_info, initial_mtu) == 216);
static_assert(offsetof(kestrix_ce_cipher_info, plaintext_mtu) == 218);
static_assert(offsetof(kestrix_ce_cipher_info, cmd_handle) == 220);
static_assert(offsetof(kestrix_ce_cipher_info, qos_group) == 224);
static_assert(offsetof(kestrix_ce_cipher_info, qos_preclassify) == 226);
static_assert(offsetof(kestrix_ce_cipher_info, HA_ipsec_update_interval) == 227);
static_assert(offsetof(kestrix_ce_cipher_info, gcm_iv_low_value) == 231);
static_assert(offsetof(kestrix_ce_cipher_info, gcm_iv_high_value) == 239);
static_assert(offsetof(kestrix_ce_cipher_info, gcm_iv_warning_count) == 247);
static_assert(offsetof(kestrix_ce_cipher_info, transform_negotiated_flags) == 255);
static_assert(offsetof(kestrix_ce_cipher_info, support_dummy_packet) == 259);

}  // namespace cpa
