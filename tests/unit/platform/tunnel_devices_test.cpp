#include "platform/tunnel_devices.h"

#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "fakes/fake_net_devices.h"
#include "fakes/log_capture.h"

namespace cpa {
namespace {

using test::FakeNetDevices;
using test::LogCapture;

TEST(SvtiNames, TunnelIdsAndNamesConvertBothWays) {
  LogCapture log;
  EXPECT_EQ(kestrix_tunid_to_ifname(7), "svti7");
  EXPECT_EQ(kestrix_tunid_to_ifname(4294967295u), "svti4294967295");
  EXPECT_EQ(kestrix_ifname_to_tunid("svti12"), 12);
  EXPECT_EQ(kestrix_ifname_to_tunid("svti0"), 0);
  EXPECT_EQ(kestrix_ifname_to_tunid("eth0"), -1);
  EXPECT_EQ(kestrix_ifname_to_tunid("svti"), -1);
  EXPECT_EQ(kestrix_ifname_to_tunid("svti-3"), -1);
  EXPECT_EQ(kestrix_ifname_to_tunid("svti4294967295"), -1);
  EXPECT_TRUE(log.lines().empty());

  EXPECT_EQ(kestrix_ifname_to_tunid(nullptr), -1);
  EXPECT_TRUE(log.has(LOG_DEBUG, "Null ifname"));
  EXPECT_EQ(kestrix_ifname_to_tunid("svti1234567890123"), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "ifname size cannot be > 16"));
}

// Every test ends with every descriptor it caused to be opened closed once.
class DeviceTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(kernel.open_descriptors(), 0);
    EXPECT_EQ(kernel.bad_closes, 0);
  }
  void expect_up_with_tunnel_mtu(const char* name) {
    const FakeNetDevices::Device* dev = kernel.device(name);
    ASSERT_NE(dev, nullptr) << name;
    EXPECT_TRUE(dev->flags & IFF_UP);
    EXPECT_EQ(dev->mtu, 9160);
  }
  static std::vector<uint8_t> bytes_of(const ip_tunnel_parm& parm) {
    const auto* p = reinterpret_cast<const uint8_t*>(&parm);
    return {p, p + sizeof parm};
  }

  LogCapture log;
  FakeNetDevices kernel;
};

TEST_F(DeviceTest, ControlDeviceCreatesAndDeletesWithThePlatformRecord) {
  kernel.control_device = true;
  ASSERT_EQ(svti_add(kernel, "svti7"), 0);
  expect_up_with_tunnel_mtu("svti7");
  EXPECT_FALSE(kernel.device("svti7")->tun);
  EXPECT_TRUE(log.has(LOG_INFO, "Created SVTI interface svti7"));
  EXPECT_TRUE(log.has(LOG_DEBUG, "svti add returns err 0"));

  ASSERT_EQ(svti_del(kernel, "svti7"), 0);
  EXPECT_EQ(kernel.device("svti7"), nullptr);

  ASSERT_EQ(kernel.tunnel_ioctl_targets, (std::vector<std::string>{"svti_cfg", "svti7"}));
  std::vector<uint8_t> create(312, 0), remove(312, 0);
  std::memcpy(create.data(), "svti7", 5);
  create[292] = remove[292] = 0x45;  // IPv4 header template
  create[301] = 50;                  // ESP
  EXPECT_EQ(bytes_of(kernel.tunnel_parms[0]), create);
  EXPECT_EQ(bytes_of(kernel.tunnel_parms[1]), remove);
}

class StockKernelTest : public DeviceTest, public ::testing::WithParamInterface<int> {};

TEST_P(StockKernelTest, PersistentTunDeviceStandsIn) {
  kernel.fail[kSiocAddTunnel] = GetParam();
  ASSERT_EQ(svti_add(kernel, "svti7"), 0);
  expect_up_with_tunnel_mtu("svti7");
  EXPECT_TRUE(kernel.device("svti7")->tun);
  EXPECT_TRUE(kernel.device("svti7")->persistent);

  kernel.fail[kSiocDelTunnel] = GetParam();
  ASSERT_EQ(svti_del(kernel, "svti7"), 0);
  EXPECT_EQ(kernel.device("svti7"), nullptr);
  EXPECT_FALSE(log.has_text("ioctl: failed"));
}

INSTANTIATE_TEST_SUITE_P(NoControlDevice, StockKernelTest, ::testing::Values(ENODEV, ENXIO));

struct StaleCase {
  bool control_device;
  bool stale_is_tun;  // left by a run on the stand-in
};

class StaleDeviceTest : public DeviceTest, public ::testing::WithParamInterface<StaleCase> {};

TEST_P(StaleDeviceTest, IsDeletedAndCreatedAgain) {
  kernel.control_device = GetParam().control_device;
  kernel.add_device("svti7", GetParam().stale_is_tun);
  const int stale_index = kernel.device("svti7")->ifindex;

  ASSERT_EQ(svti_add(kernel, "svti7"), 0);
  expect_up_with_tunnel_mtu("svti7");
  EXPECT_NE(kernel.device("svti7")->ifindex, stale_index);
  const std::vector<std::string> expected = {
      "ioctl : svti7- File exists",
      "SVTI interface svti7, tunnelId 7 already exists",
      "Deleting stale SVTI interface svti7",
      "---svti deleted [svti7]",
      "ReCreating SVTI interface svti7",
      "Created SVTI interface svti7",
      "svti add returns err 0",
  };
  EXPECT_EQ(log.texts(), expected);
}

INSTANTIATE_TEST_SUITE_P(Kernels, StaleDeviceTest,
                         ::testing::Values(StaleCase{true, false}, StaleCase{true, true},
                                           StaleCase{false, true}));

