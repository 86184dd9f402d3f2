// The fast path's shared segment, from which statistics queries are answered.
// The agent only reads it, without locks, while the fast path writes it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/fastpath_layout.h"
#include "platform/scoped_fd.h"

namespace cpa {

class FastPathStats {
 public:
  FastPathStats() = default;
  FastPathStats(const FastPathStats&) = delete;
  FastPathStats& operator=(const FastPathStats&) = delete;
  ~FastPathStats();

  // Maps "fp-shared" once; without it the agent runs on and queries report it.
  void kestrix_stats_sharedmem_init();
  // Reads a segment the caller owns and keeps alive instead (tests, benchmark).
  void use_segment(const uint8_t* segment) { fp_shared_ = segment; }
  // The segment, or null without one or while the object behind the mapping
  // is smaller than the segment: asked before every read.
  const uint8_t* fp_shared() const;

  // The live SA entry for an SPI and destination (host order) and a
  // protocol, or null. Needs a segment.
  const uint8_t* kestrix_stats_sad_in_lookup(uint32_t spi, uint32_t dst, uint8_t proto) const;

  // Writes one direction's counters of `sa_entry`, summed over the cores,
  // into a zeroed kestrix_ipsec_flow_stats, in network order.
  static void kestrix_stats_get_flow_counters(uint8_t* flow_stats, const uint8_t* sa_entry, bool is_inbound);
  // Writes the global counters (row 0) into a zeroed
  // kestrix_ipsec_global_ivrf_stats, in network order; leaves it zero, with
  // the error line, when there is no segment.
  void kestrix_stats_get_global_sa_counters(uint8_t* g_stats) const;

 private:
  const uint8_t* fp_shared_ = nullptr;
  void* mapping_ = nullptr;  // what this object mapped and unmaps
  ScopedFd mapped_fd_;       // the mapped object, whose size is re-checked
};

}  // namespace cpa
