// Tunnel devices on a fake kernel, with and without the platform's control
// device; every case ends with each descriptor it opened closed once.
#include "platform/tunnel_devices.h"

#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "fakes/fake_net_devices.h"
#include "fakes/log_capture.h"

namespace cpa::test {
namespace {

class Devices : public ::testing::Test {
 protected:
  void TearDown() override { check_descriptors(kernel); }
  static void check_descriptors(const FakeNetDevices& k) {
    EXPECT_EQ(k.open_descriptors(), 0);
    EXPECT_EQ(k.bad_closes, 0);
  }
  static void expect_up_with_tunnel_mtu(const FakeNetDevices& k) {
    const FakeNetDevices::Device* dev = k.device("svti7");
    ASSERT_NE(dev, nullptr);
    EXPECT_TRUE(dev->flags & IFF_UP);
    EXPECT_EQ(dev->mtu, 9160);
  }

  LogCapture log;
  FakeNetDevices kernel;
};

TEST_F(Devices, ControlDeviceCreatesAndDeletesWithThePlatformRecord) {
  kernel.control_device = true;
  ASSERT_EQ(svti_add(kernel, "svti7"), 0);
  expect_up_with_tunnel_mtu(kernel);
  EXPECT_FALSE(kernel.device("svti7")->tun);
  ASSERT_EQ(svti_del(kernel, "svti7"), 0);
  EXPECT_EQ(kernel.device("svti7"), nullptr);

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

TEST_F(Devices, WithoutAControlDeviceAPersistentTunDeviceStandsIn) {
  for (int error : {ENODEV, ENXIO}) {
    FakeNetDevices k;
    k.fail[kSiocAddTunnel] = error;
    ASSERT_EQ(svti_add(k, "svti7"), 0);
    expect_up_with_tunnel_mtu(k);
    EXPECT_TRUE(k.device("svti7")->tun && k.device("svti7")->persistent);
    k.fail[kSiocDelTunnel] = error;
    ASSERT_EQ(svti_del(k, "svti7"), 0);
    EXPECT_EQ(k.device("svti7"), nullptr);
    check_descriptors(k);
  }
  EXPECT_EQ(log.count("ioctl: failed"), 0);
}

TEST_F(Devices, StaleDeviceIsDeletedAndCreatedAgainOnEitherKernel) {
  // control device, stale device made by the tun stand-in
  for (const auto& [control, stale_tun] : {std::pair{true, false}, {true, true}, {false, true}}) {
    LogCapture lines;
    FakeNetDevices k;
    k.control_device = control;
    k.add_device("svti7", stale_tun);
    const int stale_index = k.device("svti7")->ifindex;
    ASSERT_EQ(svti_add(k, "svti7"), 0);
    expect_up_with_tunnel_mtu(k);
    EXPECT_NE(k.device("svti7")->ifindex, stale_index);
    EXPECT_EQ(lines.texts(), (std::vector<std::string>{
                                 "ioctl : svti7- File exists", "SVTI interface svti7, tunnelId 7 already exists",
                                 "Deleting stale SVTI interface svti7", "---svti deleted [svti7]",
                                 "ReCreating SVTI interface svti7", "Created SVTI interface svti7",
                                 "svti add returns err 0"}));
    check_descriptors(k);
  }
}

TEST_F(Devices, LinuxModeMakesAnXfrmInterfaceOverRtnetlinkAndReplacesAStaleOne) {
  ASSERT_EQ(svti_add(kernel, "svti7", xfrm_interface_device_ops()), 0);
  expect_up_with_tunnel_mtu(kernel);
  EXPECT_EQ(kernel.device("svti7")->xfrm_if_id, 7);

  const int first_index = kernel.device("svti7")->ifindex;
  ASSERT_EQ(svti_add(kernel, "svti7", xfrm_interface_device_ops()), 0);
  EXPECT_NE(kernel.device("svti7")->ifindex, first_index);
  EXPECT_EQ(log.count("Deleting stale SVTI interface svti7"), 1);

  ASSERT_EQ(svti_del(kernel, "svti7", xfrm_interface_device_ops()), 0);
  EXPECT_EQ(kernel.device("svti7"), nullptr);
  EXPECT_EQ(svti_del(kernel, "svti7", xfrm_interface_device_ops()), 1);
  EXPECT_EQ(kernel.route_requests, (std::vector<uint16_t>{RTM_NEWLINK, RTM_NEWLINK, RTM_DELLINK,
                                                          RTM_NEWLINK, RTM_DELLINK, RTM_DELLINK}));
  EXPECT_TRUE(kernel.tunnel_ioctl_targets.empty());
}

TEST_F(Devices, AFailingStepFailsTheAddOrDeleteAndClosesWhatItOpened) {
  const auto stale = [](FakeNetDevices& k, unsigned long request, int error) {
    k.control_device = true;
    k.add_device("svti7", false);
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
      {[](FakeNetDevices& k) { k.control_device = true, k.fail[kSiocAddTunnel] = EPERM; }, LOG_ERR,
       "ioctl : svti7- Operation not permitted"},
      {[](FakeNetDevices& k) { k.fail_open = ENOENT; }, LOG_ERR, "ioctl : svti7- No such file or directory"},
      {[](FakeNetDevices& k) { k.fail[TUNSETIFF] = EBUSY; }, LOG_ERR, "ioctl : svti7- Device or resource busy"},
      {[](FakeNetDevices& k) { k.fail[TUNSETPERSIST] = EPERM; }, LOG_ERR, "interface already exists"},
      {[](FakeNetDevices& k) { k.fail[SIOCGIFFLAGS] = EIO; }, LOG_DEBUG, "socket failed: Input/output error"},
      {[](FakeNetDevices& k) { k.fail[SIOCSIFFLAGS] = EIO; }, LOG_ERR, "socket failed: Input/output error"},
      {[](FakeNetDevices& k) { k.fail[SIOCSIFMTU] = EINVAL; }, LOG_ERR, "socket failed: Invalid argument"},
  };
  for (const Case& c : cases) {
    LogCapture lines;
    FakeNetDevices k;
    c.inject(k);
    EXPECT_EQ(c.del ? svti_del(k, "svti7") : svti_add(k, "svti7"), 1) << c.line;
    EXPECT_TRUE(lines.has(c.priority, c.line)) << ::testing::PrintToString(lines.texts());
    check_descriptors(k);
    if (k.fail.count(TUNSETPERSIST)) {
      EXPECT_EQ(k.device("svti7"), nullptr);  // the stand-in goes with its descriptor
    }
  }
}

TEST(SvtiIndex, NamesTheDeviceOfTheTunnelAndClosesWhatItOpened) {
  FakeNetDevices devices;
  devices.add_device("svti70");
  devices.add_device("svti7");
  EXPECT_EQ(svti_ifindex(devices, 7), static_cast<unsigned>(devices.device("svti7")->ifindex));
  EXPECT_EQ(svti_ifindex(devices, 8), 0u);
  devices.fail_socket = EMFILE;
  EXPECT_EQ(svti_ifindex(devices, 7), 0u);
  EXPECT_EQ(devices.open_descriptors(), 0);
  EXPECT_EQ(devices.bad_closes, 0);
}

}  // namespace
}  // namespace cpa::test
