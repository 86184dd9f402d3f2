// The ARP packet socket on the internal Ethernet interface.
#pragma once

namespace cpa {

inline constexpr const char* kArpInterface = "ethgrp0";

class ArpPort {
 public:
  explicit ArpPort(int fd) : fd_(fd) {}

  // Binds the socket to `ifname` unless it is bound already; a failure leaves
  // it unbound so that the next readable event tries again.
  void bind_arp_socket(const char* ifname);
  bool bound() const { return g_arp_bound != 0; }

 private:
  int fd_;
  int g_arp_bound = 0;
};

}  // namespace cpa
