// SPI inserts and crypto flows over the dispatcher, against the fake
// platform kernel: which key material an SA claims, what reaches the
// kernel, what the tunnel keeps and what the RP is answered.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fakes/kernel_test_agent.h"
#include "support/acl_builder.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

using Records = std::vector<std::vector<uint8_t>>;

std::vector<uint8_t> decrypt(uint32_t sa, uint16_t kind = KESTRIX_PAL_IN_ACTION) {
  return action_record(kind, CDH_ACTION_DECRYPT_PACKET, Bytes().be32(sa).be64(0x102).be16(3));
}
std::vector<uint8_t> encrypt(uint32_t sa, uint16_t kind = KESTRIX_PAL_OUT_ACTION) {
  return action_record(kind, CDH_ACTION_ENCRYPT_PACKET, Bytes().be32(sa).be16(7));
}
std::vector<uint8_t> with_records(Bytes fixed, const Records& records) {
  for (const auto& r : records) fixed.append(r);
  return fixed;
}
// SPI 0x1234 ESP to 10.0.0.2/32 from 10.0.0.1/32, ACE index 9.
std::vector<uint8_t> spi_insert(const Records& records, uint32_t callback = 0xCB, uint32_t sadb = 1) {
  Bytes b;
  b.be32(callback).be32(sadb).be32(0x1234).u8(50).be16(4);
  b.u8(1).u8(4).be32(0x0A000002).zeros(12).be32(32).u8(1).u8(4).be32(0x0A000001).zeros(12).be32(32);
  return pal_request(13, with_records(b.be32(5).be32(6).be32(9), records));
}
std::vector<uint8_t> cflow_insert(const Records& records, uint32_t callback = 0xCB, uint32_t sadb = 1) {
  return pal_request(15, with_records(Bytes().be32(callback).be32(0xC0).be32(sadb).be32(5).be32(6).be32(9).be16(3),
                                      records));
}
std::vector<uint8_t> cflow_modify(const Records& records, uint32_t sadb = 1) {
  return pal_request(16, with_records(Bytes().be32(0xCB).be32(0xC0).be32(sadb).be64(0x61), records));
}
std::vector<uint8_t> answer(uint16_t cmd, uint64_t flow, uint32_t status, uint32_t callback = 0xCB) {
  Bytes b;
  b.be32(callback);
  if (cmd == 13) b.be32(static_cast<uint32_t>(flow));
  if (cmd == 15) b.be64(flow);
  return pal_answer(cmd, b.be32(status));
}

// A tunnel (slot 1, device svti5) and key material waiting for it.
struct SaWorld {
  SaWorld() {
    slot = t.open_tunnel(0x100);
    t.devices.add_device("svti5");
    tunnel().tunnelid = 5;
    t.log.clear();
  }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }
  void key(uint32_t sa, bool outbound, int32_t ceid, bool ah = false) {
    auto r = new_record<kestrix_ce_cipher_list_t>();
    r->ipsec_sa = sa;
    r->ipsec_index = ceid;
    kestrix_ce_cipher_info& c = r->ce_cipher;
    c.outbound = outbound;
    (ah ? c.ah_used : c.esp_used) = 1;
    c.esp_cipher = KESTRIX_CE_AES;
    (ah ? c.ah_spi : c.esp_spi) = 0x5000 + static_cast<uint32_t>(ceid);
    c.mode = CE_TUNNEL;
    c.dest.ip_address = 0x0A000002;
    insert_node_cipher_info(t.agent.cipher_info_list, std::move(r));
  }
  static int32_t ceid(const kestrix_ce_cipher_list_t& record) { return record.ipsec_index; }
  template <class Sa>
  static int32_t ceid(const Sa& sa) { return sa.sa_info->ipsec_index; }
  template <class List>
  static std::vector<int32_t> ceids(const List& list) {
    std::vector<int32_t> out;
    for (const auto& node : list) out.push_back(ceid(node));
    return out;
  }
  std::vector<int32_t> waiting() { return ceids(t.agent.cipher_info_list); }
  KernelTestAgent t;
  uint32_t slot = 0;
};

