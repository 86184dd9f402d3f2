// Reads host-order values out of captured messages at offsets written in the
// tests (netlink carries host order, unlike the RP's big-endian datagrams).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
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
inline uint64_t u64_at(const std::vector<uint8_t>& m, size_t offset) { return host_at<uint64_t>(m, offset); }

// Big-endian (network order) fields inside netlink bodies.
inline uint16_t be16_at(const std::vector<uint8_t>& m, size_t offset) {
  return static_cast<uint16_t>(u8_at(m, offset) << 8 | u8_at(m, offset + 1));
}
inline uint32_t be32_at(const std::vector<uint8_t>& m, size_t offset) {
  return static_cast<uint32_t>(be16_at(m, offset)) << 16 | be16_at(m, offset + 2);
}

// The NUL-terminated text at `offset`, at most `max` bytes.
inline std::string text_at(const std::vector<uint8_t>& m, size_t offset, size_t max) {
  std::string out;
  for (size_t i = offset; i < offset + max && i < m.size() && m[i]; ++i) out += static_cast<char>(m[i]);
  return out;
}

inline bool zero_between(const std::vector<uint8_t>& m, size_t from, size_t to) {
  for (size_t i = from; i < to; ++i)
    if (i >= m.size() || m[i] != 0) return false;
  return true;
}

}  // namespace cpa::test
