// A tunnel's kernel programming against the fake platform kernel, under the platform's backend and under
// a stock kernel's policy facts (forward copies, templates following the SAs, removal by selector). One
// scenario runs under each; its outcomes, kernel requests, error lines and counters are compared with the
// backend's transcript, testdata/tunnel_programming_<backend>.txt.
#include "kernel/tunnel_programming.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "fakes/kernel_test_agent.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

const KernelBackend kPlatform = kernel_backend(KernelFlavour::kPlatform);
const KernelBackend kStockFacts{platform_dialect(), platform_device_ops(), 8, true, true, true,
                                CounterSource::kKernelSas};

// ACE `h`: local 10.0.0.h/24 port 1000+h, remote 192.168.h.1/16 port 2000+h, UDP.
kestrix_crypto_ace ace(uint32_t h, uint32_t type = kestrix_ace_permit, uint32_t ip_type = crypto_ace_ipv4) {
  kestrix_crypto_ace a{};
  a.ip_type = ip_type;
  a.type = type;
  a.handle = h;
  a.selector.ipv4 = {0x0A000000 + h, 24, 0xC0A80001 + (h << 8), 16, 17, 0, 0,
                     {0, 0, {static_cast<uint16_t>(1000 + h)}}, {0, 0, {static_cast<uint16_t>(2000 + h)}}};
  return a;
}

// A policy whose outbound action notifies the RP (handle `notify`), with the ACEs in list order.
std::unique_ptr<cpa_spd_policy_t> policy(const std::vector<kestrix_crypto_ace>& aces, uint32_t notify = 0x77) {
  auto p = new_record<cpa_spd_policy_t>();
  p->outbound.action = CDH_ACTION_DISCARD_PACKET_NOTIFY_RP;
  p->outbound.data.notify_rp_handle = notify;
  for (auto it = aces.rbegin(); it != aces.rend(); ++it) {
    auto node = new_record<ace_netlink_t>();
    node->ace = *it;
    node->dir = kAceDirOut;
    insert_node_ace(p->ace_entry, std::move(node));
  }
  return p;
}

// An AES or AH cipher record, its SPI told by its kind.
kestrix_ce_cipher_list_t& record(kestrix_ce_cipher_list_t& r, bool ah, bool tunnel_mode, bool outbound = true) {
  kestrix_ce_cipher_info& c = r.ce_cipher;
  c.outbound = outbound;
  (ah ? c.ah_used : c.esp_used) = 1;
  (ah ? c.ah_spi : c.esp_spi) = 0x5000 + (ah ? 1 : 0) + (tunnel_mode ? 2 : 0) + (outbound ? 4 : 0);
  c.esp_cipher = KESTRIX_CE_AES;
  c.mode = tunnel_mode ? CE_TUNNEL : CE_TRANSPORT;
  c.dest.ip_address = 0x0A000002;
  return r;
}

class Programming : public ::testing::TestWithParam<const KernelBackend*> {
 protected:
  Programming() {
    slot = t.open_tunnel(0x100);
    t.devices.add_device("svti5");
    tunnel().tunnelid = 5;
  }
  bool stock() const { return GetParam() == &kStockFacts; }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }

  // Runs `action` and writes down its outcome (a ce_status_t for installs and removals, 1 for success; 0 or
  // an error for the others), the kernel requests it made and the errors it logged.
  void step(const std::string& what, const std::function<int()>& action) {
    t.log.clear();
    const size_t seen = t.kernel.requests().size();
    const int outcome = action();
    transcript += "== " + what + ": " + std::to_string(outcome) + "\n";
    const auto requests = t.kernel.requests();
    for (auto m = requests.begin() + seen; m != requests.end(); ++m)
      transcript += (u16_at(*m, 4) == XFRM_MSG_NEWSA ? "sa " + describe_sa(*m) : describe_policy(*m)) + "\n";
    for (const LogLine& l : t.log.lines())
      if (l.priority <= LOG_ERR) transcript += "error: " + l.text + (l.text.ends_with('\n') ? "" : "\n");
  }
  // Installs `p` and links it to the tunnel.
  int install(std::unique_ptr<cpa_spd_policy_t> p) {
    const ce_status_t status = program.install_policy(tunnel(), p.get(), 0);
    if (status == CRYPTO_NO_ERR) insert_node_policy(tunnel().head_policy, std::move(p));
    return status;
  }
  void counters(const char* name, const cpa_netlink_ctr_t& c) {
    transcript += std::string(name) + " " + std::to_string(c.req) + "/" + std::to_string(c.resp_ok) + "/" +
                  std::to_string(c.resp_err) + "\n";
  }

  KernelTestAgent t;
  TunnelKernelProgram program{t.agent.nlink, *GetParam(), t.agent.counters.netlink_dbg_ctrs, 0};
  uint32_t slot = 0;
  std::string transcript;
  cpa_netlink_global_ctr_t& nl = t.agent.counters.netlink_dbg_ctrs;
};