TEST_F(DeviceTest, StaleDeviceThatCannotBeDeletedFailsTheAdd) {
  kernel.control_device = true;
  kernel.add_device("svti7", false);
  kernel.fail[kSiocDelTunnel] = EPERM;
  EXPECT_EQ(svti_add(kernel, "svti7"), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "ioctl: failed"));
  EXPECT_TRUE(log.has(LOG_ERR, "interface already exists"));
  EXPECT_NE(kernel.device("svti7"), nullptr);
}

TEST_F(DeviceTest, DeviceThatKeepsReappearingIsReplacedOnlyOnce) {
  kernel.control_device = true;
  kernel.add_device("svti7", false);
  kernel.fail[kSiocAddTunnel] = EEXIST;
  EXPECT_EQ(svti_add(kernel, "svti7"), 1);
  EXPECT_EQ(log.count("Deleting stale SVTI interface svti7"), 1);
  EXPECT_EQ(log.count("ioctl : svti7- File exists"), 2);
  EXPECT_TRUE(log.has(LOG_ERR, "interface already exists"));
}

struct FailureCase {
  const char* what;
  std::function<void(FakeNetDevices&)> inject;
  int priority;
  const char* line;
};

class AddFailureTest : public DeviceTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(AddFailureTest, FailsAndClosesWhatItOpened) {
  GetParam().inject(kernel);
  EXPECT_EQ(svti_add(kernel, "svti7"), 1);
  EXPECT_TRUE(log.has(GetParam().priority, GetParam().line))
      << ::testing::PrintToString(log.texts());
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, AddFailureTest,
    ::testing::Values(
        FailureCase{"socket", [](FakeNetDevices& k) { k.fail_socket = EMFILE; }, LOG_ERR,
                    "socket failed: Too many open files"},
        FailureCase{"control_device",
                    [](FakeNetDevices& k) {
                      k.control_device = true;
                      k.fail[kSiocAddTunnel] = EPERM;
                    },
                    LOG_ERR, "ioctl : svti7- Operation not permitted"},
        FailureCase{"tun_open", [](FakeNetDevices& k) { k.fail_open = ENOENT; }, LOG_ERR,
                    "ioctl : svti7- No such file or directory"},
        FailureCase{"tun_setiff", [](FakeNetDevices& k) { k.fail[TUNSETIFF] = EBUSY; }, LOG_ERR,
                    "ioctl : svti7- Device or resource busy"},
        FailureCase{"tun_persist", [](FakeNetDevices& k) { k.fail[TUNSETPERSIST] = EPERM; },
                    LOG_ERR, "interface already exists"},
        FailureCase{"get_flags", [](FakeNetDevices& k) { k.fail[SIOCGIFFLAGS] = EIO; }, LOG_DEBUG,
                    "socket failed: Input/output error"},
        FailureCase{"set_flags", [](FakeNetDevices& k) { k.fail[SIOCSIFFLAGS] = EIO; }, LOG_ERR,
                    "socket failed: Input/output error"},
        FailureCase{"set_mtu", [](FakeNetDevices& k) { k.fail[SIOCSIFMTU] = EINVAL; }, LOG_ERR,
                    "socket failed: Invalid argument"}),
    [](const auto& info) { return std::string(info.param.what); });

TEST_F(DeviceTest, StandInWithoutPersistenceLeavesNoDevice) {
  kernel.fail[TUNSETPERSIST] = EPERM;
  EXPECT_EQ(svti_add(kernel, "svti7"), 1);
  EXPECT_EQ(kernel.device("svti7"), nullptr);
}

TEST_F(DeviceTest, DeletingAMissingDeviceFails) {
  EXPECT_EQ(svti_del(kernel, "svti7"), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "ioctl: failed"));
  kernel.fail_socket = ENFILE;
  EXPECT_EQ(svti_del(kernel, "svti7"), 1);
  EXPECT_TRUE(log.has(LOG_ERR, "socket failed: Too many open files in system"));
}

TEST_F(DeviceTest, NamesThatCannotBeDevicesMakeNoCall) {
  EXPECT_EQ(svti_add(kernel, nullptr), 1);
  EXPECT_EQ(svti_del(kernel, nullptr), 1);
  EXPECT_EQ(log.count("Null ifname"), 2);
  EXPECT_EQ(svti_add(kernel, "svti1234567890123"), 1);
  EXPECT_EQ(svti_del(kernel, "svti1234567890123"), 1);
  EXPECT_EQ(log.count("ifname size cannot be > 16"), 2);
  EXPECT_TRUE(kernel.ioctls.empty());
}

TEST_F(DeviceTest, SetIfFlagsSetsOrClearsBitsAndTheMtu) {
  kernel.add_device("svti7");
  const int s = kernel.socket(AF_INET, SOCK_DGRAM, 0).rc;
  EXPECT_EQ(setifflags(kernel, s, "svti7", IFF_UP | IFF_NOARP), 0);
  EXPECT_EQ(kernel.device("svti7")->flags, IFF_UP | IFF_NOARP);
  EXPECT_EQ(kernel.device("svti7")->mtu, 9160);
  EXPECT_EQ(setifflags(kernel, s, "svti7", -IFF_UP), 0);
  EXPECT_EQ(kernel.device("svti7")->flags, IFF_NOARP);
  EXPECT_EQ(setifflags(kernel, s, "svti8", IFF_UP), 1);
  EXPECT_TRUE(log.has(LOG_DEBUG, "socket failed: No such device"));
  kernel.close(s);
}

}  // namespace
}  // namespace cpa
