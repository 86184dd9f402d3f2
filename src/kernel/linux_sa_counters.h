// The counters a stock kernel keeps for one SA, read with XFRM_MSG_GETSA:
// what linux mode answers statistics queries from, the fast path's segment
// being absent there.
#pragma once

#include <cstdint>
#include <optional>

#include "kernel/netlink_transport.h"
#include "wire/cp_dp_msg.h"
#include "wire/received_bytes.h"

namespace cpa {

struct KernelSaCounters {
  uint64_t bytes = 0;    // current lifetime: bytes through the SA
  uint64_t packets = 0;  // current lifetime: packets through the SA
  uint32_t replay_failures = 0;     // packets refused by the replay check
  uint32_t integrity_failures = 0;  // packets whose integrity check failed
  uint32_t oseq = 0;  // last outbound sequence number
  uint32_t seq = 0;   // last inbound sequence number
};

// The counters of the SA with destination `dst`, SPI `spi` (host order) and
// protocol `proto`; nothing when the kernel refused (no such SA) or
// answered with something else than the SA.
std::optional<KernelSaCounters> kestrix_linux_sa_counters(NetlinkTransport& nl,
                                                          const kestrix_addr& dst, uint32_t spi,
                                                          uint8_t proto);

// The counters in a kernel's SA message (header included); nothing when it
// is not an SA or too short for its body.
std::optional<KernelSaCounters> linux_sa_counters_of(ReceivedBytes msg);

}  // namespace cpa
