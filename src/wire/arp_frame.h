// An Ethernet/IPv4 ARP packet as the packet socket delivers it (without the
// Ethernet header), and its parse from the bytes actually received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "wire/received_bytes.h"

namespace cpa {

inline constexpr uint16_t kArpOpRequest = 1;
inline constexpr uint16_t kArpOpReply = 2;

struct __attribute__((packed)) arp_eth_ipv4_t {
  uint16_t ar_hrd;  // big-endian, never checked
  uint16_t ar_pro;  // big-endian, never checked
  uint8_t ar_hln;
  uint8_t ar_pln;
  uint16_t ar_op;  // big-endian
  uint8_t ar_sha[6];
  uint32_t ar_sip;  // network order
  uint8_t ar_tha[6];
  uint32_t ar_tip;  // network order
};
static_assert(sizeof(arp_eth_ipv4_t) == 28);
static_assert(offsetof(arp_eth_ipv4_t, ar_pro) == 2);
static_assert(offsetof(arp_eth_ipv4_t, ar_hln) == 4);
static_assert(offsetof(arp_eth_ipv4_t, ar_pln) == 5);
static_assert(offsetof(arp_eth_ipv4_t, ar_op) == 6);
static_assert(offsetof(arp_eth_ipv4_t, ar_sha) == 8);
static_assert(offsetof(arp_eth_ipv4_t, ar_sip) == 14);
static_assert(offsetof(arp_eth_ipv4_t, ar_tha) == 18);
static_assert(offsetof(arp_eth_ipv4_t, ar_tip) == 24);

// The packet, or nothing when fewer bytes than its fixed layout arrived: a
// short packet would otherwise turn missing addresses into 0.0.0.0 and
// re-address the interface to it. Types and lengths are not checked.
inline std::optional<arp_eth_ipv4_t> parse_arp_packet(ReceivedBytes packet) {
  return packet.read<arp_eth_ipv4_t>(0);
}

}  // namespace cpa
