// The agent's sockets and requests against the running kernel's NETLINK_XFRM,
// inside a network namespace made for the test (root only). The stock kernel
// does not take the platform's add requests, but it answers gets and
// deletes of absent objects with its real errors.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "fakes/log_capture.h"
#include "fakes/test_agent.h"
#include "kernel/linux_sa_counters.h"
#include "kernel/netlink_listener.h"
#include "kernel/netlink_socket.h"
#include "kernel/netlink_transport.h"
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"
#include "pal/policy_sync.h"
#include "platform/tunnel_devices.h"
#include "support/acl_builder.h"

namespace cpa::test {
namespace {

// Runs `body` on a thread of its own that has entered a fresh network
// namespace; false when the namespace could not be made.
bool in_fresh_network_namespace(const std::function<void()>& body) {
  bool entered = false;
  std::thread([&] {
    if (unshare(CLONE_NEWNET) != 0) return;
    entered = true;
    body();
  }).join();
  return entered;
}

sockaddr_nl bound_address(int fd) {
  sockaddr_nl local{};
  socklen_t len = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
  return local;
}

TEST(RealKernel, SocketsBindAndAbsentObjectsComeBackWithTheKernelsErrors) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
  const bool ran = in_fresh_network_namespace([] {
    LogCapture log;
    ScopedFd request = kestrix_nlink_socket_create(0);
    ScopedFd monitor = kestrix_nlink_socket_create(8);
    ASSERT_TRUE(request.valid());
    ASSERT_TRUE(monitor.valid());
    EXPECT_EQ(bound_address(request.get()).nl_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(bound_address(request.get()).nl_groups, 0u);
    EXPECT_EQ(bound_address(monitor.get()).nl_groups, 8u);
    EXPECT_FALSE(kestrix_nlink_socket_create(0x20).valid());
    EXPECT_TRUE(log.has(LOG_ERR, "Cannot create socket with wrong N/L group"));

    KernelNetDeviceSysCalls devices;
    NetlinkTransport nl(devices);
    nl.attach(std::move(request));
    XfrmPolicyArgs policy;
    policy.dst = 0x0a000002;
    policy.dmask = 32;
    policy.dir = 1;
    cpa_netlink_ctr_t ctr;
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 0, policy, 0, &ctr), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 1, policy, 0, &ctr), 1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.count("RTNETLINK answers: No such file or directory (2)\n"), 2);
    EXPECT_EQ(ctr.resp_err, 1u);

    kestrix_addr dst{};
    dst.ip_address = 0x0a000002;
    EXPECT_EQ(kestrix_nlink_sa_getordel(nl, 1, dst, 0x100, 50, &ctr), 1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_TRUE(log.has(LOG_ERR, "RTNETLINK answers: No such process (3)\n"));
    EXPECT_EQ(ctr.resp_err, 2u);
  });
  if (!ran) GTEST_SKIP() << "no network namespace";
}

// How many of the kernel's policies match the extended regular expression.
int policies_matching(const std::string& pattern) {
  FILE* out = popen(("ip -o xfrm policy | grep -cE '" + pattern + "'").c_str(), "r");
  int n = -1;
  if (out && std::fscanf(out, "%d", &n) != 1) n = -1;
  if (out) pclose(out);
  return n;
}

// Every policy event waiting on the monitor socket, handed to the listener.
void drain_events(Agent& agent, int monitor) {
  uint8_t datagram[4096];
  for (ssize_t n; (n = recv(monitor, datagram, sizeof datagram, MSG_DONTWAIT)) > 0;)
    kestrix_nlink_handle_datagram(agent, ReceivedBytes(datagram, static_cast<size_t>(n)));
}

AceSpec permit_ace(uint32_t h) {
  return {4, kestrix_ace_permit, 0, 0, h, 0x0A000000 + h, 32, 0xC0A80001 + (h << 8), 24, 17, 0,
          {0, 1, {static_cast<uint16_t>(1000 + h)}}, {0, 1, {0}}, 0};
}

