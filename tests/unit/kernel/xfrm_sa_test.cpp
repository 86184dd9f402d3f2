#include "kernel/xfrm_sa.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "kernel/xfrm_algorithms.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

void set_key(kestrix_key_val_t& key, uint16_t type, uint16_t len, uint8_t first) {
  key.type = type;
  key.len = len;
  for (uint16_t i = 0; i < len; ++i) key.data[i] = static_cast<uint8_t>(first + i);
}

// ESP with AES-CBC (16-byte key) and HMAC-SHA1 (20-byte key), tunnel mode.
kestrix_ce_cipher_list_t aes_sha1() {
  kestrix_ce_cipher_list_t r;
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
  set_key(r.esp_key_info, 1, 16, 0x10);
  set_key(r.esp_mac_key_info, 2, 20, 0x40);
  return r;
}

class SaMessages : public ::testing::Test {
 protected:
  SaMessages() { t.devices.add_device("svti5"); }
  uint32_t svti5() const { return static_cast<uint32_t>(t.devices.device("svti5")->ifindex); }
  int add(const kestrix_ce_cipher_list_t& r, cpa_netlink_ctr_t* ctr = nullptr) {
    return kestrix_nlink_sa_add(t.agent.nlink, r, 5, 9, ctr, 32);
  }
  Message last_request() { return t.kernel.requests().back(); }
  KernelTestAgent t;
};

void expect_key(const Message& m, size_t at, size_t len, uint8_t first) {
  for (size_t i = 0; i < len; ++i) ASSERT_EQ(m[at + i], static_cast<uint8_t>(first + i)) << at + i;
}

TEST_F(SaMessages, AesCbcWithSha1IsHeaderBodyAndThreeAttributesByteForByte) {
  cpa_netlink_ctr_t ctr;
  ASSERT_EQ(add(aes_sha1(), &ctr), 0);
  const Message m = last_request();
  ASSERT_EQ(m.size(), 428u);
  EXPECT_EQ(u32_at(m, 0), 428u);
  EXPECT_EQ(u16_at(m, 4), 16);
  EXPECT_EQ(u16_at(m, 6), 5);
  EXPECT_EQ(u32_at(m, 12), static_cast<uint32_t>(getpid()));
  EXPECT_TRUE(zero_between(m, 16, 56));    // selector: any address, port and protocol
  EXPECT_EQ(u16_at(m, 56), 2);             // selector family
  EXPECT_TRUE(zero_between(m, 58, 72));
  EXPECT_EQ(be32_at(m, 72), 0x0a000002u);  // id: destination
  EXPECT_EQ(be32_at(m, 88), 0x1234abcdu);  // id: SPI
  EXPECT_EQ(u8_at(m, 92), 50);             // id: ESP
  EXPECT_EQ(be32_at(m, 96), 0x0a000001u);  // source
  for (size_t limit = 112; limit < 144; limit += 8) EXPECT_EQ(u64_at(m, limit), ~0ull);
  EXPECT_EQ(u64_at(m, 144), 3000u);        // soft add expiry
  EXPECT_EQ(u64_at(m, 152), 3600u);        // hard add expiry
  EXPECT_TRUE(zero_between(m, 160, 228));  // use expiry, current lifetime, stats, oseq, seq
  EXPECT_EQ(u32_at(m, 228), 9u);           // reqid
  EXPECT_EQ(u16_at(m, 232), 2);            // family
  EXPECT_EQ(u8_at(m, 234), 1);             // mode
  EXPECT_EQ(u8_at(m, 235), 32);            // replay window
  EXPECT_TRUE(zero_between(m, 236, 240));  // flags, hole, reserved

  EXPECT_EQ(u16_at(m, 240), 8);
  EXPECT_EQ(u16_at(m, 242), 34);
  EXPECT_EQ(u32_at(m, 244), svti5());

  EXPECT_EQ(u16_at(m, 248), 88);
  EXPECT_EQ(u16_at(m, 250), 2);  // XFRMA_ALG_CRYPT
  EXPECT_EQ(text_at(m, 252, 64), "cbc(aes)");
  EXPECT_TRUE(zero_between(m, 252 + 8, 316));
  EXPECT_EQ(u32_at(m, 316), 128u);
  expect_key(m, 320, 16, 0x10);

  EXPECT_EQ(u16_at(m, 336), 92);
  EXPECT_EQ(u16_at(m, 338), 1);  // XFRMA_ALG_AUTH
  EXPECT_EQ(text_at(m, 340, 64), "hmac(sha1)");
  EXPECT_EQ(u32_at(m, 404), 160u);
  expect_key(m, 408, 20, 0x40);

  EXPECT_EQ(ctr.req, 1u);
  EXPECT_EQ(ctr.resp_ok, 1u);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "svti " + std::to_string(svti5()) + " tunid 5"));
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "SUCCESS: netlink SA create status"));
  EXPECT_TRUE(t.kernel.violations().empty()) << t.kernel.violations().front();
  ASSERT_EQ(t.kernel.sas().size(), 1u);
  EXPECT_EQ(t.kernel.sas()[0].reqid, 9u);
}