TEST(SpiInsert, ClaimsTheNewestInboundRecordOfItsSaAndThenAnswersDuplicates) {
  SaWorld w;
  w.key(0x51, false, 1);
  w.key(0x52, false, 4);
  w.key(0x51, false, 3);
  w.key(0x51, true, 2);
  const auto ace = ace_record(KESTRIX_PAL_ACE_ACE_DESC, AceSpec{});
  for (int32_t claimed : {3, 1}) {
    EXPECT_EQ(w.t.exchange(spi_insert({ace, decrypt(0x51)})), answer(13, 0x51, CRYPTO_NO_ERR));
    EXPECT_EQ(w.ceids(w.tunnel().inb_sa_list).front(), claimed);
  }
  EXPECT_EQ(w.waiting(), (std::vector<int32_t>{2, 4}));
  EXPECT_EQ(w.tunnel().inb_sa_list.head()->ace_index, 9u);

  EXPECT_EQ(w.t.exchange(spi_insert({decrypt(0x51)})), answer(13, 0x51, CRYPTO_NO_ERR));
  EXPECT_TRUE(w.t.log.has(LOG_ERR, "Duplicate: insert SPI flow ID 0x51"));
  EXPECT_EQ(w.ceids(w.tunnel().inb_sa_list).size(), 2u);
}

TEST(CryptoFlow, FirstFlowOfAnotherProtocolReprogramsThePoliciesOnce) {
  SaWorld w;
  ASSERT_EQ(w.t.exchange(acl_request(2, {ace_record(1, AceSpec{}), action_record(9, 1, Bytes().be32(7))})),
            pal_answer(9, Bytes().be32(0x11).be32(CRYPTO_NO_ERR)));
  w.key(0x61, true, 1);
  EXPECT_EQ(w.t.exchange(cflow_insert({encrypt(0x61)})), answer(15, 0x61, CRYPTO_NO_ERR));
  EXPECT_TRUE(w.t.log.has(LOG_DEBUG, "No updating of Policy required\n"));
  for (int32_t ceid : {2, 3}) {
    w.key(0x62, true, ceid, true);
    EXPECT_EQ(w.t.exchange(cflow_insert({encrypt(0x62)})), answer(15, 0x62, CRYPTO_NO_ERR));
  }
  // How the policies are re-programmed is tunnel_programming_test's.
  EXPECT_EQ(w.t.log.count("Updating AH/ESP Policies negotiated_proto 51 default_proto 50"), 1);
  EXPECT_EQ(w.tunnel().default_security_protocol, kIpProtoAh);
  EXPECT_EQ(w.tunnel().outb_sa_list.head()->protocol, kIpProtoAh);
  EXPECT_EQ(w.ceids(w.tunnel().outb_sa_list), (std::vector<int32_t>{3, 2, 1}));
}

