// Unit-test mode against the fake platform kernel: the key requests an attach
// synthesises, the SAs an ACL install then brings into the kernel, and what
// a tunnel without a scenario does.
#include "pal/unit_test_hooks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diag/unit_test_mode.h"
#include "fakes/kernel_test_agent.h"
#include "fakes/log_capture.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

std::vector<uint8_t> attach(uint32_t sadb, uint32_t tunnel_id) {
  return pal_request(5, Bytes().be32(0x31).be32(sadb).be32(tunnel_id).be32(0));
}

std::vector<uint8_t> acl_install(uint32_t sadb) {
  return acl_request(kestrix_insert_all,
                     {ace_record(KESTRIX_PAL_ACE_ACL_DESC, {.handle = 0x41}),
                      action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0x77))},
                     0x11, sadb);
}

// Attach stores the scenario's key records (outbound newest, the last key
// byte telling the tunnel); ACL install runs SPI insert (which inserts the
// crypto flow) and peer insert, none of them answered; detach runs SPI
// delete (which deletes the flow) and peer delete. The console text of both
// scenarios, attach to detach, is in testdata.
TEST(UnitTestMode, AttachStoresTheKeysAclInstallTakesThemAndDetachReleasesThePeer) {
  const struct {
    uint32_t tunnel_id, inbound_sa, outbound_sa;
    uint16_t esp_len, mac_len, ah_len;
  } cases[] = {{2, 0x12342222, 0x22221234, 16, 20, 0}, {15, 0x12341515, 0x15151234, 0, 0, 16}};
  std::string console;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tunnel_id);
    ConsoleCapture lines;
    KernelTestAgent t{AgentSettings{.g_unit_test_on = 1}};
    const uint32_t slot = t.open_tunnel(0x100);
    const auto answers = [&t](const std::vector<uint8_t>& request) {  // how many datagrams it drew
      t.deliver(request);
      return t.take_sent().size();
    };
    EXPECT_EQ(answers(attach(slot, c.tunnel_id)), 1u);  // the attach's own answer only
    std::vector<std::vector<uint32_t>> records;
    for (const kestrix_ce_cipher_list_t& r : t.agent.cipher_info_list) {
      const kestrix_key_val_t& key = c.ah_len ? r.ah_key_info : r.esp_key_info;
      records.push_back({r.ipsec_sa, r.ce_cipher.outbound, r.esp_key_info.len, r.esp_mac_key_info.len,
                         r.ah_key_info.len, key.data[key.len - 1]});
    }
    EXPECT_EQ(records, (std::vector<std::vector<uint32_t>>{
                           {c.outbound_sa, 1, c.esp_len, c.mac_len, c.ah_len, c.tunnel_id},
                           {c.inbound_sa, 0, c.esp_len, c.mac_len, c.ah_len, c.tunnel_id}}));
    const kestrix_ce_cipher_info& in = t.agent.cipher_info_list.head()->next->ce_cipher;
    EXPECT_EQ(c.ah_len ? in.ah_spi : in.esp_spi, c.outbound_sa);  // the inbound SPI
    EXPECT_EQ(answers(acl_install(slot)), 1u);
    EXPECT_TRUE(t.agent.cipher_info_list.empty());
    EXPECT_EQ(t.agent.tunnels.at(slot)->peer_handle, 0x456u);
    EXPECT_EQ(answers(attach(0, c.tunnel_id)), 1u);
    EXPECT_EQ(t.agent.tunnels.at(slot)->peer_index, -1);
    console += "== tunnel " + std::to_string(c.tunnel_id) + "\n" + lines.text + "\n";
  }
  // The console names the source line that wrote the keys; it is not behaviour.
  for (size_t at = 0; (at = console.find("_to_ce,", at)) != std::string::npos; at += 11)
    console.replace(at + 7, console.find('\n', at) - at - 7, "LINE");
  EXPECT_EQ(console, read_file(CPA_TESTDATA "/unit_test_console.txt"));
}

// Each hook (two on attach, two on ACL install, one on detach) says so once and does nothing.
TEST(UnitTestMode, ATunnelWithoutScenarioOnlySaysSo) {
  ConsoleCapture lines;
  KernelTestAgent t{AgentSettings{.g_unit_test_on = 1}};
  const uint32_t slot = t.open_tunnel(0x100);
  for (const auto& request : {attach(slot, 77), acl_install(slot), attach(0, 77)}) t.deliver(request);
  const std::string error = "UT ERROR: No matching tunnel id found ";
  EXPECT_EQ(lines.text, error + error + error + error + error);
  EXPECT_TRUE(t.agent.cipher_info_list.empty());
}

}  // namespace
}  // namespace cpa::test
