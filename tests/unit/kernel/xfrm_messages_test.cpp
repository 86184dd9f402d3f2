// XFRM requests byte for byte: SAs and policies against the fake platform kernel, SAs in linux mode
// against the stock kernel's own structs; and the SA answers read back.
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/xfrm.h>
#include <unistd.h>

#include <cstring>
#include <tuple>

#include "fakes/kernel_test_agent.h"
#include "kernel/linux_sa_counters.h"
#include "kernel/xfrm_algorithms.h"
#include "netlink/nl_message.h"
#include "support/wire_builder.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

void set_key(kestrix_key_val_t& key, uint16_t len, uint8_t first) {
  key.len = len;
  for (uint16_t i = 0; i < len; ++i) key.data[i] = static_cast<uint8_t>(first + i);
}

// ESP with AES-CBC (16-byte key) and HMAC-SHA1 (20-byte key), tunnel mode.
// Cipher records are list nodes (not copyable): tests fill them in place.
kestrix_ce_cipher_list_t& aes_sha1(kestrix_ce_cipher_list_t& r) {
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
  set_key(r.esp_key_info, 16, 0x10);
  set_key(r.esp_mac_key_info, 20, 0x40);
  return r;
}

class XfrmMessages : public ::testing::Test {
 protected:
  XfrmMessages() {
    t.devices.add_device("svti5");
    t.devices.add_device("svti7");
  }
  uint32_t svti7() const { return static_cast<uint32_t>(t.devices.device("svti7")->ifindex); }
  int add(const kestrix_ce_cipher_list_t& r, cpa_netlink_ctr_t* ctr = nullptr) {
    return kestrix_nlink_sa_add(t.agent.nlink, r, 5, 9, ctr, 32);  // tunnel 5, request id 9, window 32
  }
  Message last_request() { return t.kernel.requests().back(); }
  // The last request from byte `from` on (240: the attributes, 248: those after the device index).
  Message tail(size_t from) {
    const Message m = last_request();
    return Message(m.begin() + std::min(m.size(), from), m.end());
  }
  KernelTestAgent t;
  cpa_netlink_ctr_t& ctr = t.agent.counters.netlink_dbg_ctrs.n_outbound_policy_add;
};
using SaMessages = XfrmMessages;
using PolicyMessages = XfrmMessages;

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

// The agent's window otherwise: 32 in the AES-CBC add above.
TEST_F(SaMessages, ARecordCanTurnTheReplayWindowOff) {
  kestrix_ce_cipher_list_t r;
  aes_sha1(r).ce_cipher.antireplay_window_size = 0xffffffff;
  ASSERT_EQ(add(r), 0);
  EXPECT_EQ(u8_at(last_request(), 235), 0);
}

TEST_F(SaMessages, CodesWithoutKernelNameAreRefusedBeforeAnythingIsSent) {
  kestrix_ce_cipher_list_t bad_cipher, bad_mac, bad_ah;
  aes_sha1(bad_cipher).ce_cipher.esp_cipher = KESTRIX_CE_MAX_CIPHER;
  aes_sha1(bad_mac).ce_cipher.esp_mac = 6;
  aes_sha1(bad_ah).ce_cipher.ah_used = 1;
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

// An outbound UDP policy in tunnel mode with AH, every field set; only the low byte of smask counts.
XfrmPolicyArgs outbound_ace() {
  return {.src = 0x0a000001, .smask = 0x118, .dst = 0xc0a80102, .dmask = 32, .sport = 500, .dport = 4500,
          .dir = 1, .proto = 17, .tunnelid = 7, .action = 1, .reqid = 3, .tun_mode = 1, .sec_protocol = 51};
}

// The selector of outbound_ace(): destination, source, ports with full masks, AF_INET, prefixes, protocol.
Bytes selector() {
  return Bytes().be32(0xc0a80102).zeros(12).be32(0x0a000001).zeros(12)
      .be16(4500).h16(0xffff).be16(500).h16(0xffff).h16(2).u8(32).u8(24).u8(17).zeros(11);
}

TEST_F(PolicyMessages, AddIsHeaderBodySvtiIndexAndTemplateByteForByte) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), &ctr), 0);
  const Message expected =
      Bytes()
          .h32(284).h16(19).h16(5).h32(1).h32(getpid())
          .append(selector())
          .h64(~0ull).h64(~0ull).h64(~0ull).h64(~0ull)  // byte and packet limits
          .zeros(96)                                     // expiry, lifetime, stats, priority, index
          .u8(1).u8(1).zeros(6)                          // direction, action
          .h16(8).h16(34).h32(svti7())                   // XFRMA_SVTI_IFINDEX
          .h16(68).h16(5)                                // XFRMA_TMPL:
          .zeros(20).u8(51).zeros(3).h16(2).zeros(18)    //   id (AH), family
          .h32(3).u8(1).zeros(3)                         //   reqid, tunnel mode
          .h32(~0u).h32(~0u).h32(~0u);                   //   every algorithm
  EXPECT_EQ(last_request(), expected);
  EXPECT_EQ(ctr.req + ctr.resp_ok, 2u);
}

