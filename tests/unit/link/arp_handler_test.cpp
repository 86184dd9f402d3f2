// ARP packets against ethgrp0 at 10.2.0.5/16 on a fake kernel: the commands
// run, the environment each one inherits, the counters, and the outcome.
#include "link/arp_handler.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fakes/fake_net_devices.h"
#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa::test {
namespace {

constexpr const char* kArpS = "/sbin/arp -s $ARP_SRC_IP $ARP_SRC_MAC";
constexpr const char* kFlush = "/usr/local/fpbin/ip address flush dev $ARP_IF";
constexpr const char* kSetIp = "/usr/local/fastpath/etc/scripts/setip_arp.sh";
constexpr const char* kMac = "02:00:5e:0a:0b:fe";

std::vector<uint8_t> packet(uint16_t op, const char* sender, const char* target) {
  arp_eth_ipv4_t p{htons(1), htons(0x0800), 6, 4, htons(op), {2, 0, 0x5e, 0x0a, 0x0b, 0xfe}, 0, {}, 0};
  inet_pton(AF_INET, sender, &p.ar_sip);
  inet_pton(AF_INET, target, &p.ar_tip);
  const auto* b = reinterpret_cast<const uint8_t*>(&p);
  return {b, b + sizeof p};
}

std::vector<uint8_t> cut_short(std::vector<uint8_t> bytes) {
  bytes.pop_back();
  return bytes;
}

EnvValues source_env(const char* sip, const char* dst = nullptr) {
  EnvValues e{{"ARP_IF", "ethgrp0"}, {"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", sip}};
  if (dst) e["ARP_DST_IP"] = dst;
  return e;
}

// One agent's ARP side, fresh for each packet sequence.
struct ArpBench {
  ArpBench() {
    FakeNetDevices::Device& eth = devices.add_device("ethgrp0", false);
    inet_pton(AF_INET, "10.2.0.5", &eth.addr);
    inet_pton(AF_INET, "255.255.0.0", &eth.netmask);
    commands.environment = &env;
  }
  ~ArpBench() { EXPECT_EQ(devices.open_descriptors(), 0); }
  int deliver(std::vector<uint8_t> bytes) {
    return handler.kestrix_pal_proc_arp(ReceivedBytes(bytes.data(), bytes.size()));
  }
  std::vector<uint32_t> counts() const { return {counters.k_arp_req, counters.k_arp_reply, counters.k_arp_err}; }

  LogCapture log;
  FakeNetDevices devices;
  FakeCommandRunner commands;
  FakeEnvironment env;
  cpa_misc_ctr_t counters;
  ArpHandler handler{ArpSeams{devices, commands, env}, counters};
};

TEST(Arp, EachPacketRunsItsCommandsWithTheirEnvironment) {
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    std::vector<std::string> commands;
    std::vector<EnvValues> envs;
    std::vector<uint32_t> counts;  // k_arp_req, k_arp_reply, k_arp_err
  };
  const EnvValues flush_env{{"ARP_IF", "ethgrp0"}};
  const Case cases[] = {
      {"request for our own address", packet(1, "10.2.7.7", "10.2.0.5"), {}, {}, {0, 0, 0}},
      {"request from inside the subnet", packet(1, "10.2.7.7", "10.2.0.9"), {kSetIp},
       {source_env("10.2.7.7", "10.2.0.9")}, {1, 0, 0}},
      {"request from another subnet", packet(1, "10.9.0.1", "10.9.0.2"), {kFlush, kSetIp},
       {flush_env, source_env("10.9.0.1", "10.9.0.2")}, {1, 0, 0}},
      {"gratuitous reply from another subnet", packet(2, "10.1.1.1", "10.1.1.1"), {kArpS, kFlush, kSetIp},
       {{{"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", "10.1.1.1"}}, source_env("10.1.1.1"), source_env("10.1.1.1", "10.1.1.2")},
       {0, 1, 0}},
      {"gratuitous reply from inside the subnet", packet(2, "10.2.3.4", "10.2.3.4"), {kArpS, kFlush, kSetIp},
       {{{"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", "10.2.3.4"}}, source_env("10.2.3.4"), source_env("10.2.3.4", "10.2.0.5")},
       {0, 1, 0}},
      {"address after x.x.x.255 carries", packet(2, "10.0.0.255", "10.0.0.255"), {kArpS, kFlush, kSetIp},
       {{{"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", "10.0.0.255"}}, source_env("10.0.0.255"),
        source_env("10.0.0.255", "10.0.1.0")},
       {0, 1, 0}},
      {"reply that is not gratuitous", packet(2, "10.2.3.4", "10.2.0.5"), {kArpS},
       {{{"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", "10.2.3.4"}}}, {0, 0, 0}},
      {"unknown opcode", packet(3, "10.9.0.1", "10.9.0.2"), {}, {}, {0, 0, 0}},
      {"packet cut short", cut_short(packet(1, "10.9.0.1", "10.9.0.2")), {}, {}, {0, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ArpBench arp;
    EXPECT_EQ(arp.deliver(c.bytes), 0);
    EXPECT_EQ(arp.commands.commands, c.commands);
    EXPECT_EQ(arp.commands.environments, c.envs);
    EXPECT_EQ(arp.counts(), c.counts);
  }
}

TEST(Arp, OnlyTheFirstReplyEverPinsTheStaticEntry) {
  ArpBench arp;
  arp.deliver(packet(2, "10.2.3.4", "10.2.0.5"));
  arp.deliver(packet(2, "10.2.3.9", "10.2.3.9"));
  arp.deliver(packet(2, "10.2.3.4", "10.2.0.5"));
  const auto& run = arp.commands.commands;
  EXPECT_EQ(std::count(run.begin(), run.end(), kArpS), 1);
  EXPECT_TRUE(arp.log.has(LOG_INFO, "Static ARP set... sArpSet:1\n"));
  EXPECT_TRUE(arp.log.has(LOG_INFO, "INFO: 10.2.0.5 is the new ethgrp0 address\n"));
}

TEST(Arp, FailedInterfaceQueriesChangeNothingAndCountAfterTheAddressCheck) {
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    unsigned long failing_ioctl;  // 0: socket() fails
    std::vector<uint32_t> counts;
    const char* line;
  };
  const Case cases[] = {
      {"request, no socket", packet(1, "10.9.0.1", "10.9.0.2"), 0, {0, 0, 0},
       "kestrix_validate_ip_addr :: Failed socket() call, reason: Too many open files"},
      {"request, no netmask", packet(1, "10.9.0.1", "10.9.0.2"), SIOCGIFNETMASK, {0, 0, 1},
       "kestrix_validate_subnet :: Failed ioctl() call, reason: Cannot assign requested address"},
      {"gratuitous reply, no address", packet(2, "10.1.1.1", "10.1.1.1"), SIOCGIFADDR, {0, 0, 1},
       "Socket operation failures observed, No action taken on Grat ARP\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ArpBench arp;
    if (c.failing_ioctl) arp.devices.fail[c.failing_ioctl] = EADDRNOTAVAIL;
    else arp.devices.fail_socket = EMFILE;
    EXPECT_EQ(arp.deliver(c.bytes), 1);
    EXPECT_TRUE(arp.log.has(LOG_ERR, c.line));
    EXPECT_EQ(arp.counts(), c.counts);
    for (const std::string& cmd : arp.commands.commands) EXPECT_EQ(cmd, kArpS);
  }
}

}  // namespace
}  // namespace cpa::test
