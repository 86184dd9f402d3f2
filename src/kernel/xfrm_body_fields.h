// The fields that the SA and policy bodies of both kernels share by name:
// filled once, whichever kernel's struct holds them.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdint>

#include "kernel/kernel_dialect.h"
#include "state/cipher_record.h"
#include "state/tunnel_table.h"
#include "wire/cipher_info.h"

namespace cpa {

inline constexpr uint64_t kNoLimit = ~uint64_t{0};
inline constexpr uint32_t kAnyAlgorithm = 0xFFFFFFFF;

// Byte and packet limits off, no expiry times.
template <class LifetimeCfg>
void set_unlimited(LifetimeCfg& lft) {
  lft.soft_byte_limit = kNoLimit;
  lft.hard_byte_limit = kNoLimit;
  lft.soft_packet_limit = kNoLimit;
  lft.hard_packet_limit = kNoLimit;
}

// An SA for any traffic (the policy does the selecting) from a cipher record:
// addresses, SPI and protocol, mode, request id, time limits, and the
// agent's replay window unless the record turns it off.
template <class SaInfo>
void fill_sa_info(SaInfo& sa, const kestrix_ce_cipher_list_t& sa_info, uint32_t reqid,
                  int replay_window) {
  const kestrix_ce_cipher_info& ci = sa_info.ce_cipher;
  set_unlimited(sa.lft);
  sa.lft.soft_add_expires_seconds = ci.soft_time_lifetime;
  sa.lft.hard_add_expires_seconds = ci.hard_time_lifetime;
  sa.sel.family = AF_INET;
  sa.family = AF_INET;
  sa.saddr.a4 = htonl(ci.source.ip_address);
  sa.id.daddr.a4 = htonl(ci.dest.ip_address);
  if (ci.esp_used) {
    sa.id.spi = htonl(ci.esp_spi);
    sa.id.proto = kIpProtoEsp;
  } else if (ci.ah_used) {
    sa.id.spi = htonl(ci.ah_spi);
    sa.id.proto = kIpProtoAh;
  }
  sa.mode = static_cast<uint8_t>(ci.mode);
  sa.reqid = reqid;
  sa.replay_window =
      ci.antireplay_window_size == kAntiReplayDisabled ? 0 : static_cast<uint8_t>(replay_window);
}

// A policy's selector: addresses, ports under the given masks, family,
// prefixes, protocol.
template <class Selector>
Selector policy_selector(const XfrmPolicyArgs& p, uint16_t dport_mask, uint16_t sport_mask) {
  Selector sel{};
  sel.daddr.a4 = htonl(p.dst);
  sel.saddr.a4 = htonl(p.src);
  sel.dport = htons(p.dport);
  sel.sport = htons(p.sport);
  sel.dport_mask = dport_mask;
  sel.sport_mask = sport_mask;
  sel.family = p.family;
  sel.prefixlen_d = static_cast<uint8_t>(p.dmask);
  sel.prefixlen_s = static_cast<uint8_t>(p.smask);
  sel.proto = p.proto;
  return sel;
}

// A template for the tunnel's SAs of any algorithm: protocol, family,
// request id and mode (the outer addresses are the caller's).
template <class Tmpl>
Tmpl sa_template(const XfrmPolicyArgs& p) {
  Tmpl tmpl{};
  tmpl.id.proto = p.sec_protocol;
  tmpl.family = AF_INET;
  tmpl.reqid = p.reqid;
  tmpl.mode = p.tun_mode;
  tmpl.aalgos = kAnyAlgorithm;
  tmpl.ealgos = kAnyAlgorithm;
  tmpl.calgos = kAnyAlgorithm;
  return tmpl;
}

}  // namespace cpa
