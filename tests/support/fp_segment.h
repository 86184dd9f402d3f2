// A fast-path segment of full size in anonymous memory, sparse: only the
// pages written cost. Written at offsets taken from the fast path's own
// description, independent of the agent's layout header.
#pragma once

#include <arpa/inet.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "state/sa_records.h"

namespace cpa::test {

class FpSegment {
 public:
  static constexpr size_t kSize = 0x39BBDFC0;
  FpSegment()
      : base_(static_cast<uint8_t*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))) {}
  ~FpSegment() { munmap(base_, kSize); }
  const uint8_t* data() const { return base_; }

  // SA entry `index` (SPI and destination in host order), appended to the
  // chain of its SPI's bucket; the SAD count goes up.
  void add_sa(uint32_t index, uint32_t spi, uint32_t dst, uint8_t proto, uint16_t state = 1) {
    const uint32_t n = htonl(spi);
    const uint32_t bucket = (n ^ (n >> 16)) & 0xFFFF;
    uint8_t* e = entry(index);
    put<uint16_t>(e, state);
    put<uint32_t>(e + 20, htonl(spi));
    put<uint32_t>(e + 24, htonl(dst));
    e[33] = proto;
    uint8_t* head = base_ + kIpsec + 524292 + bucket * 8;
    put<uint32_t>(get(head) ? entry(get(head + 4)) + 33492 : head, index);
    put<uint32_t>(head + 4, index);
    put<uint32_t>(base_ + kIpsec, get(base_ + kIpsec) + 1);
  }
  void sa_counter(uint32_t index, int core, size_t offset, uint64_t v) {
    put(entry(index) + 704 + core * 256 + offset, v);
  }
  void global_counter(int row, int core, size_t offset, uint64_t v) {
    put(base_ + kIpsec + 621864328 + (row * 128 + core) * 184 + offset, v);
  }

 private:
  static constexpr size_t kIpsec = 0x40ED540;
  uint8_t* entry(uint32_t index) { return base_ + kIpsec + 1572928 + size_t{index} * 33600; }
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
