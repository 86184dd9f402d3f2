// What the agent does with the ARP packets seen on ethgrp0: it keeps the
// interface's address in step with them through the platform's commands.
#pragma once

#include <cstdint>
#include <string>

#include "base/counters.h"
#include "platform/system_ports.h"
#include "wire/arp_frame.h"

namespace cpa {

struct ArpSeams {
  NetDeviceSysCalls& devices;  // the interface address and netmask queries
  CommandRunner& commands;
  Environment& environment;  // what the commands are told
};

// 0 when `ifname` has exactly `addr` (network order), 1 when it has another,
// -1 when the query failed.
int kestrix_validate_ip_addr(NetDeviceSysCalls& sys, const char* ifname, uint32_t addr);

// 1 when `addr` (network order) lies in the subnet of `ifname`, 0 when not,
// -1 when the query failed; on success the interface's address goes to `if_addr`.
int kestrix_validate_subnet(NetDeviceSysCalls& sys, const char* ifname, uint32_t addr, uint32_t* if_addr);

// False for addresses no neighbour may claim or ask for: 0.0.0.0, loopback
// (127/8), multicast (224/4) and the broadcast address; `addr` in network order.
bool arp_address_usable(uint32_t addr);

// "aa:bb:cc:dd:ee:ff"; logged at debug level too when `print` is set.
std::string format_print_mac_address(const uint8_t (&mac)[6], bool print);

class ArpHandler {
 public:
  ArpHandler(ArpSeams seams, cpa_misc_ctr_t& counters) : sys_(seams), counters_(counters) {}

  // 0 when the packet was handled or ignored, 1 when it could not be handled.
  int kestrix_pal_proc_arp(ReceivedBytes packet);

 private:
  int proc_request(const arp_eth_ipv4_t& p);
  int proc_reply(const arp_eth_ipv4_t& p);
  // kestrix_validate_subnet of the sender; a failure is logged and counted.
  int sender_in_subnet(const arp_eth_ipv4_t& p, uint32_t& if_addr, const char* packet_kind);
  void pin_static_arp_entry(const arp_eth_ipv4_t& p);
  void export_sender(const arp_eth_ipv4_t& p);
  void flush_interface();
  void set_interface_address();

  ArpSeams sys_;
  cpa_misc_ctr_t& counters_;
  int sArpSet = 0;  // the first reply ever seen has been pinned
};

}  // namespace cpa
