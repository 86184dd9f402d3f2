#include "platform/fastpath_segment.h"

#include <arpa/inet.h>
#include <sys/mman.h>

#include <array>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "platform/fp_shmem.h"
#include "wire/byte_order.h"
#include "wire/ceal_stats.h"

namespace cpa {
namespace {

// The segment is written concurrently by the fast path: every read is a copy
// of the value as it is at that moment.
template <class T>
T load(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// One response counter: where it goes, whether it is 64-bit, and the one or
// two per-core counters that add into it.
struct SummedField {
  uint16_t at;
  bool wide;
  uint16_t first;
  uint16_t second = kNone;
  static constexpr uint16_t kNone = 0xFFFF;
};

// Sums each field over the kCores records and stores it big-endian. Sums are
// kept in 64 bits: a 32-bit field then takes the low half, which equals the
// sum of the low halves modulo 2^32.
template <size_t N>
void sum_over_cores(const uint8_t* records, size_t stride, const std::array<SummedField, N>& fields,
                    uint8_t* out) {
  std::array<uint64_t, N> sums{};
  for (int core = 0; core < fp::kCores; ++core) {
    const uint8_t* record = records + core * stride;
    for (size_t f = 0; f < N; ++f) {
      sums[f] += load<uint64_t>(record + fields[f].first);
      if (fields[f].second != SummedField::kNone) sums[f] += load<uint64_t>(record + fields[f].second);
    }
  }
  for (size_t f = 0; f < N; ++f) {
    if (fields[f].wide) {
      const uint64_t wire = kestrix_bswap64(sums[f]);
      std::memcpy(out + fields[f].at, &wire, sizeof wire);
    } else {
      const uint32_t wire = htonl(static_cast<uint32_t>(sums[f]));
      std::memcpy(out + fields[f].at, &wire, sizeof wire);
    }
  }
}

namespace fs = flow_stats;
constexpr std::array<SummedField, 10> kInboundFlow{{
    {fs::flow_in_bytes, true, fp::in_sa_bytes},
    {fs::flow_in_pkts, false, fp::in_sa_packets},
    {fs::flow_decap_fail, false, fp::in_sa_auth_errors, fp::in_sa_decrypt_errors},
    {fs::flow_test_replay_fail, false, fp::in_sa_replay_errors},
    {fs::flow_in_auth, false, fp::in_sa_auth_done},
    {fs::flow_in_auth_fail, false, fp::in_sa_auth_errors},
    {fs::flow_decrypt_done, false, fp::in_sa_decrypt_done},
    {fs::flow_decrypt_fail, false, fp::in_sa_decrypt_errors},
    {fs::flow_invalid_decap_pak, false, fp::in_sa_decap_errors},
    {fs::flow_in_sys_err, false, fp::in_sa_hw_submission_errors, fp::in_sa_hw_processing_errors},
}};
constexpr std::array<SummedField, 9> kOutboundFlow{{
    {fs::flow_out_bytes, true, fp::out_sa_bytes},
    {fs::flow_out_pkts, false, fp::out_sa_packets},
    {fs::flow_encap_fail, false, fp::out_sa_encap_errors},
    {fs::flow_out_auth, false, fp::out_sa_auth_done},
    {fs::flow_out_auth_fail, false, fp::out_sa_auth_errors},
    {fs::flow_encrypt_done, false, fp::out_sa_encrypt_done},
    {fs::flow_encrypt_fail, false, fp::out_sa_encrypt_errors},
    {fs::flow_out_sys_err, false, fp::out_sa_hw_submission_errors, fp::out_sa_hw_processing_errors},
    {fs::flow_set_replay_fail, false, fp::out_sa_replay_errors},
}};

namespace gs = global_stats;
constexpr std::array<SummedField, 18> kGlobal{{
    {gs::global_in_bytes, true, fp::in_bytes},
    {gs::global_invalid_decap_pak, false, fp::in_xcap_errors},
    {gs::global_inbound_sys_err, false, fp::in_hw_submission_errors, fp::in_hw_processing_errors},
    {gs::global_in_pkts, false, fp::in_packets},
    {gs::global_decap_fail, false, fp::in_xcrypt_errors, fp::in_auth_errors},
    {gs::global_test_replay_fail, false, fp::in_replay_errors},
    {gs::global_in_auth, false, fp::in_auth_done},
    {gs::global_in_auth_fail, false, fp::in_auth_errors},
    {gs::global_decrypt_done, false, fp::in_xcrypt_done},
    {gs::global_decrypt_fail, false, fp::in_xcrypt_errors},
    {gs::global_out_bytes, true, fp::out_bytes},
    {gs::global_outbound_sys_err, false, fp::out_hw_submission_errors, fp::out_hw_processing_errors},
    {gs::global_out_pkts, false, fp::out_packets},
    {gs::global_encap_fail, false, fp::out_xcap_errors},
    {gs::global_out_auth, false, fp::out_auth_done},
    {gs::global_out_auth_fail, false, fp::out_auth_errors},
    {gs::global_encrypt_done, false, fp::out_xcrypt_done},
    {gs::global_encrypt_fail, false, fp::out_xcrypt_errors},
}};

}  // namespace

FastPathStats::~FastPathStats() {
  if (mapping_) munmap(mapping_, fp::kSegmentSize);
}

void FastPathStats::kestrix_stats_sharedmem_init() {
  cpa_log(LOG_DEBUG, " Entered \n");
  ShmemMapping mapped = fp_shmem_map("fp-shared", fp::kSegmentSize);
  mapping_ = mapped.addr;
  mapped_fd_ = std::move(mapped.fd);
  fp_shared_ = static_cast<const uint8_t*>(mapping_);
  if (mapped.status == ShmemStatus::kUntrusted) {
    cpa_log(LOG_ERR, "ERROR: Fastpath shared memory is not owned by root or is writable by others, not mapped");
  } else if (fp_shared_) {
    cpa_log(LOG_INFO,
            "SUCCESS: Fastpath shared memory mapped successfully with size = 0x%x addr = %p\n",
            static_cast<unsigned>(fp::kSegmentSize), static_cast<const void*>(fp_shared_));
  } else {
    cpa_log(LOG_ERR, "ERROR: Failed to open shared memory\n");
  }
}

const uint8_t* FastPathStats::fp_shared() const {
  if (mapped_fd_.valid() && !fp_shmem_holds(mapped_fd_.get(), fp::kSegmentSize)) return nullptr;
  return fp_shared_;
}

const uint8_t* FastPathStats::kestrix_stats_sad_in_lookup(uint32_t spi, uint32_t dst, uint8_t proto) const {
  if (load<uint32_t>(fp_shared_ + fp::kSadCount) == 0) return nullptr;
  const uint32_t wire_spi = htonl(spi);
  const uint32_t wire_dst = htonl(dst);
  const uint8_t* head = fp_shared_ + fp::kSpiHash + fp::sa_spi2hash(wire_spi) * fp::kHlistHeadSize;
  uint32_t index = load<uint32_t>(head + fp::kHlistFirst);
  // The fast path relinks chains while we walk them: an index past the table
  // or a chain longer than the table ends the walk rather than reading
  // outside the segment or looping.
  for (uint32_t steps = 0; index != 0 && index < fp::kSaEntries && steps < fp::kSaEntries; ++steps) {
    const uint8_t* entry = fp_shared_ + fp::kSaTable + index * fp::kSaEntrySize;
    if (load<uint32_t>(entry + fp::kSaSpi) == wire_spi && load<uint32_t>(entry + fp::kSaDst) == wire_dst &&
        entry[fp::kSaProto] == proto) {
      return load<uint16_t>(entry + fp::kSaState) != 0 ? entry : nullptr;
    }
    index = load<uint32_t>(entry + fp::kSaHlistNext);
  }
  return nullptr;
}

void FastPathStats::kestrix_stats_get_flow_counters(uint8_t* flow_stats, const uint8_t* sa_entry,
                                                    bool is_inbound) {
  const uint8_t* records = sa_entry + fp::kSaStats;
  if (is_inbound) {
    sum_over_cores(records, fp::kSaStatsRecordSize, kInboundFlow, flow_stats);
  } else {
    sum_over_cores(records, fp::kSaStatsRecordSize, kOutboundFlow, flow_stats);
  }
}

void FastPathStats::kestrix_stats_get_global_sa_counters(uint8_t* g_stats) const {
  const uint8_t* segment = fp_shared();
  if (!segment) {
    cpa_log(LOG_ERR, "ERROR: Failed to open shared memory\n");
    return;
  }
  sum_over_cores(segment + fp::kIpsecStats, fp::kIpsecStatsRecordSize, kGlobal, g_stats);
}

}  // namespace cpa
