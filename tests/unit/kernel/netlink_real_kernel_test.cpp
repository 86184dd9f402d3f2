// The agent's sockets and requests against the running kernel, inside a network namespace made for the
// test (root only). The stock kernel does not take the platform's adds, but answers a get of an absent policy.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "fakes/log_capture.h"
#include "kernel/netlink_socket.h"
#include "kernel/netlink_transport.h"
#include "kernel/xfrm_policy.h"

namespace cpa::test {
namespace {

uint32_t bound_groups(int fd) {
  sockaddr_nl local{};
  socklen_t len = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
  return local.nl_groups;
}

TEST(RealKernel, SocketsBindToTheirGroupsAndAnAbsentPolicyIsTheKernelsError) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
  bool ran = false;
  std::thread([&] {  // on a thread of its own, in a fresh network namespace
    if (unshare(CLONE_NEWNET) != 0) return;
    ran = true;
    LogCapture log;
    ScopedFd request = kestrix_nlink_socket_create(0);
    ScopedFd monitor = kestrix_nlink_socket_create(8);
    ASSERT_TRUE(request.valid() && monitor.valid());
    EXPECT_EQ(std::pair(bound_groups(request.get()), bound_groups(monitor.get())), std::pair(0u, 8u));
    EXPECT_FALSE(kestrix_nlink_socket_create(0x20).valid());
    EXPECT_TRUE(log.has(LOG_ERR, "Cannot create socket with wrong N/L group"));

    KernelNetDeviceSysCalls devices;
    NetlinkTransport nl(devices);
    nl.attach(std::move(request));
    const XfrmPolicyArgs policy{.dst = 0x0a000002, .dmask = 32, .dir = 1};
    EXPECT_EQ(kestrix_nlink_policy_getordel(nl, 0, policy, 0, nullptr), -ENOENT);
    EXPECT_TRUE(log.has(LOG_ERR, "RTNETLINK answers: No such file or directory (2)\n"));
  }).join();
  if (!ran) GTEST_SKIP() << "no network namespace";
}

}  // namespace
}  // namespace cpa::test
