#include "ceal/kernel_sa_stats.h"

#include <arpa/inet.h>

#include <cstring>
#include <optional>

#include "kernel/linux_sa_counters.h"
#include "wire/ceal_stats.h"

namespace cpa {
namespace {

void put_be32(uint8_t* at, uint64_t value) {
  const uint32_t wire = htonl(static_cast<uint32_t>(value));
  std::memcpy(at, &wire, sizeof wire);
}

void put_be64(uint8_t* at, uint64_t value) {
  put_be32(at, value >> 32);
  put_be32(at + 4, value);
}

std::optional<KernelSaCounters> counters_of(NetlinkTransport& nl, uint32_t spi, uint32_t dst,
                                            uint8_t proto) {
  kestrix_addr dest{};
  dest.ip_address = dst;
  return kestrix_linux_sa_counters(nl, dest, spi, proto);
}

// What the kernel counts of the two directions, summed over SAs.
struct DirectionTotals {
  KernelSaCounters in;
  KernelSaCounters out;
  void add(const KernelSaCounters& c, bool inbound) {
    KernelSaCounters& t = inbound ? in : out;
    t.bytes += c.bytes;
    t.packets += c.packets;
    t.replay_failures += c.replay_failures;
    t.integrity_failures += c.integrity_failures;
  }
};

template <class SaList>
void add_list(NetlinkTransport& nl, const SaList& list, bool inbound, DirectionTotals& totals) {
  for (const auto& sa : list)
    if (const auto c = counters_of(nl, sa.spi, sa.dest_addr.ip_address, sa.protocol))
      totals.add(*c, inbound);
}

}  // namespace

void kestrix_kernel_flow_counters(NetlinkTransport& nl, uint32_t spi, uint32_t dst, uint8_t proto,
                                  bool is_inbound, uint8_t* stats) {
  const auto c = counters_of(nl, spi, dst, proto);
  if (!c) return;
  namespace f = flow_stats;
  if (!is_inbound) {
    put_be64(stats + f::flow_out_bytes, c->bytes);
    put_be32(stats + f::flow_out_pkts, c->packets);
    return;
  }
  put_be64(stats + f::flow_in_bytes, c->bytes);
  put_be32(stats + f::flow_in_pkts, c->packets);
  put_be32(stats + f::flow_decap_fail, c->integrity_failures);
  put_be32(stats + f::flow_in_auth_fail, c->integrity_failures);
  put_be32(stats + f::flow_test_replay_fail, c->replay_failures);
}

void kestrix_kernel_global_counters(NetlinkTransport& nl, const TunnelTable& tunnels,
                                    uint8_t* g_stats) {
  DirectionTotals totals;
  for (uint32_t slot = 1; slot < TunnelTable::kSlots; ++slot) {
    const cpa_interface_t* tunnel = tunnels.at(slot);
    if (!tunnel) continue;
    add_list(nl, tunnel->inb_sa_list, true, totals);
    add_list(nl, tunnel->outb_sa_list, false, totals);
  }
  namespace g = global_stats;
  put_be64(g_stats + g::global_in_bytes, totals.in.bytes);
  put_be32(g_stats + g::global_in_pkts, totals.in.packets);
  put_be32(g_stats + g::global_decap_fail, totals.in.integrity_failures);
  put_be32(g_stats + g::global_in_auth_fail, totals.in.integrity_failures);
  put_be32(g_stats + g::global_test_replay_fail, totals.in.replay_failures);
  put_be64(g_stats + g::global_out_bytes, totals.out.bytes);
  put_be32(g_stats + g::global_out_pkts, totals.out.packets);
}

}  // namespace cpa
