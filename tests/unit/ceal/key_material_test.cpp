// CREATE_KEY_BY_KEYS through the CEAL dispatcher: the cipher info decoded
// field by field, the key area's TLVs, the record on cipher_info_list.
#include "ceal/key_material.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "fakes/test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

const std::vector<uint8_t> kHandle = {0xca, 0xfe, 0xba, 0xbe};

// An ESP cipher info (AES-128, `esp_mac`, SPI 0xabcd), everything else zero.
std::vector<uint8_t> esp_cipher_info(uint32_t esp_mac) {
  return Bytes().be32(0).be32(1).be32(3).be32(128).be32(esp_mac).be32(0xabcd).zeros(263 - 24);
}

std::vector<uint8_t> create_key(const std::vector<uint8_t>& cipher_info, const std::vector<uint8_t>& keys) {
  return ceal_request(0, Bytes().append(kHandle).be32(0xFFFFFFF9).be32(0x11223344).append(cipher_info).append(keys));
}

// A key TLV of `len` bytes counting up from `first`.
std::vector<uint8_t> tlv(uint16_t type, uint16_t len, uint8_t first) {
  return Bytes().be16(type).be16(len).ramp(first, len);
}

uint64_t be_at(const std::vector<uint8_t>& m, size_t offset, size_t width) {
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v = v << 8 | m[offset + i];
  return v;
}

struct Field {
  const char* name;
  size_t offset;
  size_t width;  // 0: not carried, stays zero
  uint64_t (*get)(const kestrix_ce_cipher_info&);
};
#define DECODED(f, off, w) {#f, off, w, [](const kestrix_ce_cipher_info& c) -> uint64_t { return c.f; }}
#define SKIPPED(f, off) {#f, off, 0, [](const kestrix_ce_cipher_info& c) -> uint64_t { return c.f; }}
// The IPv6 part of an address (after its IPv4 bytes): any non-zero byte shows.
#define V6_REST(a, off)                                                                   \
  {#a ".rest", off, 0, [](const kestrix_ce_cipher_info& c) -> uint64_t {                  \
     const auto* p = reinterpret_cast<const uint8_t*>(&c.a) + 6;                          \
     uint64_t any = 0;                                                                    \
     for (int i = 0; i < 12; ++i) any |= p[i];                                            \
     return any;                                                                          \
   }}

const Field kFields[] = {
    DECODED(outbound, 0, 4), DECODED(esp_used, 4, 4), DECODED(esp_cipher, 8, 4),
    DECODED(esp_cipher_key_length, 12, 4), DECODED(esp_mac, 16, 4), DECODED(esp_spi, 20, 4),
    DECODED(ah_used, 24, 4), DECODED(ah_mac, 28, 4), DECODED(ah_spi, 32, 4), DECODED(ippcp_used, 36, 4),
    DECODED(cpi, 40, 2), DECODED(antireplay_window_size, 42, 4),
    DECODED(source.type, 46, 1), DECODED(source.length, 47, 1), DECODED(source.ip_address, 48, 4),
    V6_REST(source, 52), DECODED(dest.type, 64, 1), DECODED(dest.length, 65, 1),
    DECODED(dest.ip_address, 66, 4), V6_REST(dest, 70), DECODED(preserve_header, 82, 4),
    DECODED(tunnel_id, 86, 4), DECODED(mode, 90, 4), DECODED(inner_format, 94, 4),
    DECODED(outer_format, 98, 4), DECODED(ipv4_df_setting, 102, 4), DECODED(ipv6_flow_label, 106, 4),
    DECODED(do_antireplay_check, 110, 4), DECODED(extended_sequence_number, 114, 4),
    SKIPPED(kestrix_timebased_replay_check.replay_enabled, 118),
    SKIPPED(kestrix_timebased_replay_check.tunnel_mode, 122),
    DECODED(ipsec_inline_tagging_enabled, 126, 4), DECODED(udp_encaps, 130, 4),
    DECODED(udp_source_port, 134, 2), DECODED(udp_dest_port, 136, 2),
    DECODED(orig_remote_ip_addr.type, 138, 1), DECODED(orig_remote_ip_addr.length, 139, 1),
    DECODED(orig_remote_ip_addr.ip_address, 140, 4), V6_REST(orig_remote_ip_addr, 144),
    DECODED(ctcp_encaps, 156, 4), DECODED(standby, 160, 4), DECODED(peer_handle, 164, 4),
    DECODED(soft_time_lifetime, 168, 8), DECODED(hard_time_lifetime, 176, 8),
    DECODED(soft_volume_lifetime, 184, 8), DECODED(hard_volume_lifetime, 192, 8),
    DECODED(negotiated_lifetime, 200, 8), DECODED(sa_handle, 208, 4), DECODED(prefrag_setting, 212, 4),
    DECODED(initial_mtu, 216, 2), DECODED(plaintext_mtu, 218, 2), DECODED(cmd_handle, 220, 4),
    DECODED(qos_group, 224, 2), DECODED(qos_preclassify, 226, 1), DECODED(HA_ipsec_update_interval, 227, 4),
    SKIPPED(gcm_iv_low_value, 231), SKIPPED(gcm_iv_high_value, 239), SKIPPED(gcm_iv_warning_count, 247),
    DECODED(transform_negotiated_flags, 255, 4), DECODED(support_dummy_packet, 259, 4),
};

