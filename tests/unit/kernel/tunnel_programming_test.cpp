// A tunnel's kernel programming against the fake platform kernel, under the platform's backend and under
// a stock kernel's policy facts (forward copies, templates following the SAs, removal by selector).
#include "kernel/tunnel_programming.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "fakes/kernel_test_agent.h"

namespace cpa::test {
namespace {

using Lines = std::vector<std::string>;
const std::string kAhTunnel = " tmpl51/m1/r1";  // a policy's template, as the fake describes it

const KernelBackend kPlatform = kernel_backend(KernelFlavour::kPlatform);
const KernelBackend kStockFacts{platform_dialect(), platform_device_ops(), 8, true, true, true,
                                CounterSource::kKernelSas};

// ACE `h`: local 10.0.0.h/24 port 1000+h, remote 192.168.h.1/16 port 2000+h, UDP.
kestrix_crypto_ace ace(uint32_t h, uint32_t type = kestrix_ace_permit, uint32_t ip_type = crypto_ace_ipv4) {
  kestrix_crypto_ace a{};
  a.ip_type = ip_type;
  a.type = type;
  a.handle = h;
  kestrix_crypto_ace_ipv4& ip4 = a.selector.ipv4;
  ip4.local_addr = 0x0A000000 + h;
  ip4.local_mask = 24;
  ip4.remote_addr = 0xC0A80001 + (h << 8);
  ip4.remote_mask = 16;
  ip4.protocol = 17;
  ip4.local_port.port[0] = static_cast<uint16_t>(1000 + h);
  ip4.remote_port.port[0] = static_cast<uint16_t>(2000 + h);
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
    svti = "svti" + std::to_string(t.devices.device("svti5")->ifindex);
    t.log.clear();
  }
  const KernelBackend& backend() const { return *GetParam(); }
  bool stock() const { return GetParam() == &kStockFacts; }
  cpa_interface_t& tunnel() { return *t.agent.tunnels.at(slot); }

  // A kernel policy of ace(h) as the fake describes it: `dir` "out", "in" or "fwd"; `type` 19 add, 20 delete,
  // 25 update.
  std::string policy_of(uint32_t h, const std::string& dir, int type = 19, int action = 0,
                        const std::string& tmpl = " tmpl50/m0/r1", int index = 0) const {
    const std::string local = "10.0.0." + std::to_string(h) + "/24:" + std::to_string(1000 + h);
    const std::string remote = "192.168." + std::to_string(h) + ".1/16:" + std::to_string(2000 + h);
    const bool out = dir == "out";
    const bool del = type == 20;
    const std::string d = out ? " dir1 " : dir == "in" ? " dir0 " : " dir2 ";
    return std::to_string(type) + d + (del ? "idx" + std::to_string(index) + " " : "act" + std::to_string(action) + " ") +
           (out ? local + ">" + remote : remote + ">" + local) + " p17 " + svti + (del ? "" : " idx0" + tmpl);
  }
  // The inbound policies of ace(h): with its forward copy under a stock kernel's facts.
  Lines inbound(uint32_t h, int type = 19, int action = 0, const std::string& tmpl = " tmpl50/m0/r1") const {
    Lines out{policy_of(h, "in", type, action, tmpl)};
    if (stock()) out.push_back(policy_of(h, "fwd", type, action, tmpl));
    return out;
  }
  static Lines join(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
  }
  Lines kernel_requests() {
    const auto all = t.kernel.requests();
    Lines out;
    for (size_t i = seen; i < all.size(); ++i) out.push_back(describe_policy(all[i]));
    seen = all.size();
    return out;
  }
  // Installs `p` and links it to the tunnel.
  ce_status_t install(std::unique_ptr<cpa_spd_policy_t> p) {
    const ce_status_t status = program.install_policy(tunnel(), p.get(), 0);
    if (status == CRYPTO_NO_ERR) insert_node_policy(tunnel().head_policy, std::move(p));
    return status;
  }