TEST_F(SaMessages, GcmIsOneAeadAttributeWithA128BitIcv) {
  kestrix_ce_cipher_list_t r = aes_sha1();
  r.ce_cipher.esp_cipher = KESTRIX_CE_GCM;
  r.ce_cipher.esp_mac = KESTRIX_CE_NO_MAC;
  set_key(r.esp_key_info, 1, 20, 0x70);
  ASSERT_EQ(add(r), 0);
  const Message m = last_request();
  ASSERT_EQ(u32_at(m, 0), 344u);
  EXPECT_EQ(u16_at(m, 248), 96);
  EXPECT_EQ(u16_at(m, 250), 18);  // XFRMA_ALG_AEAD
  EXPECT_EQ(text_at(m, 252, 64), "rfc4106(gcm(aes))");
  EXPECT_EQ(u32_at(m, 316), 160u);
  EXPECT_EQ(u32_at(m, 320), 128u);
  expect_key(m, 324, 20, 0x70);
  EXPECT_TRUE(t.kernel.violations().empty());

  r.ce_cipher.esp_cipher = KESTRIX_CE_GMAC;
  r.ce_cipher.esp_spi++;
  ASSERT_EQ(add(r), 0);
  EXPECT_EQ(text_at(last_request(), 252, 64), "rfc4543(gcm(aes))");
}

TEST_F(SaMessages, AhCarriesItsSpiAndMacAndComesAfterEspWhenBothAreUsed) {
  kestrix_ce_cipher_list_t ah;
  ah.ce_cipher.ah_used = 1;
  ah.ce_cipher.ah_mac = KESTRIX_CE_HMAC_SHA256;
  ah.ce_cipher.ah_spi = 0x501;
  set_key(ah.ah_key_info, 3, 32, 0x20);
  ASSERT_EQ(add(ah), 0);
  Message m = last_request();
  EXPECT_EQ(be32_at(m, 88), 0x501u);
  EXPECT_EQ(u8_at(m, 92), 51);
  EXPECT_EQ(u8_at(m, 234), 0);  // transport mode
  EXPECT_EQ(u16_at(m, 248), 4 + 68 + 32);
  EXPECT_EQ(u16_at(m, 250), 1);
  EXPECT_EQ(text_at(m, 252, 64), "sha256");
  EXPECT_EQ(u32_at(m, 0), 352u);

  kestrix_ce_cipher_list_t both = aes_sha1();
  both.ce_cipher.ah_used = 1;
  both.ce_cipher.ah_mac = KESTRIX_CE_NO_MAC;  // an empty name, still sent
  both.ce_cipher.ah_spi = 0x502;
  ASSERT_EQ(add(both), 0);
  m = last_request();
  EXPECT_EQ(be32_at(m, 88), 0x1234abcdu);  // ESP's SPI and protocol win
  EXPECT_EQ(u8_at(m, 92), 50);
  EXPECT_EQ(u16_at(m, 428 + 2), 1);  // a second XFRMA_ALG_AUTH after ESP's
  EXPECT_EQ(u16_at(m, 428), 72);
  EXPECT_EQ(text_at(m, 432, 64), "");
  EXPECT_EQ(u32_at(m, 0), 500u);
  EXPECT_TRUE(t.kernel.violations().empty());
}

TEST_F(SaMessages, ReplayWindowIsTheAgentsUnlessTheRecordTurnsItOff) {
  kestrix_ce_cipher_list_t r = aes_sha1();
  ASSERT_EQ(kestrix_nlink_sa_add(t.agent.nlink, r, 5, 9, nullptr, 64), 0);
  EXPECT_EQ(u8_at(last_request(), 235), 64);
  r.ce_cipher.antireplay_window_size = 0xffffffff;
  r.ce_cipher.esp_spi++;
  ASSERT_EQ(kestrix_nlink_sa_add(t.agent.nlink, r, 5, 9, nullptr, 64), 0);
  EXPECT_EQ(u8_at(last_request(), 235), 0);
}