TEST(CreateKeyByKeys, DecodesEveryCipherInfoFieldAndAnswersTheFullSizeResponse) {
  TestAgent t;
  const std::vector<uint8_t> wire = Bytes().ramp(1, 263);  // every byte distinct from its neighbours
  EXPECT_EQ(t.exchange(create_key(wire, {})), Bytes().be16(1).be16(281).be16(0).append(kHandle).be32(1).zeros(267).vec());
  ASSERT_NE(t.agent.cipher_info_list.head(), nullptr);
  const kestrix_ce_cipher_list_t& record = *t.agent.cipher_info_list.head();
  EXPECT_EQ(record.ipsec_index, -7);
  EXPECT_EQ(record.ipsec_sa, 0x11223344u);
  for (const Field& f : kFields)
    EXPECT_EQ(f.get(record.ce_cipher), f.width ? be_at(wire, f.offset, f.width) : 0) << f.name;
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "decode ce info src ip [049.050.051.052] dst ip[067.068.069.070] dir 16909060"));
  EXPECT_EQ(t.agent.counters.ceal_dbg_ctrs.c_create_key_respok, 1u);
}

struct Key {
  uint16_t type, len;
  uint8_t first;
};

void expect_key(const kestrix_key_val_t& stored, const Key& want, const char* what) {
  EXPECT_EQ(stored.type, want.type) << what;
  ASSERT_EQ(stored.len, want.len) << what;
  for (uint16_t i = 0; i < want.len; ++i) ASSERT_EQ(stored.data[i], uint8_t(want.first + i)) << what << " byte " << i;
}

