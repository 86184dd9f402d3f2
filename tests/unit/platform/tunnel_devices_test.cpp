// Tunnel devices on a fake kernel with the platform's control device; every
// case ends with each descriptor it opened closed once. Stale devices and the
// tun stand-in that replaces a missing control device are the end-to-end
// suite's (test_intf_attach).
#include "platform/tunnel_devices.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <tuple>

#include "fakes/fake_net_devices.h"
#include "fakes/log_capture.h"

namespace cpa::test {
namespace {

void check_descriptors(const FakeNetDevices& k) {
  EXPECT_EQ(k.open_descriptors(), 0);
  EXPECT_EQ(k.bad_closes, 0);
}

TEST(Devices, ControlDeviceCreatesAndDeletesWithThePlatformRecord) {
  FakeNetDevices kernel;
  ASSERT_EQ(svti_add(kernel, "svti7"), 0);
  const FakeNetDevices::Device* dev = kernel.device("svti7");
  ASSERT_NE(dev, nullptr);
  EXPECT_EQ(std::tuple(dev->flags & IFF_UP, dev->mtu), std::tuple(IFF_UP, 9160));
  ASSERT_EQ(svti_del(kernel, "svti7"), 0);
  EXPECT_EQ(kernel.device("svti7"), nullptr);
  check_descriptors(kernel);
  ASSERT_EQ(kernel.tunnel_ioctl_targets, (std::vector<std::string>{"svti_cfg", "svti7"}));
  std::vector<uint8_t> create(312, 0), remove(312, 0);
  std::memcpy(create.data(), "svti7", 5);
  create[292] = remove[292] = 0x45;  // IPv4 header template
  create[301] = 50;                  // ESP
  for (size_t i : {0, 1}) {
    const auto* p = reinterpret_cast<const uint8_t*>(&kernel.tunnel_parms[i]);
    EXPECT_EQ(std::vector<uint8_t>(p, p + sizeof(ip_tunnel_parm)), i ? remove : create);
  }
}

TEST(Devices, AFailingStepFailsTheAddOrDeleteAndClosesWhatItOpened) {
  const auto stale = [](FakeNetDevices& k, unsigned long request, int error) {
    k.add_device("svti7");
    k.fail[request] = error;
  };
  struct Case {
    std::function<void(FakeNetDevices&)> inject;
    int priority;
    const char* line;
    bool del = false;
  } cases[] = {
      // A stale device that cannot go, or keeps coming back.
      {[&](FakeNetDevices& k) { stale(k, kSiocDelTunnel, EPERM); }, LOG_ERR, "ioctl: failed"},
      {[&](FakeNetDevices& k) { stale(k, kSiocAddTunnel, EEXIST); }, LOG_ERR, "interface already exists"},
      {[](FakeNetDevices&) {}, LOG_ERR, "ioctl: failed", true},  // no such device
      {[](FakeNetDevices& k) { k.fail_socket = ENFILE; }, LOG_ERR, "socket failed: Too many open files in system",
       true},
      {[](FakeNetDevices& k) { k.fail_socket = EMFILE; }, LOG_ERR, "socket failed: Too many open files"},
      {[](FakeNetDevices& k) { k.fail[kSiocAddTunnel] = EPERM; }, LOG_ERR, "ioctl : svti7- Operation not permitted"},
      {[](FakeNetDevices& k) { k.control_device = false; }, LOG_ERR, "ioctl : svti7- No such file or directory"},
      {[](FakeNetDevices& k) { k.fail[SIOCGIFFLAGS] = EIO; }, LOG_DEBUG, "socket failed: Input/output error"},
      {[](FakeNetDevices& k) { k.fail[SIOCSIFFLAGS] = EIO; }, LOG_ERR, "socket failed: Input/output error"},
      {[](FakeNetDevices& k) { k.fail[SIOCSIFMTU] = EINVAL; }, LOG_ERR, "socket failed: Invalid argument"},
  };
  for (const Case& c : cases) {
    LogCapture lines;
    FakeNetDevices k;
    c.inject(k);
    EXPECT_LT(c.del ? svti_del(k, "svti7") : svti_add(k, "svti7"), 0) << c.line;
    EXPECT_TRUE(lines.has(c.priority, c.line)) << ::testing::PrintToString(lines.texts());
    check_descriptors(k);
  }
}

}  // namespace
}  // namespace cpa::test
