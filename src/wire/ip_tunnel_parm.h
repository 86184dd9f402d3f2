// The tunnel parameter record of the platform kernel's tunnel ioctls
// (SIOCADDTUNNEL, SIOCDELTUNNEL through the "svti_cfg" control device).
// It is the platform's own layout, not the stock kernel's: 312 bytes, host
// byte order, with an IKE identity block before the IPv4 header template.
#pragma once

#include <linux/sockios.h>

#include <cstddef>
#include <cstdint>

namespace cpa {

inline constexpr unsigned long kSiocAddTunnel = 0x89F1;
inline constexpr unsigned long kSiocDelTunnel = 0x89F2;
static_assert(kSiocAddTunnel == SIOCDEVPRIVATE + 1 && kSiocDelTunnel == SIOCDEVPRIVATE + 2);

inline constexpr size_t kTunnelNameSize = 16;

struct __attribute__((packed)) ip_tunnel_ike_id {
  uint8_t type;
  uint8_t reserved;
  uint16_t datalen;
  uint8_t data[252];
};
static_assert(sizeof(ip_tunnel_ike_id) == 256);
static_assert(offsetof(ip_tunnel_ike_id, reserved) == 1);
static_assert(offsetof(ip_tunnel_ike_id, datalen) == 2);
static_assert(offsetof(ip_tunnel_ike_id, data) == 4);

// The IPv4 header template of the tunnel.
struct __attribute__((packed)) ip_tunnel_iph {
  uint8_t version_ihl;
  uint8_t tos;
  uint16_t tot_len;
  uint16_t id;
  uint16_t frag_off;
  uint8_t ttl;
  uint8_t protocol;
  uint16_t check;
  uint32_t saddr;
  uint32_t daddr;
};
static_assert(sizeof(ip_tunnel_iph) == 20);
static_assert(offsetof(ip_tunnel_iph, tos) == 1);
static_assert(offsetof(ip_tunnel_iph, tot_len) == 2);
static_assert(offsetof(ip_tunnel_iph, id) == 4);
static_assert(offsetof(ip_tunnel_iph, frag_off) == 6);
static_assert(offsetof(ip_tunnel_iph, ttl) == 8);
static_assert(offsetof(ip_tunnel_iph, protocol) == 9);
static_assert(offsetof(ip_tunnel_iph, check) == 10);
static_assert(offsetof(ip_tunnel_iph, saddr) == 12);
static_assert(offsetof(ip_tunnel_iph, daddr) == 16);

inline constexpr uint8_t kIpv4HeaderTemplate = 0x45;  // version 4, five 32-bit words

struct __attribute__((packed)) ip_tunnel_parm {
  char name[kTunnelNameSize];
  int32_t link;
  uint32_t link_vrfid;
  uint16_t i_flags;
  uint16_t o_flags;
  uint32_t i_key;
  uint32_t o_key;
  ip_tunnel_ike_id ike_id;
  ip_tunnel_iph iph;
};
static_assert(sizeof(ip_tunnel_parm) == 312);
static_assert(offsetof(ip_tunnel_parm, link) == 16);
static_assert(offsetof(ip_tunnel_parm, link_vrfid) == 20);
static_assert(offsetof(ip_tunnel_parm, i_flags) == 24);
static_assert(offsetof(ip_tunnel_parm, o_flags) == 26);
static_assert(offsetof(ip_tunnel_parm, i_key) == 28);
static_assert(offsetof(ip_tunnel_parm, o_key) == 32);
static_assert(offsetof(ip_tunnel_parm, ike_id) == 36);
static_assert(offsetof(ip_tunnel_parm, iph) == 292);

}  // namespace cpa