TEST_F(SaMessages, CodesWithoutKernelNameAreRefusedBeforeAnythingIsSent) {
  kestrix_ce_cipher_list_t bad_cipher = aes_sha1();
  bad_cipher.ce_cipher.esp_cipher = KESTRIX_CE_MAX_CIPHER;
  kestrix_ce_cipher_list_t bad_mac = aes_sha1();
  bad_mac.ce_cipher.esp_mac = 6;
  kestrix_ce_cipher_list_t bad_ah;
  bad_ah.ce_cipher.ah_used = 1;
  bad_ah.ce_cipher.ah_mac = 0x80000000;
  for (const auto* r : {&bad_cipher, &bad_mac, &bad_ah}) {
    cpa_netlink_ctr_t ctr;
    t.log.clear();
    EXPECT_EQ(add(*r, &ctr), 1);
    EXPECT_TRUE(t.log.has(LOG_ERR, "Invalid algo.."));
    EXPECT_EQ(ctr.req, 1u);
    EXPECT_EQ(ctr.resp_err, 1u);
  }
  EXPECT_TRUE(t.kernel.requests().empty());
  EXPECT_EQ(t.agent.nlink.g_seq(), 1u);
}

TEST_F(SaMessages, KernelRefusalIsCountedAsAnError) {
  cpa_netlink_ctr_t ctr;
  t.kernel.script_next(ScriptedAnswer::refusal(EINVAL));
  EXPECT_EQ(add(aes_sha1(), &ctr), 1);
  EXPECT_EQ(ctr.resp_err, 1u);
  EXPECT_EQ(ctr.resp_ok, 0u);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "FAIL: netlink SA create status"));
}

TEST_F(SaMessages, GetOrDeleteIsTheSaIdAndOnlyDeletesCount) {
  ASSERT_EQ(add(aes_sha1()), 0);
  kestrix_addr dest{};
  dest.ip_address = 0x0a000002;
  cpa_netlink_ctr_t ctr;
  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 0, dest, 0x1234abcd, 50, &ctr), 0);
  Message m = last_request();
  ASSERT_EQ(m.size(), 56u);
  EXPECT_EQ(u32_at(m, 0), 56u);
  EXPECT_EQ(u16_at(m, 4), 18);
  EXPECT_EQ(u16_at(m, 6), 5);
  EXPECT_EQ(u32_at(m, 12), static_cast<uint32_t>(getpid()));
  EXPECT_EQ(be32_at(m, 16), 0x0a000002u);
  EXPECT_TRUE(zero_between(m, 20, 32));
  EXPECT_EQ(be32_at(m, 32), 0x1234abcdu);
  EXPECT_EQ(u16_at(m, 36), 2);
  EXPECT_EQ(u8_at(m, 38), 50);
  EXPECT_TRUE(zero_between(m, 39, 56));  // padding and source address
  EXPECT_EQ(ctr.req, 0u);

  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 5, dest, 0x1234abcd, 50, &ctr), 0);
  EXPECT_EQ(u16_at(last_request(), 4), 17);
  EXPECT_EQ(ctr.req, 1u);
  EXPECT_EQ(ctr.resp_ok, 1u);
  EXPECT_TRUE(t.kernel.sas().empty());

  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 1, dest, 0x1234abcd, 50, &ctr), 1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(ctr.resp_err, 1u);
  EXPECT_TRUE(t.kernel.violations().empty());
}

TEST(AlgorithmNames, TablesEndWithNullAndNameless) {
  LogCapture log;
  EXPECT_STREQ(kestrix_enc_algo_name(KESTRIX_CE_3DES), "des3_ede");
  EXPECT_STREQ(kestrix_enc_algo_name(KESTRIX_CE_SEAL), "");
  EXPECT_STREQ(kestrix_auth_algo_name(KESTRIX_CE_HMAC_SHA512), "sha512");
  EXPECT_TRUE(log.has(LOG_DEBUG, "Cipher Algo: des3_ede"));
  EXPECT_TRUE(log.has(LOG_DEBUG, "Auth Algo: sha512"));
  log.clear();
  EXPECT_EQ(kestrix_enc_algo_name(7), nullptr);
  EXPECT_EQ(kestrix_auth_algo_name(6), nullptr);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace cpa::test
