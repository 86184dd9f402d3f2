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
#include <cstdlib>
#include <functional>
#include <thread>

#include "fakes/log_capture.h"
#include "kernel/netlink_socket.h"
#include "kernel/netlink_transport.h"
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"
#include "platform/tunnel_devices.h"

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
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 0, policy, 0, &ctr), -ENOENT);
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 1, policy, 0, &ctr), -ENOENT);
    EXPECT_EQ(log.count("RTNETLINK answers: No such file or directory (2)\n"), 2);
    EXPECT_EQ(ctr.resp_err, 1u);

    kestrix_addr dst{};
    dst.ip_address = 0x0a000002;
    EXPECT_EQ(kestrix_nlink_sa_getordel(nl, 1, dst, 0x100, 50, &ctr), -ESRCH);
    EXPECT_TRUE(log.has(LOG_ERR, "RTNETLINK answers: No such process (3)\n"));
    EXPECT_EQ(ctr.resp_err, 2u);
  });
  if (!ran) GTEST_SKIP() << "no network namespace";
}

// The xfrm interface carries the tunnel id; a kernel without them says so in the log.
TEST(RealKernel, LinuxModeMakesTheXfrmInterfaceOrLogsThatTheKernelHasNone) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
  const bool ran = in_fresh_network_namespace([] {
    LogCapture log;
    KernelNetDeviceSysCalls devices;
    if (svti_add(devices, "svti5", xfrm_interface_device_ops()) == 0) {
      EXPECT_EQ(std::system("ip -d link show svti5 | grep -q 'if_id 0x5'"), 0);
      EXPECT_EQ(svti_del(devices, "svti5", xfrm_interface_device_ops()), 0);
    } else {
      EXPECT_TRUE(log.has(LOG_ERR,
          "svti5: the kernel has no xfrm interfaces (CONFIG_XFRM_INTERFACE, module xfrm_interface)"));
    }
  });
  if (!ran) GTEST_SKIP() << "no network namespace";
}

}  // namespace
}  // namespace cpa::test
