// Unit-test mode against the fake platform kernel: the key requests an attach
// synthesises, the SAs an ACL install then brings into the kernel, and what
// a tunnel without a scenario does.
#include "pal/unit_test_hooks.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "diag/unit_test_mode.h"
#include "fakes/kernel_test_agent.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

class ConsoleCapture final : public UtConsole {
 public:
  ConsoleCapture() : previous_(set_ut_console(this)) {}
  ~ConsoleCapture() override { set_ut_console(previous_); }
  void write(const char* format, va_list args) override {
    char line[512];
    std::vsnprintf(line, sizeof line, format, args);
    text += line;
  }
  int count(const std::string& what) const {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
  std::string text;

 private:
  UtConsole* previous_;
};

std::vector<uint8_t> attach(uint32_t sadb, uint32_t tunnel_id) {
  return pal_request(5, Bytes().be32(0x31).be32(sadb).be32(tunnel_id).be32(0));
}

std::vector<uint8_t> acl_install(uint32_t sadb) {
  AceSpec ace;
  ace.handle = 0x41;
  ace.any_port = 1;
  return acl_request(kestrix_insert_all,
                     {ace_record(KESTRIX_PAL_ACE_ACL_DESC, ace),
                      action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP,
                                    Bytes().be32(0x77))},
                     0x11, sadb);
}

struct UtWorld {
  UtWorld() { slot = t.open_tunnel(0x100); }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }
  // The datagrams `request` drew.
  size_t answers(const std::vector<uint8_t>& request) {
    t.deliver(request);
    return t.take_sent().size();
  }
  KernelTestAgent t{AgentSettings{.g_unit_test_on = 1}};
  ConsoleCapture console;
  uint32_t slot = 0;
};

struct KeyCase {
  uint32_t tunnel_id;
  uint16_t esp_len, mac_len, ah_len;
  int message_length;
  uint32_t inbound_spi;  // ESP or AH
};

TEST(UnitTestMode, AttachStoresTheScenariosKeyRecordsForBothDirections) {
  for (const KeyCase& c : {KeyCase{2, 16, 20, 0, 321, 0x22221234}, KeyCase{15, 0, 0, 16, 297, 0x15151234}}) {
    SCOPED_TRACE(c.tunnel_id);
    UtWorld w;
    EXPECT_EQ(w.answers(attach(w.slot, c.tunnel_id)), 1u);  // the attach's own answer only
    EXPECT_EQ(w.t.log.count("api_type- [0] Message Length " + std::to_string(c.message_length)), 2);
    const int scenario = kestrix_ut_find_scenario(c.tunnel_id);
    const uint32_t inbound_sa = ut_info[scenario].inb_flowid;
    const uint32_t outbound_sa = static_cast<uint32_t>(ut_info[scenario].out_flowid);
    std::vector<uint32_t> handles;
    for (const kestrix_ce_cipher_list_t& r : w.t.agent.cipher_info_list) {
      handles.push_back(r.ipsec_sa);
      EXPECT_EQ(r.esp_key_info.len, c.esp_len);
      EXPECT_EQ(r.esp_mac_key_info.len, c.mac_len);
      EXPECT_EQ(r.ah_key_info.len, c.ah_len);
      const kestrix_key_val_t& any = c.ah_len ? r.ah_key_info : r.esp_key_info;
      EXPECT_EQ(any.data[0], c.tunnel_id);
      EXPECT_EQ(any.data[any.len - 1], c.tunnel_id);
      EXPECT_EQ(r.ce_cipher.tunnel_id, c.tunnel_id);
    }
    EXPECT_EQ(handles, (std::vector<uint32_t>{outbound_sa, inbound_sa}));  // newest first
    const kestrix_ce_cipher_info& in = w.t.agent.cipher_info_list.head()->next->ce_cipher;
    EXPECT_EQ(in.outbound, 0u);
    EXPECT_EQ(c.ah_len ? in.ah_spi : in.esp_spi, c.inbound_spi);
    EXPECT_EQ(in.dest.ip_address, ut_info[scenario].tun_src);
    EXPECT_EQ(in.source.ip_address, ut_info[scenario].tun_dst);
    char printed[32];
    std::snprintf(printed, sizeof printed, "\nipsec_sa 0x%x\n", inbound_sa);
    EXPECT_EQ(w.console.count(printed), 1);
  }
  EXPECT_EQ(inet_addr("2.3.4.5"), htonl(ut_info[0].tun_src));
  EXPECT_EQ(ut_info[0].inb_flowid, 0x12342222u);
  EXPECT_EQ(static_cast<uint32_t>(ut_info[0].out_flowid), 0x22221234u);
}

