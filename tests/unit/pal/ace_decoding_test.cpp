#include "pal/ace_decoding.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

#include "fakes/log_capture.h"
#include "support/acl_builder.h"
#include "wire/received_bytes.h"

namespace cpa {
namespace {

using test::AceSpec;
using test::Bytes;

template <class T>
T wire_copy(const std::vector<uint8_t>& bytes) {
  EXPECT_EQ(bytes.size(), sizeof(T));
  return *ReceivedBytes(bytes.data(), bytes.size()).read<T>(0);
}

AceSpec sample_ace() {
  AceSpec a;
  a.type = 2;
  a.seqno = 0x0102;
  a.reverse = 1;
  a.handle = 0x01020304;
  a.local_addr = 0x0A000001;
  a.local_mask = 24;
  a.remote_addr = 0xC0A80101;
  a.remote_mask = 16;
  a.protocol = 17;
  a.any_port = 1;
  a.local_port = {3, 2, {500, 4500}};
  a.remote_port = {4, 1, {0x1234}};
  a.hint = 0x0A0B0C0D;
  return a;
}

TEST(AceDecoding, Ipv4AceIsConvertedFieldByField) {
  test::LogCapture log;
  const auto in = wire_copy<kestrix_crypto_ace>(test::ace_body(sample_ace()));
  kestrix_crypto_ace out{};
  ASSERT_EQ(kestrix_decode_ace(&in, &out), 0);
  EXPECT_EQ(out.ip_type, 4u);
  EXPECT_EQ(out.type, 2u);
  EXPECT_EQ(out.seqno, 0x0102);
  EXPECT_EQ(out.reverse, 1u);
  EXPECT_EQ(out.handle, 0x01020304u);
  EXPECT_EQ(out.hint, 0x0A0B0C0Du);
  const auto& ip4 = out.selector.ipv4;
  EXPECT_EQ(ip4.local_addr, 0x0A000001u);
  EXPECT_EQ(ip4.local_mask, 24u);
  EXPECT_EQ(ip4.remote_addr, 0xC0A80101u);
  EXPECT_EQ(ip4.remote_mask, 16u);
  EXPECT_EQ(ip4.protocol, 17);
  EXPECT_EQ(ip4.any_port, 1u);
  EXPECT_EQ(ip4.local_port.type, 3u);
  EXPECT_EQ(ip4.local_port.num_port, 2);
  EXPECT_EQ(ip4.local_port.port[0], 500);
  EXPECT_EQ(ip4.local_port.port[1], 4500);
  EXPECT_EQ(ip4.remote_port.type, 4u);
  EXPECT_EQ(ip4.remote_port.port[0], 0x1234);
  EXPECT_TRUE(log.has(LOG_DEBUG,
                      "ACE: ip_type 4, type 2, seqno 258, reverse 1, handle 16909060, hint "
                      "168496141, ip4_local_addr 0xa000001  ip4_local_mask 24, ip4_rem_addr "
                      "0xc0a80101, ip4_rem_mask 16, protocol 17, any_port 1"));
}

TEST(AceDecoding, Ipv6AceKeepsAZeroSelector) {
  test::LogCapture log;
  AceSpec a = sample_ace();
  a.ip_type = 6;
  const auto in = wire_copy<kestrix_crypto_ace>(test::ace_body(a));
  kestrix_crypto_ace out{};
  ASSERT_EQ(kestrix_decode_ace(&in, &out), 0);
  EXPECT_EQ(out.ip_type, 6u);
  EXPECT_EQ(out.handle, 0x01020304u);
  const kestrix_crypto_ace_selector zero{};
  EXPECT_EQ(std::memcmp(&out.selector, &zero, sizeof zero), 0);
  EXPECT_TRUE(log.has_text(
      "ACE: ip_type 6, type 2, seqno 258, reverse 1, handle 16909060, hint 168496141, "
      "ip4_local_addr 0x0  ip4_local_mask 0, ip4_rem_addr 0x0, ip4_rem_mask 0, protocol 0, "
      "any_port 0"));
}

TEST(AceDecoding, PortListConvertsOnlyItsValidEntries) {
  struct Case {
    uint8_t num_port;
    uint8_t stored;
    int converted;
  };
  for (const Case c : {Case{0, 0, 0}, Case{2, 2, 2}, Case{10, 10, 10}, Case{11, 10, 10},
                       Case{255, 10, 10}}) {
    Bytes b;
    b.be32(7).u8(c.num_port);
    for (uint16_t i = 0; i < 10; ++i) b.be16(0x0100 + i);
    const auto src = wire_copy<kestrix_crypto_ace_port>(b);
    kestrix_crypto_ace_port dst;
    std::memset(&dst, 0xEE, sizeof dst);
    kestrix_dp_decode_ace_port(&dst, &src);
    EXPECT_EQ(dst.type, 7u);
    EXPECT_EQ(dst.num_port, c.stored);
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(dst.port[i], i < c.converted ? 0x0100 + i : 0xEEEE) << int(c.num_port) << " " << i;
  }
}

kestrix_cdh_action wire_action(uint32_t action, const std::vector<uint8_t>& data = {}) {
  return wire_copy<kestrix_cdh_action>(test::action_body(action, data));
}

const std::vector<uint8_t> kDecryptData =
    Bytes().be32(0x51).raw({0, 0, 0, 0, 0, 0, 1, 2}).be16(0x33).zeros(2).be32(1).be32(0x44);
const std::vector<uint8_t> kEncryptData = Bytes().be32(0x61).be16(0x62).zeros(2).be32(1);

TEST(ActionDecoding, SetActionDecodesEveryKind) {
  test::LogCapture log;
  kestrix_cdh_action out{};
  auto in = wire_action(CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0xCAFE));
  kestrix_set_action(&in, &out);
  EXPECT_EQ(out.action, 1u);
  EXPECT_EQ(out.data.notify_rp_handle, 0xCAFEu);

