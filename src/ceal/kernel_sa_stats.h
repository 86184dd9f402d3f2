// Statistics in linux mode: a stock kernel has no fast path segment, so the
// counters come from its SAs (lifetime bytes and packets, replay and
// integrity failures), mapped onto the same response fields; fields the
// kernel keeps no counter for stay zero.
#pragma once

#include <cstdint>

#include "kernel/netlink_transport.h"
#include "state/tunnel_table.h"

namespace cpa {

// Fills the flow statistics at `stats` (kestrix_ipsec_flow_stats) from the
// kernel SA with that SPI, destination (host order) and protocol; leaves
// them zero when the kernel has no such SA.
void kestrix_kernel_flow_counters(NetlinkTransport& nl, uint32_t spi, uint32_t dst, uint8_t proto,
                                  bool is_inbound, uint8_t* stats);

// Fills the global statistics at `g_stats` (kestrix_ipsec_global_ivrf_stats)
// with the sums over the kernel SAs of every tunnel's SA records.
void kestrix_kernel_global_counters(NetlinkTransport& nl, const TunnelTable& tunnels,
                                    uint8_t* g_stats);

}  // namespace cpa