// ACL install: SPI insert (which inserts the crypto flow) and peer insert,
// none of them answered. Detach: SPI delete (which deletes the flow) and
// peer delete; the SAs stay until the RP deletes their flows.
TEST(UnitTestMode, AclInstallBringsBothSasIntoTheKernelAndDetachReleasesThePeer) {
  UtWorld w;
  w.answers(attach(w.slot, 2));
  EXPECT_EQ(w.answers(acl_install(w.slot)), 1u);
  std::vector<std::pair<uint32_t, uint32_t>> sas;  // (destination, SPI)
  for (const FakeSa& sa : w.t.kernel.sas()) sas.push_back({ntohl(sa.daddr), ntohl(sa.spi)});
  EXPECT_EQ(sas, (std::vector<std::pair<uint32_t, uint32_t>>{{0x02030405, 0x22221234},
                                                             {0x03040506, 0x12342222}}));
  EXPECT_TRUE(w.t.agent.cipher_info_list.empty());
  EXPECT_EQ(w.tunnel().inb_sa_list.head()->sa, 0x12342222u);
  EXPECT_EQ(w.tunnel().outb_sa_list.head()->sa, 0x22221234u);
  EXPECT_EQ(w.tunnel().peer_handle, 0x456u);

  EXPECT_EQ(w.answers(attach(0, 2)), 1u);
  EXPECT_NE(w.console.text.find("tunn id 2 spi_handle [12342222]\n---^V^V^V flow hdl 0x22221234\n"
                                "tunn id 2 flow_handle [22221234]"),
            std::string::npos);
  EXPECT_EQ(w.tunnel().peer_index, -1);
  EXPECT_EQ(w.t.kernel.sas().size(), 2u);
  EXPECT_EQ(w.console.count("UT ERROR"), 0);
}

TEST(UnitTestMode, ATunnelWithoutScenarioPrintsTheErrorOncePerHookAndChangesNothing) {
  UtWorld w;
  w.answers(attach(w.slot, 77));
  EXPECT_EQ(w.console.text, "UT ERROR: No matching tunnel id found ");
  w.answers(acl_install(w.slot));
  w.answers(attach(0, 77));
  EXPECT_EQ(w.console.count("UT ERROR: No matching tunnel id found "), 5);
  EXPECT_TRUE(w.t.agent.cipher_info_list.empty());
  EXPECT_TRUE(w.t.kernel.sas().empty());
  EXPECT_EQ(w.tunnel().peer_index, -1);
}

TEST(UnitTestMode, SynthesisedKeyLengths) {
  const struct {
    uint32_t cipher, bits, bytes;
  } ciphers[] = {{KESTRIX_CE_DES, 0, 8},   {KESTRIX_CE_3DES, 0, 24},   {KESTRIX_CE_AES, 199, 24},
                 {KESTRIX_CE_SEAL, 0, 20}, {KESTRIX_CE_GCM, 128, 20},  {KESTRIX_CE_GMAC, 256, 36},
                 {KESTRIX_CE_NO_CIPHER, 128, 0}, {KESTRIX_CE_MAX_CIPHER, 128, 0}};
  for (const auto& c : ciphers) EXPECT_EQ(kestrix_ipsec_key_length(c.cipher, c.bits), c.bytes) << c.cipher;
  const uint32_t macs[] = {0, 16, 20, 32, 48, 64, 0};
  for (uint32_t mac = 0; mac < 7; ++mac) EXPECT_EQ(kestrix_ipsec_hash_length(mac), macs[mac]) << mac;
}

}  // namespace
}  // namespace cpa::test
