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
#include "fakes/log_capture.h"
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
  return acl_request(kestrix_insert_all,
                     {ace_record(KESTRIX_PAL_ACE_ACL_DESC, ace),
                      action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0x77))},
                     0x11, sadb);
}

struct UtWorld {
  UtWorld() { slot = t.open_tunnel(0x100); }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }
  // How many datagrams `request` drew.
  size_t answers(const std::vector<uint8_t>& request) {
    t.deliver(request);
    return t.take_sent().size();
  }
  KernelTestAgent t{AgentSettings{.g_unit_test_on = 1}};
  ConsoleCapture console;
  uint32_t slot = 0;
};

TEST(UnitTestMode, AttachStoresTheScenariosKeyRecordsForBothDirections) {
  const struct {
    uint32_t tunnel_id, inbound_sa, outbound_sa, inbound_spi;
    uint16_t esp_len, mac_len, ah_len;
    int message_length;
  } cases[] = {{2, 0x12342222, 0x22221234, 0x22221234, 16, 20, 0, 321},
               {15, 0x12341515, 0x15151234, 0x15151234, 0, 0, 16, 297}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tunnel_id);
    UtWorld w;
    EXPECT_EQ(w.answers(attach(w.slot, c.tunnel_id)), 1u);  // the attach's own answer only
    EXPECT_EQ(w.t.log.count("api_type- [0] Message Length " + std::to_string(c.message_length)), 2);
    std::vector<uint32_t> handles;
    for (const kestrix_ce_cipher_list_t& r : w.t.agent.cipher_info_list) {
      handles.push_back(r.ipsec_sa);
      EXPECT_EQ(r.esp_key_info.len, c.esp_len);
      EXPECT_EQ(r.esp_mac_key_info.len, c.mac_len);
      EXPECT_EQ(r.ah_key_info.len, c.ah_len);
      const kestrix_key_val_t& key = c.ah_len ? r.ah_key_info : r.esp_key_info;
      EXPECT_EQ(key.data[key.len - 1], c.tunnel_id);
    }
    EXPECT_EQ(handles, (std::vector<uint32_t>{c.outbound_sa, c.inbound_sa}));  // newest first
    const kestrix_ce_cipher_info& in = w.t.agent.cipher_info_list.head()->next->ce_cipher;
    EXPECT_EQ(in.outbound, 0u);
    EXPECT_EQ(c.ah_len ? in.ah_spi : in.esp_spi, c.inbound_spi);
  }
}

// ACL install: SPI insert (which inserts the crypto flow) and peer insert,
// none of them answered. Detach: SPI delete (which deletes the flow) and
// peer delete; the SAs stay until the RP deletes their flows. The console
// text of both scenarios, attach to detach, is in testdata.
TEST(UnitTestMode, AclInstallBringsBothSasIntoTheKernelAndDetachReleasesThePeer) {
  std::string console;
  for (uint32_t tunnel_id : {2, 15}) {
    SCOPED_TRACE(tunnel_id);
    UtWorld w;
    w.answers(attach(w.slot, tunnel_id));
    EXPECT_EQ(w.answers(acl_install(w.slot)), 1u);
    EXPECT_TRUE(w.t.agent.cipher_info_list.empty());
    EXPECT_EQ(w.tunnel().peer_handle, 0x456u);
    if (tunnel_id == 2) {
      std::vector<std::pair<uint32_t, uint32_t>> sas;  // (destination, SPI)
      for (const FakeSa& sa : w.t.kernel.sas()) sas.push_back({ntohl(sa.daddr), ntohl(sa.spi)});
      EXPECT_EQ(sas, (std::vector<std::pair<uint32_t, uint32_t>>{{0x02030405, 0x22221234}, {0x03040506, 0x12342222}}));
    }
    EXPECT_EQ(w.answers(attach(0, tunnel_id)), 1u);
    EXPECT_EQ(w.tunnel().peer_index, -1);
    console += "== tunnel " + std::to_string(tunnel_id) + "\n" + w.console.text + "\n";
  }
  // The console names the source line that wrote the keys; it is not behaviour.
  const std::string writer = "kestrix_ipsec_send_keys_to_ce,";
  for (size_t at = console.find(writer); at != std::string::npos; at = console.find(writer, at)) {
    at += writer.size();
    console.replace(at, console.find_first_not_of("0123456789", at) - at, "LINE");
  }
  EXPECT_EQ(console, read_file(CPA_TESTDATA "/unit_test_console.txt"));
}

TEST(UnitTestMode, ATunnelWithoutScenarioPrintsTheErrorOncePerHookAndChangesNothing) {
  UtWorld w;
  const std::string error = "UT ERROR: No matching tunnel id found ";
  w.answers(attach(w.slot, 77));
  EXPECT_EQ(w.console.text, error);
  w.answers(acl_install(w.slot));
  w.answers(attach(0, 77));
  EXPECT_EQ(w.console.text, error + error + error + error + error);
  EXPECT_TRUE(w.t.agent.cipher_info_list.empty());
  EXPECT_EQ(w.tunnel().peer_index, -1);
}

}  // namespace
}  // namespace cpa::test
