// SA add and get/delete requests, byte for byte, against the fake platform kernel.
#include "kernel/xfrm_sa.h"

#include <gtest/gtest.h>

#include "fakes/kernel_test_agent.h"
#include "kernel/xfrm_algorithms.h"
#include "support/wire_reader.h"
#include "support/xfrm_fixtures.h"

namespace cpa::test {
namespace {

class SaMessages : public ::testing::Test {
 protected:
  SaMessages() { t.devices.add_device("svti5"); }
  int add(const kestrix_ce_cipher_list_t& r, cpa_netlink_ctr_t* ctr = nullptr, uint8_t window = 32) {
    return kestrix_nlink_sa_add(t.agent.nlink, r, 5, 9, ctr, window);
  }
  Message last_request() { return t.kernel.requests().back(); }
  // The last request from byte `from` on (240: the attributes, 248: those after the device index).
  Message tail(size_t from) {
    const Message m = last_request();
    return Message(m.begin() + std::min(m.size(), from), m.end());
  }
  KernelTestAgent t;
};

TEST_F(SaMessages, AesCbcWithSha1IsHeaderBodyAndThreeAttributesByteForByte) {
  cpa_netlink_ctr_t ctr;
  kestrix_ce_cipher_list_t r;
  ASSERT_EQ(add(aes_sha1(r), &ctr), 0);
  const Message expected =
      Bytes()
          .h32(428).h16(16).h16(5).h32(1).h32(getpid())                // header
          .zeros(40).h16(2).zeros(14)                                    // selector: AF_INET, nothing else
          .be32(0x0a000002).zeros(12).be32(0x1234abcd).u8(50).zeros(3)  // id: destination, SPI, ESP
          .be32(0x0a000001).zeros(12)                                    // source
          .h64(~0ull).h64(~0ull).h64(~0ull).h64(~0ull)                   // byte and packet limits
          .h64(3000).h64(3600).zeros(68)                                 // add expiry; the rest zero
          .h32(9).h16(2).u8(1).u8(32).zeros(4)                           // reqid, family, mode, window
          .h16(8).h16(34).h32(t.devices.device("svti5")->ifindex)       // XFRMA_SVTI_IFINDEX
          .h16(88).h16(2).text("cbc(aes)", 64).h32(128).ramp(0x10, 16)  // XFRMA_ALG_CRYPT
          .h16(92).h16(1).text("hmac(sha1)", 64).h32(160).ramp(0x40, 20);
  EXPECT_EQ(last_request(), expected);
  EXPECT_EQ(ctr.req + ctr.resp_ok, 2u);
}

TEST_F(SaMessages, AeadIsOneAttributeWithA128BitIcv) {
  kestrix_ce_cipher_list_t r;
  aes_sha1(r);
  r.ce_cipher.esp_mac = KESTRIX_CE_NO_MAC;
  r.ce_cipher.esp_cipher = KESTRIX_CE_GMAC;
  set_key(r.esp_key_info, 20, 0x70);
  ASSERT_EQ(add(r), 0);
  EXPECT_EQ(tail(248), Bytes().h16(96).h16(18).text("rfc4543(gcm(aes))", 64).h32(160).h32(128).ramp(0x70, 20).vec());
}

// The body names ESP's SPI when both are used; AH's MAC comes after ESP's.
TEST_F(SaMessages, AhCarriesItsSpiUnlessEspIsUsedToo) {
  kestrix_ce_cipher_list_t ah, both;
  ah.ce_cipher.ah_used = 1;
  ah.ce_cipher.ah_mac = KESTRIX_CE_HMAC_SHA256;
  ah.ce_cipher.ah_spi = 0x501;
  ASSERT_EQ(add(ah), 0);
  EXPECT_EQ(std::pair(be32_at(last_request(), 88), u8_at(last_request(), 92)), std::pair(0x501u, uint8_t{51}));
  aes_sha1(both).ce_cipher.ah_used = 1;
  both.ce_cipher.ah_mac = KESTRIX_CE_HMAC_SHA256;
  ASSERT_EQ(add(both), 0);
  EXPECT_EQ(std::pair(be32_at(last_request(), 88), u8_at(last_request(), 92)), std::pair(0x1234abcdu, uint8_t{50}));
  EXPECT_EQ(tail(428), Bytes().h16(72).h16(1).text("sha256", 64).h32(0).vec());
}

TEST_F(SaMessages, ReplayWindowIsTheAgentsUnlessTheRecordTurnsItOff) {
  kestrix_ce_cipher_list_t r;
  aes_sha1(r);
  ASSERT_EQ(add(r, nullptr, 64), 0);
  EXPECT_EQ(u8_at(last_request(), 235), 64);
  r.ce_cipher.antireplay_window_size = 0xffffffff;
  r.ce_cipher.esp_spi++;
  ASSERT_EQ(add(r, nullptr, 64), 0);
  EXPECT_EQ(u8_at(last_request(), 235), 0);
}

TEST_F(SaMessages, CodesWithoutKernelNameAreRefusedBeforeAnythingIsSent) {
  kestrix_ce_cipher_list_t bad_cipher, bad_mac, bad_ah;
  aes_sha1(bad_cipher);
  aes_sha1(bad_mac);
  bad_cipher.ce_cipher.esp_cipher = KESTRIX_CE_MAX_CIPHER;
  bad_mac.ce_cipher.esp_mac = 6;
  bad_ah.ce_cipher.ah_used = 1;
  bad_ah.ce_cipher.ah_mac = 0x80000000;
  for (const auto* r : {&bad_cipher, &bad_mac, &bad_ah}) {
    cpa_netlink_ctr_t ctr;
    t.log.clear();
    EXPECT_EQ(add(*r, &ctr), -EINVAL);
    EXPECT_TRUE(t.log.has(LOG_ERR, "Invalid algo.."));
    EXPECT_EQ(ctr.req + ctr.resp_err, 2u);
  }
  EXPECT_TRUE(t.kernel.requests().empty());
  EXPECT_EQ(t.agent.nlink.g_seq(), 1u);
}

TEST_F(SaMessages, GetOrDeleteIsTheSaIdAndOnlyDeletesCount) {
  kestrix_ce_cipher_list_t r;
  ASSERT_EQ(add(aes_sha1(r)), 0);
  kestrix_addr dest{};
  dest.ip_address = 0x0a000002;
  cpa_netlink_ctr_t ctr;
  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 0, dest, 0x1234abcd, 50, &ctr), 0);
  EXPECT_EQ(last_request(), Bytes()
                                .h32(56).h16(18).h16(5).h32(2).h32(getpid())
                                .be32(0x0a000002).zeros(12).be32(0x1234abcd).h16(2).u8(50).zeros(17)
                                .vec());
  EXPECT_EQ(ctr.req, 0u);

  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 5, dest, 0x1234abcd, 50, &ctr), 0);
  EXPECT_EQ(u16_at(last_request(), 4), 17);
  EXPECT_EQ(ctr.req + ctr.resp_ok, 2u);
  EXPECT_TRUE(t.kernel.sas().empty());

  EXPECT_EQ(kestrix_nlink_sa_getordel(t.agent.nlink, 1, dest, 0x1234abcd, 50, &ctr), -ESRCH);
  EXPECT_EQ(ctr.resp_err, 1u);
}

}  // namespace
}  // namespace cpa::test