TEST(RealKernel, LinuxModeInstallsAclPoliciesWithTheInterfaceIdAndRemovesExactlyThem) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
  const bool ran = in_fresh_network_namespace([] {
    TestAgent t(AgentSettings{0, 64, KernelFlavour::kLinux});
    t.agent.nlink.attach(kestrix_nlink_socket_create(0));
    const ScopedFd monitor = kestrix_nlink_socket_create(9);
    const uint32_t slot = t.open_tunnel(0x100);
    t.agent.tunnels.at(slot)->tunnelid = 5;
    const std::vector<std::vector<uint8_t>> install = {
        ace_record(KESTRIX_PAL_ACE_ACL_DESC, permit_ace(1)), ace_record(KESTRIX_PAL_ACE_ACL_DESC, permit_ace(2)),
        action_record(KESTRIX_PAL_OUT_ACTION, CDH_ACTION_DISCARD_PACKET_NOTIFY_RP, Bytes().be32(0x77))};
    t.deliver(acl_request(2, install, 0x11, slot));
    drain_events(t.agent, monitor.get());
    EXPECT_NE(t.agent.tunnels.at(slot)->head_policy.head()->ace_entry.head()->k_index, 0);
    // Two ACEs: outbound, inbound and forward policies of each, on interface
    // 5, a port of 0 matching any port.
    EXPECT_EQ(policies_matching("."), 6);
    EXPECT_EQ(policies_matching("if_id 0x5"), 6);
    EXPECT_EQ(policies_matching("dir out"), 2);
    EXPECT_EQ(policies_matching("port 0 "), 0);

    // A tunnel-mode outbound SA: the policies take its template, the
    // endpoints turned round for inbound and forward ones; so do later ACLs.
    cpa_interface_t* tunnel = t.agent.tunnels.at(slot);
    auto out_sa = new_record<cpa_outbound_sa_t>();
    out_sa->sa_info = new_record<kestrix_ce_cipher_list_t>();
    out_sa->sa_info->ce_cipher.outbound = 1;
    out_sa->sa_info->ce_cipher.esp_used = 1;
    out_sa->sa_info->ce_cipher.mode = CE_TUNNEL;
    out_sa->sa_info->ce_cipher.source.ip_address = 0x01020304;
    out_sa->sa_info->ce_cipher.dest.ip_address = 0x05060708;
    EXPECT_EQ(kestrix_policies_follow_sa(t.agent, tunnel, *out_sa->sa_info), 0);
    insert_node_out_sa(tunnel->outb_sa_list, std::move(out_sa));
    t.deliver(acl_request(2, {ace_record(KESTRIX_PAL_ACE_ACL_DESC, permit_ace(3)), install.back()}, 0x11, slot));
    EXPECT_EQ(policies_matching("dir out.*tmpl src 1.2.3.4 dst 5.6.7.8.*mode tunnel"), 3);
    EXPECT_EQ(policies_matching("dir (in|fwd).*tmpl src 5.6.7.8 dst 1.2.3.4.*mode tunnel"), 6);

    t.deliver(acl_request(4, {}, 0x11, slot));
    EXPECT_EQ(policies_matching("."), 6);
    t.deliver(acl_request(4, {}, 0x11, slot));
    EXPECT_EQ(policies_matching("."), 0);
    EXPECT_TRUE(t.log.has(LOG_INFO, "Returning success from kestrix_nl_policy_delete"));

    // The kernel reads the SA in its own layout: it takes it (its counters
    // then read back), or refuses it only for want of ESP (this machine).
    kestrix_ce_cipher_list_t sa;
    sa.ce_cipher.esp_used = 1;
    sa.ce_cipher.esp_cipher = KESTRIX_CE_AES;
    sa.ce_cipher.esp_spi = 0x100;
    sa.esp_key_info.len = 16;
    const int taken = kestrix_nlink_sa_add(t.agent.nlink, sa, 5, slot, nullptr, 64) == 0;
    if (!taken) {
      EXPECT_EQ(errno, EPROTONOSUPPORT) << std::strerror(errno);
    }
    const auto counters = kestrix_linux_sa_counters(t.agent.nlink, sa.ce_cipher.dest, 0x100, IPPROTO_ESP);
    EXPECT_EQ(counters.has_value(), taken);
    if (counters) {
      EXPECT_EQ(counters->packets, 0u);
    }

    // The xfrm interface is made, or the log says that the kernel has none.
    KernelNetDeviceSysCalls devices;
    if (svti_add(devices, "svti5", KernelFlavour::kLinux) == 0) {
      EXPECT_EQ(std::system("ip -d link show svti5 | grep -q 'if_id 0x5'"), 0);
      EXPECT_EQ(svti_del(devices, "svti5", KernelFlavour::kLinux), 0);
    } else {
      EXPECT_TRUE(t.log.has(LOG_ERR,
          "svti5: the kernel has no xfrm interfaces (CONFIG_XFRM_INTERFACE, module xfrm_interface)"));
    }
  });
  if (!ran) GTEST_SKIP() << "no network namespace";
}

}  // namespace
}  // namespace cpa::test
