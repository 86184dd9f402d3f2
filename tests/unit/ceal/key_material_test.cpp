// CREATE_KEY_BY_KEYS through the CEAL dispatcher: the cipher info decoded
// field by field, the key area's TLVs, the record on cipher_info_list.
#include "ceal/key_material.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <string>

#include "fakes/test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

const std::vector<uint8_t> kHandle = {0xca, 0xfe, 0xba, 0xbe};

std::vector<uint8_t> create_key(const std::vector<uint8_t>& cipher_info, const std::vector<uint8_t>& keys) {
  return ceal_request(
      0, Bytes().append(kHandle).be32(0xFFFFFFF9).be32(0x11223344).append(cipher_info).append(keys));
}

// Widths of the cipher info's fields in wire order; negative: not carried, stays zero.
constexpr int kCipherInfoLayout[] = {
    4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 2, 4,                       // outbound .. antireplay_window_size
    1, 1, 4, -12, 1, 1, 4, -12,                               // source, dest
    4, 4, 4, 4, 4, 4, 4, 4, 4, -4, -4,                        // preserve_header .. time-based replay check
    4, 4, 2, 2, 1, 1, 4, -12, 4, 4, 4,                        // inline tagging .. peer_handle
    8, 8, 8, 8, 8, 4, 4, 2, 2, 4, 2, 1, 4, -8, -8, -8, 4, 4,  // lifetimes .. support_dummy_packet
};

TEST(CreateKeyByKeys, DecodesTheCipherInfoFieldByFieldAndAnswersTheFullSizeResponse) {
  TestAgent t;
  const std::vector<uint8_t> wire = Bytes().ramp(1, 263);  // no field reads the same swapped
  EXPECT_EQ(t.exchange(create_key(wire, {})),
            Bytes().be16(1).be16(281).be16(0).append(kHandle).be32(1).zeros(267).vec());
  ASSERT_NE(t.agent.cipher_info_list.head(), nullptr);
  const kestrix_ce_cipher_list_t& record = *t.agent.cipher_info_list.head();
  EXPECT_EQ(record.ipsec_index, -7);
  EXPECT_EQ(record.ipsec_sa, 0x11223344u);
  const auto* host = reinterpret_cast<const uint8_t*>(&record.ce_cipher);
  size_t at = 0;
  for (int w : kCipherInfoLayout) {
    const size_t n = static_cast<size_t>(std::abs(w));
    std::vector<uint8_t> want(wire.begin() + at, wire.begin() + at + n);
    if (w < 0) want.assign(n, 0);
    if (std::endian::native == std::endian::little) std::reverse(want.begin(), want.end());
    EXPECT_EQ(std::vector<uint8_t>(host + at, host + at + n), want) << "field at offset " << at;
    at += n;
  }
  EXPECT_TRUE(
      t.log.has(LOG_DEBUG, "decode ce info src ip [049.050.051.052] dst ip[067.068.069.070] dir 16909060"));
}

// An ESP cipher info (AES-128, `esp_mac`, SPI 0xabcd), everything else zero.
std::vector<uint8_t> esp_cipher_info(uint32_t esp_mac) {
  return Bytes().be32(0).be32(1).be32(3).be32(128).be32(esp_mac).be32(0xabcd).zeros(263 - 24);
}
// A key TLV of `len` bytes counting up from `first`.
std::vector<uint8_t> tlv(uint16_t type, uint16_t len, uint8_t first) {
  return Bytes().be16(type).be16(len).ramp(first, len);
}
const std::vector<uint8_t> kEsp = tlv(1, 16, 0x10), kAh = tlv(3, 20, 0x70);

