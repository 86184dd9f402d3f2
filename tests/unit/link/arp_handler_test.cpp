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

std::vector<uint8_t> packet(uint16_t op, const char* sender, const char* target, size_t cut = 0) {
  arp_eth_ipv4_t p{htons(1), htons(0x0800), 6, 4, htons(op), {2, 0, 0x5e, 0x0a, 0x0b, 0xfe}, 0, {}, 0};
  inet_pton(AF_INET, sender, &p.ar_sip);
  inet_pton(AF_INET, target, &p.ar_tip);
  const auto* b = reinterpret_cast<const uint8_t*>(&p);
  return {b, b + sizeof p - cut};
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

// Each case's commands with the environment each inherits, and the counters, are in testdata.
TEST(Arp, PacketsRunTheirCommandsWithTheirEnvironment) {
  const struct {
    const char* what;
    std::vector<std::vector<uint8_t>> packets;
    int fail = 0;  // 0; -1: socket() fails; else the ioctl that fails
    int result = 0;
  } cases[] = {
      {"request for our own address", {packet(1, "10.2.7.7", "10.2.0.5")}},
      {"request from another subnet", {packet(1, "10.9.0.1", "10.9.0.2")}},
      {"gratuitous reply from our subnet", {packet(2, "10.2.3.4", "10.2.3.4")}},
      {"next address carries", {packet(2, "10.0.0.255", "10.0.0.255")}},
      {"only the first reply pins", {packet(2, "10.2.3.4", "10.2.0.5"), packet(2, "10.2.3.9", "10.2.0.5")}},
      {"unknown opcode", {packet(3, "10.9.0.1", "10.9.0.2")}},
      {"packet cut short", {packet(1, "10.9.0.1", "10.9.0.2", 1)}},
      {"address check fails uncounted", {packet(1, "10.9.0.1", "10.9.0.2")}, -1, 1},
      {"request's subnet check fails", {packet(1, "10.9.0.1", "10.9.0.2")}, SIOCGIFNETMASK, 1},
      {"reply's subnet check fails", {packet(2, "10.1.1.1", "10.1.1.1")}, SIOCGIFADDR, 1},
  };
  std::string transcript;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ArpBench arp;
    if (c.fail < 0) arp.devices.fail_socket = EMFILE;
    if (c.fail > 0) arp.devices.fail[static_cast<unsigned long>(c.fail)] = EADDRNOTAVAIL;
    for (const auto& p : c.packets) EXPECT_EQ(arp.deliver(p), c.result);
    EXPECT_EQ(arp.devices.open_descriptors(), 0);
    transcript += std::string("== ") + c.what + "\n";
    for (size_t i = 0; i < arp.commands.commands.size(); ++i) {
      transcript += arp.commands.commands[i];
      for (const auto& [name, value] : arp.commands.environments.at(i)) transcript += " " + name + "=" + value;
      transcript += "\n";
    }
    const cpa_misc_ctr_t& n = arp.counters;
    transcript += "requests " + std::to_string(n.k_arp_req) + ", replies " + std::to_string(n.k_arp_reply) +
                  ", errors " + std::to_string(n.k_arp_err) + "\n";
  }
  EXPECT_EQ(transcript, read_file(CPA_TESTDATA "/arp_commands.txt"));
}

TEST(Arp, FramesNamingAnAddressNoHostMayHaveAreDroppedAndCounted) {
  const struct {
    const char* addr;
    bool usable;
  } cases[] = {{"0.0.0.0", false},   {"0.0.0.1", true},     {"127.0.0.1", false}, {"127.255.255.255", false},
               {"126.255.255.255", true}, {"223.255.255.255", true}, {"224.0.0.1", false}, {"239.1.2.3", false},
               {"240.0.0.1", true},  {"255.255.255.254", true}, {"255.255.255.255", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.addr);
    uint32_t addr = 0;
    inet_pton(AF_INET, c.addr, &addr);
    EXPECT_EQ(arp_address_usable(addr), c.usable);
    ArpBench arp;
    EXPECT_EQ(arp.deliver(packet(1, c.addr, "10.9.0.2")) + arp.deliver(packet(2, "10.9.0.1", c.addr)), 0);
    EXPECT_EQ(arp.counters.k_arp_filter_drop, c.usable ? 0u : 2u);
    EXPECT_EQ(arp.commands.commands.empty(), !c.usable);
  }
}

}  // namespace
}  // namespace cpa::test