  in = wire_action(CDH_ACTION_DECRYPT_PACKET, kDecryptData);
  kestrix_set_action(&in, &out);
  EXPECT_EQ(out.data.decrypt.sa, 0x51u);
  EXPECT_EQ(out.data.decrypt.post_decrypt_check, 0x102u);
  EXPECT_EQ(out.data.decrypt.post_decrypt_ivrf, 0x33);
  EXPECT_EQ(out.data.decrypt.reinject, 1u);
  EXPECT_EQ(out.data.decrypt.tunnel_id, 0x44u);

  in = wire_action(CDH_ACTION_ENCRYPT_PACKET, kEncryptData);
  kestrix_set_action(&in, &out);
  EXPECT_EQ(out.action, 4u);
  EXPECT_EQ(out.data.encrypt.sa, 0x61u);
  EXPECT_EQ(out.data.encrypt.post_encrypt_fvrf, 0x62);
  EXPECT_EQ(out.data.encrypt.dummy_generate, 1u);
  EXPECT_TRUE(log.has(LOG_DEBUG, "ACTION 0x4"));

  // An unknown action is stored as it is and nothing else is converted.
  log.clear();
  kestrix_cdh_action bad{};
  in = wire_action(7, Bytes().be32(0xCAFE));
  kestrix_set_action(&in, &bad);
  EXPECT_EQ(bad.action, 7u);
  EXPECT_EQ(bad.data.notify_rp_handle, 0u);
  EXPECT_EQ(log.lines(), (std::vector<test::LogLine>{{LOG_DEBUG, "ACTION 0x7"},
                                                     {LOG_ERR, "WRONG CDH_ACTION"}}));
}

TEST(ActionDecoding, ActionGetAcceptsOnlyWhatAnSaCarries) {
  struct Case {
    uint32_t act_type, action;
    int result;
  };
  for (const Case c : {Case{8, CDH_ACTION_DECRYPT_PACKET, 0}, Case{8, CDH_ACTION_ENCRYPT_PACKET, 1},
                       Case{8, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, 1},
                       Case{9, CDH_ACTION_ENCRYPT_PACKET, 0},
                       Case{9, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, 0},
                       Case{9, CDH_ACTION_DECRYPT_PACKET, 1}, Case{9, CDH_ACTION_FORWARD_PACKET, 1}}) {
    const std::vector<uint8_t> data = c.action == CDH_ACTION_DECRYPT_PACKET   ? kDecryptData
                                      : c.action == CDH_ACTION_ENCRYPT_PACKET ? kEncryptData
                                                                              : Bytes().be32(0x71);
    const auto in = wire_action(c.action, data);
    kestrix_cdh_action out{};
    EXPECT_EQ(kestrix_action_get(c.act_type, &in, &out), c.result) << c.act_type << "/" << c.action;
    EXPECT_EQ(out.action, c.action);
    // The first data word is the SA id or the notify handle.
    EXPECT_EQ(out.data.notify_rp_handle, c.result == 0 ? ntohl(in.data.notify_rp_handle) : 0u);
  }
  test::LogCapture log;
  const auto in = wire_action(CDH_ACTION_ENCRYPT_PACKET, kEncryptData);
  kestrix_cdh_action out{};
  EXPECT_EQ(kestrix_action_get(10, &in, &out), 1);
  EXPECT_EQ(out.action, 0u);
  EXPECT_TRUE(log.has(LOG_ERR, "Wrong action type! "));
}

}  // namespace
}  // namespace cpa
