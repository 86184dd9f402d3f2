// ARP packets against ethgrp0 at 10.2.0.5/16 on a fake kernel: the commands
// run, the environment each one inherits, the counters and the outcome. A
// request from our subnet and a reply from another are test_arp's.
#include "link/arp_handler.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "fakes/fake_net_devices.h"
#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa::test {
namespace {

constexpr const char* kArpS = "/sbin/arp -s $ARP_SRC_IP $ARP_SRC_MAC";
constexpr const char* kFlush = "/usr/local/fpbin/ip address flush dev $ARP_IF";
constexpr const char* kSetIp = "/usr/local/fastpath/etc/scripts/setip_arp.sh";
constexpr const char* kMac = "02:00:5e:0a:0b:fe";

std::vector<uint8_t> packet(uint16_t op, const char* sender, const char* target, size_t cut = 0) {
  arp_eth_ipv4_t p{htons(1), htons(0x0800), 6, 4, htons(op), {2, 0, 0x5e, 0x0a, 0x0b, 0xfe}, 0, {}, 0};
  inet_pton(AF_INET, sender, &p.ar_sip);
  inet_pton(AF_INET, target, &p.ar_tip);
  const auto* b = reinterpret_cast<const uint8_t*>(&p);
  return {b, b + sizeof p - cut};
}

// What a command inherits: the sender's values, with ARP_IF unless `no_if`.
EnvValues env_of(const char* sip, const char* dst = nullptr, bool no_if = false) {
  EnvValues e{{"ARP_SRC_MAC", kMac}, {"ARP_SRC_IP", sip}};
  if (!no_if) e["ARP_IF"] = "ethgrp0";
  if (dst) e["ARP_DST_IP"] = dst;
  return e;
}

// One agent's ARP side, ethgrp0 at 10.2.0.5/16.
struct ArpBench {
  ArpBench() {
    FakeNetDevices::Device& eth = devices.add_device("ethgrp0", false);
    inet_pton(AF_INET, "10.2.0.5", &eth.addr);
    inet_pton(AF_INET, "255.255.0.0", &eth.netmask);
    commands.environment = &env;
  }
  int deliver(std::vector<uint8_t> p) { return handler.kestrix_pal_proc_arp(ReceivedBytes(p.data(), p.size())); }

  LogCapture log;  // keeps the lines out of syslog
  FakeNetDevices devices;
  FakeEnvironment env;
  FakeCommandRunner commands;
  cpa_misc_ctr_t counters;
  ArpHandler handler{ArpSeams{devices, commands, env}, counters};
};

TEST(Arp, PacketsRunTheirCommandsWithTheirEnvironment) {
  const EnvValues flush_only{{"ARP_IF", "ethgrp0"}};
  struct Case {
    const char* what;
    std::vector<std::vector<uint8_t>> packets;
    int fail = 0;  // 0; -1: socket() fails; else the ioctl that fails
    int result = 0;
    std::vector<std::string> commands;
    std::vector<EnvValues> envs;
    std::vector<uint32_t> counts;  // k_arp_req, k_arp_reply, k_arp_err
  };
  const Case cases[] = {
      {"request for our own address", {packet(1, "10.2.7.7", "10.2.0.5")}, 0, 0, {}, {}, {0, 0, 0}},
      {"request from another subnet", {packet(1, "10.9.0.1", "10.9.0.2")}, 0, 0, {kFlush, kSetIp},
       {flush_only, env_of("10.9.0.1", "10.9.0.2")}, {1, 0, 0}},
      {"gratuitous reply from our subnet", {packet(2, "10.2.3.4", "10.2.3.4")}, 0, 0, {kArpS, kFlush, kSetIp},
       {env_of("10.2.3.4", nullptr, true), env_of("10.2.3.4"), env_of("10.2.3.4", "10.2.0.5")}, {0, 1, 0}},
      {"next address carries", {packet(2, "10.0.0.255", "10.0.0.255")}, 0, 0, {kArpS, kFlush, kSetIp},
       {env_of("10.0.0.255", nullptr, true), env_of("10.0.0.255"), env_of("10.0.0.255", "10.0.1.0")}, {0, 1, 0}},
      {"only the first reply pins", {packet(2, "10.2.3.4", "10.2.0.5"), packet(2, "10.2.3.9", "10.2.0.5")}, 0, 0,
       {kArpS}, {env_of("10.2.3.4", nullptr, true)}, {0, 0, 0}},
      {"unknown opcode", {packet(3, "10.9.0.1", "10.9.0.2")}, 0, 0, {}, {}, {0, 0, 0}},
      {"packet cut short", {packet(1, "10.9.0.1", "10.9.0.2", 1)}, 0, 0, {}, {}, {0, 0, 0}},
      {"address check fails uncounted", {packet(1, "10.9.0.1", "10.9.0.2")}, -1, 1, {}, {}, {0, 0, 0}},
      {"request's subnet check fails", {packet(1, "10.9.0.1", "10.9.0.2")}, SIOCGIFNETMASK, 1, {}, {}, {0, 0, 1}},
      {"reply's subnet check fails", {packet(2, "10.1.1.1", "10.1.1.1")}, SIOCGIFADDR, 1, {kArpS},
       {env_of("10.1.1.1", nullptr, true)}, {0, 0, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ArpBench arp;
    if (c.fail < 0) arp.devices.fail_socket = EMFILE;
    if (c.fail > 0) arp.devices.fail[static_cast<unsigned long>(c.fail)] = EADDRNOTAVAIL;
    for (const auto& p : c.packets) EXPECT_EQ(arp.deliver(p), c.result);
    EXPECT_EQ(arp.commands.commands, c.commands);
    EXPECT_EQ(arp.commands.environments, c.envs);
    const cpa_misc_ctr_t& n = arp.counters;
    EXPECT_EQ((std::vector<uint32_t>{n.k_arp_req, n.k_arp_reply, n.k_arp_err}), c.counts);
    EXPECT_EQ(arp.devices.open_descriptors(), 0);
  }
}

}  // namespace
}  // namespace cpa::test