TEST_F(PolicyMessages, GetOrDeleteIsSelectorIndexDirectionAndSvtiIndex) {
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, outbound_ace(), nullptr), 0);
  const uint32_t index = t.kernel.policies().at(0).index;
  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 0, outbound_ace(), 0, nullptr), 0);
  // No port id in a get or delete.
  EXPECT_EQ(last_request(), Bytes()
                                .h32(88).h16(21).h16(5).h32(2).h32(0)
                                .append(selector()).h32(0).u8(1).zeros(3)
                                .h16(8).h16(34).h32(svti7())
                                .vec());
  char line[64];
  std::snprintf(line, sizeof line, "Index from kernel 0x%x", index);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, line));

  ASSERT_EQ(kestrix_nlink_policy_getordel(t.agent.nlink, 1, outbound_ace(), index, nullptr), 0);
  EXPECT_EQ(u32_at(last_request(), 72), index);
  EXPECT_TRUE(t.kernel.policies().empty());
}

TEST_F(PolicyMessages, MessageTypesAndCountingFollowTheOperationCode) {
  // add?, operation code, message type, counted?
  for (const auto& [add, code, type, counted] : {std::tuple{true, 0, 19, true}, {true, 7, 25, true},
                                                 {false, 0, 21, false}, {false, 1, 20, true}, {false, 2, 20, false}}) {
    cpa_netlink_ctr_t triple;
    t.kernel.refuse_next(ENOENT);  // counted outcomes land in resp_err
    EXPECT_EQ(add ? kestrix_nlink_policy_add(t.agent.nlink, code, outbound_ace(), &triple)
                  : kestrix_nlink_policy_getordel(t.agent.nlink, code, outbound_ace(), 0, &triple),
              -ENOENT);
    EXPECT_EQ(u16_at(last_request(), 4), type) << code;
    EXPECT_EQ(std::vector<uint32_t>({triple.req, triple.resp_ok, triple.resp_err}),
              std::vector<uint32_t>({counted, 0, counted}))
        << type << "/" << code;
  }
}

TEST_F(PolicyMessages, AnyPortIsPortZeroAndAMissingDeviceIndexZero) {
  XfrmPolicyArgs any_port = outbound_ace();
  any_port.sport = any_port.dport = 0;
  any_port.tunnelid = 9;  // no device: index 0 is sent all the same
  ASSERT_EQ(kestrix_nlink_policy_add(t.agent.nlink, 0, any_port, &ctr), 0);
  const Message m = last_request();
  EXPECT_EQ(Message(m.begin() + 48, m.begin() + 56), Bytes().be16(0).h16(0xffff).be16(0).h16(0xffff).vec());
  EXPECT_EQ(u32_at(m, 212), 0u);
}