// Each case's stored keys (type, length, bytes) and error lines are in testdata.
TEST(CreateKeyByKeys, TakesTheKeysOfTheKeyAreaAndStoresTheRecordWhateverItHeld) {
  const struct {
    const char* name;
    uint32_t esp_mac;
    std::vector<uint8_t> keys;
    size_t cut = 0;              // bytes of the datagram that never arrive
    uint8_t message_length = 0;  // 0: the true one
  } cases[] = {
      {"ESP, MAC configured", 2, kEsp},
      {"ESP, no MAC configured", 0, kEsp},
      {"AH only", 0, kAh},
      {"unknown type", 0, Bytes().append(tlv(9, 4, 0)).append(kAh)},
      {"MAC over 256 bytes", 2, Bytes().append(kEsp).append(tlv(2, 300, 0))},
      {"AH cut short", 0, Bytes().append(kEsp).append(kAh), 10},
      {"AH head cut short", 0, Bytes().append(kEsp).append(kAh), 23},
      {"message_length below 277", 2, kEsp, 0, 100},
  };
  std::string transcript;
  for (const auto& c : cases) {
    TestAgent t;
    std::vector<uint8_t> request = create_key(esp_cipher_info(c.esp_mac), c.keys);
    if (c.message_length) request[2] = 0, request[3] = c.message_length;
    request.resize(request.size() - c.cut);
    EXPECT_EQ(be32_at(t.exchange(request), 10), 1u) << c.name;
    ASSERT_NE(t.agent.cipher_info_list.head(), nullptr) << c.name;
    const kestrix_ce_cipher_list_t& record = *t.agent.cipher_info_list.head();
    transcript += std::string("== ") + c.name + "\n";
    for (const kestrix_key_val_t* k : {&record.esp_key_info, &record.esp_mac_key_info, &record.ah_key_info}) {
      transcript += std::to_string(k->type) + " " + std::to_string(k->len) + ":";
      for (size_t i = 0; i < k->len; ++i) transcript += " " + std::to_string(k->data[i]);
      transcript += "\n";
    }
    for (const std::string& line : t.log.texts(LOG_ERR)) transcript += line + "\n";
  }
  EXPECT_EQ(transcript, read_file(CPA_TESTDATA "/create_key_keys.txt"));
}

// Past the cap nothing is stored; records unclaimed for the age limit go on
// a later request, in a walk at most once a minute.
TEST(CreateKeyByKeys, PastTheCapIsRefusedUntilUnclaimedRecordsAgeOut) {
  TestAgent t;
  CipherList& waiting = t.agent.cipher_info_list;
  const auto stamp = [&](int64_t since, size_t n) {
    for (; n; --n) {
      insert_node_cipher_info(waiting, new_record<kestrix_ce_cipher_list_t>());
      waiting.head()->waiting_since = since;
    }
  };
  const auto status = [&] { return be32_at(t.exchange(create_key(esp_cipher_info(0), {})), 10); };
  const size_t half = kMaxWaitingCipherRecords / 2;
  stamp(1000 - kUnclaimedCipherSeconds, half);  // overdue at the clock's 1000 s
  stamp(1001 - kUnclaimedCipherSeconds, half);
  EXPECT_EQ(status(), CRYPTO_NO_ERR);
  EXPECT_TRUE(t.log.has(LOG_WARNING, "Released 8190 cipher records no SA claimed within 600 s"));
  stamp(1000, half - 1);
  t.clock.now.tv_sec += 59;  // the rest are overdue now, but the next walk is a minute after the last
  t.log.clear();
  EXPECT_EQ(status(), CRYPTO_ERR_RESOURCES);
  EXPECT_EQ(t.log.texts(LOG_ERR),
            std::vector<std::string>{"CREATE_KEY: 16380 cipher records wait for their SA already, request refused"});
  EXPECT_EQ(waiting.size(), kMaxWaitingCipherRecords);
  t.clock.now.tv_sec += 1;
  EXPECT_EQ(status(), CRYPTO_NO_ERR);
  EXPECT_EQ(waiting.size(), half + 1);
}

}  // namespace
}  // namespace cpa::test