  KernelTestAgent t;
  TunnelKernelProgram program{t.agent.nlink, backend(), t.agent.counters.netlink_dbg_ctrs, 0};
  uint32_t slot = 0;
  std::string svti;
  size_t seen = 0;
  cpa_netlink_global_ctr_t& nl = t.agent.counters.netlink_dbg_ctrs;
};

TEST_P(Programming, InstallProgramsEveryAceBothWaysAndPutsTheTwinsAtTheHead) {
  auto p = policy({ace(1), ace(2, kestrix_ace_deny_action)});
  ASSERT_EQ(program.install_policy(tunnel(), p.get(), 0), CRYPTO_NO_ERR);
  EXPECT_EQ(kernel_requests(),
            join({{policy_of(1, "out")}, inbound(1), {policy_of(2, "out", 19, 1)}, inbound(2, 19, 1)}));
  std::vector<std::pair<uint32_t, uint32_t>> list;  // handle, direction
  for (const ace_netlink_t& a : p->ace_entry) list.push_back({a.ace.handle, a.dir});
  EXPECT_EQ(list, (std::vector<std::pair<uint32_t, uint32_t>>{{0, 0}, {0, 0}, {1, 1}, {2, 1}}));
  // A twin mirrors the selector (its kernel policies show it) and nothing else.
  const kestrix_crypto_ace& twin = p->ace_entry.head()->ace;
  EXPECT_EQ(twin.ip_type + twin.type + twin.selector.ipv4.local_port.num_port, 0u);
  EXPECT_EQ(nl.n_outbound_policy_add.resp_ok + nl.n_inbound_policy_add.resp_ok, 4u);  // forward copies uncounted
}

TEST_P(Programming, RefusedInstallsTakeBackOnlyTheFailingAce) {
  struct Case {
    const char* what;
    std::vector<kestrix_crypto_ace> aces;
    uint32_t notify;          // the RP's handle, 0 for none
    std::vector<int> errors;  // per kernel request, 0: served
    ce_status_t status;
    Lines requests;
    const char* line;
    size_t kept;  // kernel policies left: those of the ACEs before the failing one
  };
  const size_t per_ace = stock() ? 3 : 2;
  const Lines taken_back = stock() ? Lines{policy_of(2, "in", 20)} : Lines{};
  const Case cases[] = {
      {"outbound refused", {ace(1)}, 0x77, {EEXIST}, CRYPTO_ERR_INTERNAL, {policy_of(1, "out")},
       "Error in outbound policy creation", 0},
      {"deny-jump ACE", {ace(3), ace(1, kestrix_ace_deny_jump)}, 0x77, {}, CRYPTO_ERR_UNSUPPORTED,
       join({{policy_of(3, "out")}, inbound(3)}), "ERROR: wrong ace type", per_ace},
      {"IPv6 ACE", {ace(4, kestrix_ace_permit, 6)}, 0x77, {}, CRYPTO_ERR_INVALID, {}, nullptr, 0},
      {"no RP to notify", {ace(1)}, 0, {}, CRYPTO_ERR_INVALID, {}, "ERROR: Can't update/add policy", 0},
  };
  for (const Case& c : cases) {
    t.log.clear();
    for (int e : c.errors) t.kernel.refuse_next(e);
    const size_t before = t.kernel.policies().size();
    EXPECT_EQ(program.install_policy(tunnel(), policy(c.aces, c.notify).get(), 0), c.status) << c.what;
    EXPECT_EQ(kernel_requests(), c.requests) << c.what;
    EXPECT_TRUE(!c.line || t.log.has(LOG_ERR, c.line)) << c.what;
    EXPECT_EQ(t.kernel.policies().size() - before, c.kept) << c.what;
  }
  // The inbound policy refused in its last direction: the ones before and the outbound one are taken back.
  for (size_t i = 0; i + 1 < per_ace * 2; ++i) t.kernel.refuse_next(0);
  t.kernel.refuse_next(EEXIST);
  EXPECT_EQ(program.install_policy(tunnel(), policy({ace(1), ace(2)}).get(), 0), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(kernel_requests(), join({{policy_of(1, "out")}, inbound(1), {policy_of(2, "out")}, inbound(2),
                                     taken_back, {policy_of(2, "out", 20)}}));
  EXPECT_TRUE(t.log.has(LOG_ERR, "Error in inbound policy creation"));
  EXPECT_EQ(nl.n_outbound_policy_del.req + nl.n_outbound_policy_del.resp_ok, 2u);
}

TEST_P(Programming, RemovalGoesTwinsFirstByIndexOrSelectorAndStopsAtTheFirstRefusal) {
  EXPECT_EQ(program.remove_newest_policy(tunnel(), slot), CRYPTO_ERR_INTERNAL);
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "ERROR: no policy in sadb [1] to delete"));
  ASSERT_EQ(install(policy({})), CRYPTO_NO_ERR);
  EXPECT_EQ(program.remove_newest_policy(tunnel(), slot), CRYPTO_ERR_INTERNAL);
  EXPECT_TRUE(t.log.has(LOG_ERR, "ERROR: no ace for policy at index 1"));

  ASSERT_EQ(install(policy({ace(2), ace(3)})), CRYPTO_NO_ERR);
  // The kernel's event told the index of ace(3)'s inbound policy (after out(2), in(2), [fwd(2),] out(3)).
  const int told = static_cast<int>(t.kernel.policies()[stock() ? 4 : 3].index);
  tunnel().head_policy.head()->ace_entry.head()->k_index = told;
  kernel_requests();
  ASSERT_EQ(program.remove_newest_policy(tunnel(), slot), CRYPTO_NO_ERR);
  Lines expected{policy_of(3, "in", 20, 0, "", stock() ? 0 : told)};
  if (stock()) expected.push_back(policy_of(3, "fwd", 20));
  expected = join({expected, inbound(2, 20), {policy_of(2, "out", 20), policy_of(3, "out", 20)}});
  EXPECT_EQ(kernel_requests(), expected);
  EXPECT_EQ(nl.n_inbound_policy_del.resp_ok + nl.n_outbound_policy_del.resp_ok, 4u);

