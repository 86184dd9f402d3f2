// A fast-path segment of full size in anonymous memory, sparse: only the
// pages written cost. Written through the agent's layout header; the segment
// tool's test keeps that header and the tool in step.
#pragma once

#include <arpa/inet.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "platform/fastpath_layout.h"
#include "state/sa_records.h"

namespace cpa::test {

class FpSegment {
 public:
  FpSegment()
      : base_(static_cast<uint8_t*>(mmap(nullptr, fp::kSegmentSize, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))) {}
  ~FpSegment() { munmap(base_, fp::kSegmentSize); }
  const uint8_t* data() const { return base_; }

  // SA entry `index` (SPI and destination in host order), appended to the
  // chain of its SPI's bucket; the SAD count goes up.
  void add_sa(uint32_t index, uint32_t spi, uint32_t dst, uint8_t proto, uint16_t state = 1) {
    uint8_t* e = entry(index);
    put(e + fp::kSaState, state);
    put(e + fp::kSaSpi, htonl(spi));
    put(e + fp::kSaDst, htonl(dst));
    put(e + fp::kSaProto, proto);
    uint8_t* head = base_ + fp::kSpiHash + fp::sa_spi2hash(htonl(spi)) * fp::kHlistHeadSize;
    uint8_t* last = head + fp::kHlistFirst + 4;  // `last` follows `first`
    put(get(head + fp::kHlistFirst) ? entry(get(last)) + fp::kSaHlistNext : head + fp::kHlistFirst, index);
    put(last, index);
    put(base_ + fp::kSadCount, get(base_ + fp::kSadCount) + 1);
  }
  void sa_counter(uint32_t index, int core, size_t offset, uint64_t v) {
    put(entry(index) + fp::kSaStats + core * fp::kSaStatsRecordSize + offset, v);
  }
  void global_counter(int row, int core, size_t offset, uint64_t v) {
    put(base_ + fp::kIpsecStats + (row * fp::kCores + core) * fp::kIpsecStatsRecordSize + offset, v);
  }

 private:
  uint8_t* entry(uint32_t index) { return base_ + fp::kSaTable + size_t{index} * fp::kSaEntrySize; }
  static uint32_t get(const uint8_t* at) {
    uint32_t v;
    std::memcpy(&v, at, 4);
    return v;
  }
  template <class T>
  static void put(uint8_t* at, T v) {
    std::memcpy(at, &v, sizeof v);
  }
  uint8_t* base_;
};

// An agent SA (cpa_inbound_sa_t or cpa_outbound_sa_t) of CEAL flow `flow_id`
// that the fast path knows by `spi`, `dst` (host order) and `proto`.
template <class Sa>
std::unique_ptr<Sa> flow_sa(int32_t flow_id, uint32_t spi, uint32_t dst, uint8_t proto) {
  auto sa = std::make_unique<Sa>();
  sa->spi = spi;
  sa->protocol = proto;
  sa->dest_addr.ip_address = dst;
  sa->sa_info = std::make_unique<kestrix_ce_cipher_list_t>();
  sa->sa_info->ipsec_index = flow_id;
  return sa;
}

}  // namespace cpa::test