TEST_P(Programming, FollowsTheTranscriptOfItsBackend) {
  step("reprogram without policies", [&] { return program.reprogram(tunnel(), 1, kIpProtoAh); });
  step("install a policy without ACEs", [&] { return install(policy({})); });
  step("reprogram it", [&] { return program.reprogram(tunnel(), 1, kIpProtoAh); });
  step("install ace 1 and deny ace 2", [&] { return install(policy({ace(1), ace(2, kestrix_ace_deny_action)})); });
  // The twins go to the head, mirroring the selector (their kernel policies show it) and nothing else.
  std::vector<std::pair<uint32_t, uint32_t>> list;  // handle, direction
  for (const ace_netlink_t& a : tunnel().head_policy.head()->ace_entry) list.push_back({a.ace.handle, a.dir});
  EXPECT_EQ(list, (std::vector<std::pair<uint32_t, uint32_t>>{{0, 0}, {0, 0}, {1, 1}, {2, 1}}));
  const kestrix_crypto_ace& twin = tunnel().head_policy.head()->ace_entry.head()->ace;
  EXPECT_EQ(twin.ip_type + twin.type + twin.selector.ipv4.local_port.num_port, 0u);

  // A refused install takes back every kernel policy it added, twins and forward copies included.
  step("install ace 3 and deny-jump ace 1", [&] { return install(policy({ace(3), ace(1, kestrix_ace_deny_jump)})); });
  step("install an IPv6 ace", [&] { return install(policy({ace(4, kestrix_ace_permit, 6)})); });
  step("install without an RP to notify", [&] { return install(policy({ace(4)}, 0)); });
  for (int i = 0; i + 1 < (stock() ? 6 : 4); ++i) t.kernel.refuse_next(0);  // served up to the last one
  t.kernel.refuse_next(EEXIST);
  step("install aces 4 and 5, the last inbound refused", [&] { return install(policy({ace(4), ace(5)})); });

  // SAs go to the kernel; under the stock facts the policies follow a new outbound template.
  step("add no SA", [&] { return program.add_sa(tunnel(), nullptr, nl.n_outbound_sa_add); });
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Null sa info"));
  kestrix_ce_cipher_list_t inbound_ah, transport_esp, tunnel_ah;
  const auto add = [&](kestrix_ce_cipher_list_t& r, cpa_netlink_ctr_t& ctr) {
    return [this, r = &r, ctr = &ctr] { return program.add_sa(tunnel(), r, *ctr); };
  };
  step("add inbound AH", add(record(inbound_ah, true, true, false), nl.n_inbound_sa_add));
  step("add ESP transport", add(record(transport_esp, false, false), nl.n_outbound_sa_add));
  step("add AH tunnel", add(record(tunnel_ah, true, true), nl.n_outbound_sa_add));
  step("reprogram to AH", [&] { return program.reprogram(tunnel(), 1, kIpProtoAh); });

  // Removal goes twins first; the platform names the one whose index the kernel's event told (ace 2's inbound).
  for (const FakePolicy& p : t.kernel.policies())
    if (p.dir == 0 && describe_policy(p.request).find(">10.0.0.2/") != std::string::npos)
      tunnel().head_policy.head()->ace_entry.head()->k_index = static_cast<int>(p.index);
  step("remove the newest policy", [&] { return program.remove_newest_policy(tunnel(), slot); });
  step("install ace 6", [&] { return install(policy({ace(6)})); });
  t.kernel.refuse_next(ENOENT);
  step("remove it, refused", [&] { return program.remove_newest_policy(tunnel(), slot); });

  counters("outbound policy add", nl.n_outbound_policy_add);
  counters("inbound policy add", nl.n_inbound_policy_add);
  counters("outbound policy del", nl.n_outbound_policy_del);
  counters("inbound policy del", nl.n_inbound_policy_del);
  counters("outbound SA add", nl.n_outbound_sa_add);
  counters("inbound SA add", nl.n_inbound_sa_add);
  const std::string backend = stock() ? "stock" : "platform";
  EXPECT_EQ(transcript, read_file(CPA_TESTDATA "/tunnel_programming_" + backend + ".txt"));
}

INSTANTIATE_TEST_SUITE_P(Backends, Programming, ::testing::Values(&kPlatform, &kStockFacts),
                         [](const auto& info) { return info.param == &kPlatform ? "Platform" : "StockFacts"; });

}  // namespace
}  // namespace cpa::test