TEST(CreateKeyByKeys, TakesTheKeysOfTheKeyAreaAndStoresTheRecordWhateverItHeld) {
  const std::vector<uint8_t> esp = tlv(1, 16, 0x10), mac = tlv(2, 20, 0x40), ah = tlv(3, 20, 0x70);
  const Key no_key{0, 0, 0}, esp_key{1, 16, 0x10}, mac_key{2, 20, 0x40}, ah_key{3, 20, 0x70};
  const std::string missing = "**** ceal_key_len is 0  ****** ";
  struct Case {
    const char* name;
    uint32_t esp_mac;
    std::vector<uint8_t> keys;
    size_t cut;                             // bytes of the datagram that never arrive
    std::optional<uint16_t> message_length;  // when the header lies about it
    Key esp, mac, ah;
    std::vector<std::string> errors;
  } cases[] = {
      {"ESP + MAC", KESTRIX_CE_HMAC_SHA1, Bytes().append(esp).append(mac), 0, {}, esp_key, mac_key, no_key, {}},
      {"ESP, MAC configured", KESTRIX_CE_HMAC_SHA1, esp, 0, {}, esp_key, no_key, no_key,
       {missing + "0\n", missing + "1\n"}},
      {"ESP, no MAC configured", KESTRIX_CE_NO_MAC, esp, 0, {}, esp_key, no_key, no_key, {}},
      {"MAC before ESP", KESTRIX_CE_HMAC_SHA1, Bytes().append(mac).append(esp), 0, {}, esp_key, mac_key, no_key,
       {missing + "0\n", missing + "1\n"}},
      {"AH only", KESTRIX_CE_NO_MAC, ah, 0, {}, no_key, no_key, ah_key, {}},
      {"unknown type stepped over", KESTRIX_CE_NO_MAC, Bytes().append(tlv(9, 4, 0)).append(ah), 0, {}, no_key,
       no_key, ah_key, {"Error: ceal_key_len 32\n"}},
      {"MAC longer than a stored key", KESTRIX_CE_HMAC_SHA1, Bytes().append(esp).append(tlv(2, 300, 0)), 0, {},
       esp_key, no_key, no_key, {"Key TLV type 2 len 300 at key byte 20 does not fit, key parse ended"}},
      {"AH key cut short by the datagram", KESTRIX_CE_NO_MAC, Bytes().append(esp).append(ah), 10, {}, esp_key,
       no_key, no_key, {"Key TLV type 3 len 20 at key byte 20 does not fit, key parse ended"}},
      {"header cut short by the datagram", KESTRIX_CE_NO_MAC, Bytes().append(esp).append(ah), 23, {}, esp_key,
       no_key, no_key, {"Key TLV at key byte 20 has no room for its header, key parse ended"}},
      {"key past message_length", KESTRIX_CE_NO_MAC, Bytes().append(esp).append(ah), 0, 277 + 30, esp_key,
       no_key, no_key, {"Key TLV type 3 len 20 at key byte 20 does not fit, key parse ended"}},
      {"message_length below the command", KESTRIX_CE_HMAC_SHA1, esp, 0, 100, no_key, no_key, no_key, {}},
  };
  for (const Case& c : cases) {
    TestAgent t;
    std::vector<uint8_t> request = create_key(esp_cipher_info(c.esp_mac), c.keys);
    if (c.message_length) {
      request[2] = static_cast<uint8_t>(*c.message_length >> 8);
      request[3] = static_cast<uint8_t>(*c.message_length);
    }
    request.resize(request.size() - c.cut);
    EXPECT_EQ(be32_at(t.exchange(request), 10), 1u) << c.name;
    ASSERT_NE(t.agent.cipher_info_list.head(), nullptr) << c.name;
    const kestrix_ce_cipher_list_t& record = *t.agent.cipher_info_list.head();
    expect_key(record.esp_key_info, c.esp, c.name);
    expect_key(record.esp_mac_key_info, c.mac, c.name);
    expect_key(record.ah_key_info, c.ah, c.name);
    std::vector<std::string> errors;
    for (const LogLine& l : t.log.lines())
      if (l.priority == LOG_ERR) errors.push_back(l.text);
    EXPECT_EQ(errors, c.errors) << c.name;
  }
}

// The request dump reads the datagram as native words from offset 6 for
// message_length bytes; a well-formed request ends two bytes sooner.
TEST(CreateKeyByKeys, MissingMacKeyDumpsTheRequestAsFarAsItArrived) {
  TestAgent t;
  const std::vector<uint8_t> request = create_key(esp_cipher_info(KESTRIX_CE_HMAC_SHA1), tlv(1, 16, 0x10));
  ASSERT_EQ(request.size(), 301u);
  t.deliver(request);
  const auto texts = t.log.texts();
  const auto fields = std::find(texts.begin(), texts.end(),
                                "\noutbound [0], esp_used [1],\nesp_cipher [3], esp_cipher_key_length [128],\n"
                                "esp_mac [2],    esp_spi [abcd],\nah_used [0],    ah_mac [0],    ah_spi [0],\n");
  ASSERT_NE(fields, texts.end());
  uint32_t word;
  std::memcpy(&word, request.data() + 6 + 288, 4);
  char word_line[16];
  std::snprintf(word_line, sizeof word_line, "0x%08x ", word);
  // 295 bytes: nine lines of eight words, one word, three bytes.
  const std::vector<std::string> tail(fields + 10, fields + 14);
  EXPECT_EQ(tail, (std::vector<std::string>{word_line, "0x1d ", "0x1e ", "0x1f "}));
  EXPECT_EQ(fields[14].rfind(" \ninsert cipher node - [0x", 0), 0u);
}

}  // namespace
}  // namespace cpa::test