TEST(SaRequests, RefusalsKeepNothingAndLeaveTheKeyMaterialWaitingUnlessTheKernelSpentIt) {
  const auto decrypt_record = decrypt(0x51);
  const auto cut = [](std::vector<uint8_t> d) { return std::vector<uint8_t>(d.begin(), d.end() - 1); };
  struct Case {
    std::vector<uint8_t> request, answer;
    const char* line;
    bool kernel_refuses = false;
  } cases[] = {
      {spi_insert({decrypt_record}, 0), answer(13, 0, 8, 0), "Callback handle Null"},
      {spi_insert({decrypt_record}, 0xCB, 9), answer(13, 0, 6), "SADB handle 9 not found"},
      {spi_insert({ace_record(1, AceSpec{})}), answer(13, 0, 8), "insert SPI SA error"},
      {spi_insert({encrypt(0x51, KESTRIX_PAL_IN_ACTION)}), answer(13, 0, 8), "Insert Spi Error"},
      {spi_insert({decrypt(0x51, KESTRIX_PAL_IN_DENY_ACTION)}), answer(13, 0, 8), "OUT/IN DENY Insert Spi Error"},
      {spi_insert({decrypt(0x51, 0)}), answer(13, 0, 8), "INSERT SPI : inboud action not found [0] in PAL req"},
      {cut(spi_insert({decrypt_record})), answer(13, 0, 8),
       "INSERT SPI: record at offset 73 passes the end of the PAL req (104 bytes)"},
      {cut(cflow_insert({ace_record(1, AceSpec{}), encrypt(0x61)})), answer(15, 0, 8),
       "INSERT CFLOW: record at offset 154 passes the end of the PAL req (185 bytes)"},
      {spi_insert({decrypt_record}), answer(13, 0, 8), "insert SPI SA error", true},
      {cflow_insert({encrypt(0x61)}, 0), answer(15, 0, 8, 0), "callback handle null"},
      {cflow_insert({encrypt(0x61, KESTRIX_PAL_OUT_DENY_ACTION)}), answer(15, 0, 8), "PAL IN/OUT ACTION null"},
      {cflow_insert({decrypt(0x61, KESTRIX_PAL_OUT_ACTION)}), answer(15, 0, 8), "PAL OUT ACTION null"},
      {cflow_insert({decrypt_record}), answer(15, 0, 1), "Duplicate: insert CFLOW flow ID 0x0"},
      {cflow_insert({action_record(9, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0x77))}),
       answer(15, 0x77, 1), "Duplicate: insert CFLOW flow ID 0x119"},
      {cflow_insert({encrypt(0x61)}), answer(15, 0, 8), "Ins Cflow Error", true},
      {cflow_modify({encrypt(0x61)}, 0), answer(16, 0, 8), "Update cflow error "},
      {cflow_modify({encrypt(0x61), action_record(12, 0)}), answer(16, 0, 8),
       "UPDATE CFLOW : outbound action not found [12] in acl type "},
      {pal_request(17, Bytes().be32(0xCB).be32(9).zeros(16)), answer(17, 0, 6), nullptr},
  };
  for (const Case& c : cases) {
    SaWorld w;
    w.key(0x51, false, 1);
    w.key(0x61, true, 2);
    if (c.kernel_refuses) w.t.kernel.refuse_next(EINVAL);
    const std::string what = c.line ? c.line : "answered " + std::to_string(c.answer.back());
    EXPECT_EQ(w.t.exchange(c.request), c.answer) << what;
    EXPECT_EQ(c.line ? w.t.log.count(c.line) : 1, 1) << what;
    EXPECT_TRUE(w.tunnel().inb_sa_list.empty() && w.tunnel().outb_sa_list.empty()) << what;
    EXPECT_EQ(w.waiting().size(), c.kernel_refuses ? 1u : 2u) << what;
  }
}

// A full list refuses before the kernel hears of the request or a record
// leaves the waiting list. Each answer ends with its status.
TEST(SaRequests, PastATunnelListsCapTheRequestIsRefusedWithOneLineAndChangesNothing) {
  const auto fill = [](auto& list, size_t cap) {
    while (list.size() < cap) list.insert_node(new_record<std::remove_pointer_t<decltype(list.head())>>());
  };
  const std::pair<std::vector<uint8_t>, std::string> cases[] = {
      {spi_insert({decrypt(0x51)}), "INSERT SPI: tunnel 1 holds 64 inbound SAs"},
      {cflow_insert({encrypt(0x61)}), "INSERT CFLOW: tunnel 1 holds 64 outbound SAs"},
      {cflow_modify({encrypt(0x61)}), "UPDATE CFLOW: tunnel 1 holds 64 outbound SAs"},
      {acl_request(2, {ace_record(1, AceSpec{}), action_record(9, 1, Bytes().be32(7))}),
       "ACL MODIFY: tunnel 1 holds 64 policies"},
  };
  for (const auto& [request, line] : cases) {
    SaWorld w;
    w.key(0x51, false, 1);
    w.key(0x61, true, 2);
    fill(w.tunnel().inb_sa_list, kMaxSasPerDirection);
    fill(w.tunnel().outb_sa_list, kMaxSasPerDirection);
    fill(w.tunnel().head_policy, kMaxPoliciesPerTunnel);
    const size_t sent = w.t.kernel.requests().size();
    const auto answer = w.t.exchange(request);
    EXPECT_EQ(be32_at(answer, answer.size() - 4), CRYPTO_ERR_RESOURCES) << line;
    EXPECT_EQ(w.t.log.texts(LOG_ERR), std::vector<std::string>{line + ", the most it may; request refused"});
    EXPECT_EQ(w.t.kernel.requests().size(), sent) << line;
    EXPECT_EQ(w.tunnel().inb_sa_list.size() + w.tunnel().outb_sa_list.size() + w.tunnel().head_policy.size(),
              3 * 64u);
    EXPECT_EQ(w.waiting().size(), 2u) << line;
  }
}

}  // namespace
}  // namespace cpa::test