using Attrs = std::initializer_list<std::pair<uint16_t, Message>>;

// Header (sequence number 1), body, attributes.
template <class Body>
Message message(uint16_t type, const Body& body, Attrs attrs) {
  net_buf buffer{};
  NlMessage m(buffer);
  m.put_header(type, NLM_F_REQUEST | NLM_F_ACK, static_cast<uint32_t>(getpid()), 1);
  m.put_body(body);
  for (const auto& [attr_type, payload] : attrs) m.put_attr(attr_type, payload.data(), payload.size());
  return {m.bytes().begin(), m.bytes().end()};
}

template <class Algo>
Message algo(const char* name, size_t key_len, uint8_t first) {
  Algo a{};
  std::strcpy(a.alg_name, name);
  a.alg_key_len = static_cast<uint32_t>(key_len * 8);
  return Bytes().host(a).ramp(first, key_len);
}

// A 64-packet window leaves the body's field 0 and goes as the extended replay
// state: bmp_len 2, four sequence numbers, the window, the zeroed bitmap.
TEST(LinuxXfrmMessages, AnSaIsTheKernelsOwnBodyWithTheInterfaceIdReplayStateAndAlgorithms) {
  ::xfrm_usersa_info sa{};
  sa.sel.family = sa.family = AF_INET;
  sa.id.daddr.a4 = htonl(0x0a000002);
  sa.saddr.a4 = htonl(0x0a000001);
  sa.id.spi = htonl(0x1234abcd);
  sa.id.proto = IPPROTO_ESP;
  sa.lft.soft_byte_limit = sa.lft.hard_byte_limit = XFRM_INF;
  sa.lft.soft_packet_limit = sa.lft.hard_packet_limit = XFRM_INF;
  sa.lft.soft_add_expires_seconds = 3000;
  sa.lft.hard_add_expires_seconds = 3600;
  sa.reqid = 3;
  sa.mode = 1;
  kestrix_ce_cipher_list_t record;
  aes_sha1(record);
  KernelTestAgent t(AgentSettings{0, 0, KernelFlavour::kLinux});
  t.kernel.answer_next({nl_error(1, getpid(), 0)});  // the platform's fake would refuse the layout
  ASSERT_EQ(kestrix_nlink_sa_add(t.agent.nlink, record, 7, 3, nullptr, 64), 0);
  EXPECT_EQ(t.kernel.requests().at(0),
            message(XFRM_MSG_NEWSA, sa,
                    {{XFRMA_IF_ID, Bytes().h32(7)},
                     {XFRMA_REPLAY_ESN_VAL, Bytes().h32(2).zeros(16).h32(64).zeros(8)},
                     {XFRMA_ALG_CRYPT, algo<::xfrm_algo>("cbc(aes)", 16, 0x10)},
                     {XFRMA_ALG_AUTH, algo<::xfrm_algo>("hmac(sha1)", 20, 0x40)}}));
}

TEST(LinuxSaCounters, ComeFromTheLifetimeAndStatsOfTheKernelsAnswer) {
  ::xfrm_usersa_info sa{};
  sa.curlft.bytes = 1;  // superseded by the attribute
  sa.stats.replay = 4;
  sa.stats.integrity_failed = 5;
  ::xfrm_lifetime_cur now{};
  now.bytes = 2500;
  now.packets = 25;
  const Message answer = message(XFRM_MSG_NEWSA, sa, {{XFRMA_LTIME_VAL, Bytes().host(now)}});
  const auto c = linux_sa_counters_of(ReceivedBytes(answer.data(), answer.size()));
  ASSERT_TRUE(c);
  EXPECT_EQ(std::tuple(c->bytes, c->packets, c->replay_failures, c->integrity_failures),
            std::tuple(2500ull, 25ull, 4u, 5u));
  EXPECT_FALSE(linux_sa_counters_of(ReceivedBytes(answer.data(), 16 + sizeof sa - 1)));
}

}  // namespace
}  // namespace cpa::test
