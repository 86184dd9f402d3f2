// The fast path's shared segment, from which statistics queries are answered.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpa {

inline constexpr size_t kFastPathSegmentSize = 0x39BBDFC0;

class FastPathStats {
 public:
  FastPathStats() = default;
  FastPathStats(const FastPathStats&) = delete;
  FastPathStats& operator=(const FastPathStats&) = delete;
  ~FastPathStats();

  // Maps "fp-shared" once; without it the agent runs on and queries report it.
  void kestrix_stats_sharedmem_init();
  const uint8_t* fp_shared() const { return fp_shared_; }

 private:
  const uint8_t* fp_shared_ = nullptr;
};

}  // namespace cpa