  t.kernel.refuse_next(ENOENT);
  EXPECT_EQ(program.remove_newest_policy(tunnel(), slot), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(kernel_requests().size(), 1u);
  EXPECT_TRUE(t.log.has(LOG_ERR, " ERROR: Could not delete policy"));
  EXPECT_EQ(nl.n_inbound_policy_del.resp_err, 1u);
}

TEST_P(Programming, ReprogrammingUpdatesEveryAceAndTwinUnlessTheTemplatesFollowTheSas) {
  if (stock()) {
    ASSERT_EQ(install(policy({ace(1)})), CRYPTO_NO_ERR);
    kernel_requests();
    EXPECT_EQ(program.reprogram(tunnel(), 1, kIpProtoAh), 0);
    EXPECT_TRUE(kernel_requests().empty());
    return;
  }
  EXPECT_NE(program.reprogram(tunnel(), 1, kIpProtoAh), 0);
  EXPECT_TRUE(t.log.has(LOG_ERR, "No Policies found"));
  ASSERT_EQ(install(policy({})), CRYPTO_NO_ERR);
  EXPECT_NE(program.reprogram(tunnel(), 1, kIpProtoAh), 0);  // no ACE
  ASSERT_EQ(install(policy({ace(1), ace(2, kestrix_ace_deny_action)})), CRYPTO_NO_ERR);
  kernel_requests();

  ASSERT_EQ(program.reprogram(tunnel(), 1, kIpProtoAh), 0);
  // The twin of the deny ACE goes back as allow.
  EXPECT_EQ(kernel_requests(), (Lines{policy_of(2, "in", 25, 0, kAhTunnel), policy_of(1, "in", 25, 0, kAhTunnel),
                                      policy_of(1, "out", 25, 0, kAhTunnel), policy_of(2, "out", 25, 1, kAhTunnel)}));
  EXPECT_EQ(nl.n_outbound_policy_add.req, 4u);  // two from the install, two updates
  EXPECT_EQ(nl.n_inbound_policy_add.req, 2u);

  t.kernel.refuse_next(0);
  t.kernel.refuse_next(ENOENT);
  EXPECT_NE(program.reprogram(tunnel(), 0, kIpProtoEsp), 0);
  EXPECT_EQ(kernel_requests().size(), 2u);
}

TEST_P(Programming, SasAreHandedOverAndThePoliciesFollowANewOutboundTemplate) {
  cpa_netlink_ctr_t& ctr = nl.n_outbound_sa_add;
  EXPECT_EQ(program.add_sa(tunnel(), nullptr, ctr), 0);  // callers take 0 as success
  EXPECT_TRUE(t.log.has(LOG_DEBUG, "Null sa info"));
  const kestrix_ce_cipher_list_t neither_esp_nor_ah{};
  EXPECT_NE(program.add_sa(tunnel(), &neither_esp_nor_ah, ctr), 0);
  EXPECT_EQ(ctr.req + ctr.resp_err, 2u);
  EXPECT_EQ(t.kernel.requests().size(), 1u);  // refused by the kernel

  ASSERT_EQ(install(policy({ace(1)})), CRYPTO_NO_ERR);
  kernel_requests();
  kestrix_ce_cipher_list_t inbound_ah, transport_esp, tunnel_ah;
  EXPECT_EQ(program.add_sa(tunnel(), &record(inbound_ah, true, true, false), nl.n_inbound_sa_add), 0);
  EXPECT_EQ(program.add_sa(tunnel(), &record(transport_esp, false, false), ctr), 0);  // the policies' template
  EXPECT_EQ(t.kernel.sas().size(), 2u);
  EXPECT_EQ(kernel_requests().size(), 2u);  // the SAs only
  EXPECT_EQ(program.add_sa(tunnel(), &record(tunnel_ah, true, true), ctr), 0);
  Lines after = kernel_requests();
  after.erase(after.begin());  // the SA
  EXPECT_EQ(after, stock() ? join({inbound(1, 25, 0, kAhTunnel), {policy_of(1, "out", 25, 0, kAhTunnel)}}) : Lines{});
  EXPECT_EQ(ctr.resp_ok, 2u);
}

INSTANTIATE_TEST_SUITE_P(Backends, Programming, ::testing::Values(&kPlatform, &kStockFacts),
                         [](const auto& info) { return info.param == &kPlatform ? "Platform" : "StockFacts"; });

}  // namespace
}  // namespace cpa::test
