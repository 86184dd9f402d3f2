// Where the fast path keeps what the agent reads in its "fp-shared" segment.
// The layout is the fast path's and depends on its build configuration; a
// platform built with other values changes this header only. All values are
// byte offsets from the segment start unless named otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpa::fp {

inline constexpr size_t kSegmentSize = 0x39BBDFC0;  // the whole shared_mem_t

// The SA database (`ipsec.sad`), at the start of the IPsec block.
inline constexpr size_t kIpsec = 0x40ED540;               // fp_ipsec_t
inline constexpr size_t kSadCount = kIpsec + 0;           // u32: number of SAs, 0 = empty table
inline constexpr size_t kSpiHash = kIpsec + 524292;       // fp_hlist_head_t[kSpiHashBuckets]
inline constexpr size_t kSpiHashBuckets = 65536;
inline constexpr size_t kHlistHeadSize = 8;               // u32 `first`, u32 `last`
inline constexpr size_t kHlistFirst = 0;                  // u32 entry index, 0 = empty chain
inline constexpr size_t kSaTable = kIpsec + 1572928;      // fp_sa_entry_t[kSaEntries]
inline constexpr uint32_t kSaEntries = 16385;             // index 0 is never a real SA
inline constexpr size_t kSaEntrySize = 33600;
static_assert(kSpiHash == 0x416D544 && kSaTable == 0x426D580);
static_assert(kSpiHash + kSpiHashBuckets * kHlistHeadSize <= kSaTable);

// Fields of one SA entry (fp_sa_entry_t).
inline constexpr size_t kSaState = 0;           // u16, 0: the entry is absent
inline constexpr size_t kSaSpi = 20;            // u32, network order
inline constexpr size_t kSaDst = 24;            // u32 IPv4 destination, network order
inline constexpr size_t kSaProto = 33;          // u8 IP protocol
inline constexpr size_t kSaStats = 704;         // fp_sa_stats_t[kCores]
inline constexpr size_t kSaHlistNext = 33492;   // u32 next entry of the SPI chain, 0 ends it
inline constexpr int kCores = 128;              // every counter block has one record per core
inline constexpr size_t kSaStatsRecordSize = 256;
static_assert(kSaStats + kCores * kSaStatsRecordSize <= kSaHlistNext);
static_assert(kSaHlistNext + 4 <= kSaEntrySize);

// u64 counters of one per-core SA record (fp_sa_stats_t).
inline constexpr size_t in_sa_bytes = 0, in_sa_packets = 8, in_sa_auth_done = 16,
                        in_sa_auth_errors = 24, in_sa_decap_errors = 32, in_sa_decrypt_done = 40,
                        in_sa_decrypt_errors = 48, in_sa_replay_errors = 56,
                        in_sa_hw_submission_errors = 72, in_sa_hw_processing_errors = 80,
                        out_sa_bytes = 136, out_sa_packets = 144, out_sa_auth_done = 152,
                        out_sa_auth_errors = 160, out_sa_encap_errors = 168, out_sa_encrypt_done = 176,
                        out_sa_encrypt_errors = 184, out_sa_replay_errors = 192,
                        out_sa_hw_submission_errors = 208, out_sa_hw_processing_errors = 216;
static_assert(out_sa_hw_processing_errors + 8 <= kSaStatsRecordSize);

// Global IPsec counters: kIpsecStatsRows x kCores records; the agent reads row 0.
inline constexpr size_t kIpsecStats = kIpsec + 621864328;  // fp_ipsec_stats_t[8][kCores]
inline constexpr int kIpsecStatsRows = 8;
inline constexpr size_t kIpsecStatsRecordSize = 184;
static_assert(kIpsecStats == 0x291FBAC8);
static_assert(kSaTable + kSaEntries * kSaEntrySize <= kIpsecStats);
static_assert(kIpsecStats + kIpsecStatsRows * kCores * kIpsecStatsRecordSize <= kSegmentSize);

// u64 counters of one global record (fp_ipsec_stats_t).
inline constexpr size_t in_packets = 0, in_bytes = 8, in_auth_done = 16, in_auth_errors = 24,
                        in_xcap_errors = 32, in_xcrypt_done = 40, in_xcrypt_errors = 48,
                        in_replay_errors = 56, in_hw_submission_errors = 72,
                        in_hw_processing_errors = 80, out_packets = 88, out_bytes = 96,
                        out_auth_done = 104, out_auth_errors = 112, out_xcap_errors = 120,
                        out_xcrypt_done = 128, out_xcrypt_errors = 136,
                        out_hw_submission_errors = 160, out_hw_processing_errors = 168;
static_assert(out_hw_processing_errors + 8 <= kIpsecStatsRecordSize);

// The SPI hash bucket (sa_spi2hash) of an SPI as the fast path stores it
// (network order), read as a native number.
constexpr uint32_t sa_spi2hash(uint32_t network_spi) {
  return (network_spi ^ (network_spi >> 16)) & 0xFFFF;
}

}  // namespace cpa::fp
