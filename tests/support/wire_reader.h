// Reads values out of captured messages at offsets written in the tests:
// host order for netlink's own fields, big-endian (network order) for the
// addresses and ports inside its bodies.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace cpa::test {

template <class T>
T host_at(const std::vector<uint8_t>& m, size_t offset) {
  T v{};
  if (offset + sizeof v <= m.size()) std::memcpy(&v, m.data() + offset, sizeof v);
  return v;
}

inline uint8_t u8_at(const std::vector<uint8_t>& m, size_t offset) { return host_at<uint8_t>(m, offset); }
inline uint16_t u16_at(const std::vector<uint8_t>& m, size_t offset) { return host_at<uint16_t>(m, offset); }
inline uint32_t u32_at(const std::vector<uint8_t>& m, size_t offset) { return host_at<uint32_t>(m, offset); }

inline uint16_t be16_at(const std::vector<uint8_t>& m, size_t offset) {
  return static_cast<uint16_t>(u8_at(m, offset) << 8 | u8_at(m, offset + 1));
}
inline uint32_t be32_at(const std::vector<uint8_t>& m, size_t offset) {
  return static_cast<uint32_t>(be16_at(m, offset)) << 16 | be16_at(m, offset + 2);
}

}  // namespace cpa::test
