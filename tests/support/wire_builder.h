// Builds request datagrams byte by byte from offsets written in the tests,
// independent of the production structs, so a layout mistake cannot hide.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cpa::test {

class Bytes {
 public:
  Bytes& u8(uint8_t v) {
    b_.push_back(v);
    return *this;
  }
  Bytes& be16(uint16_t v) { return u8(v >> 8).u8(v & 0xff); }
  Bytes& be32(uint32_t v) { return be16(v >> 16).be16(v & 0xffff); }
  Bytes& be64(uint64_t v) { return be32(v >> 32).be32(v & 0xffffffff); }
  Bytes& zeros(size_t n) {
    b_.insert(b_.end(), n, 0);
    return *this;
  }
  // Host order, as netlink carries it.
  template <class T>
  Bytes& host(T v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    b_.insert(b_.end(), p, p + sizeof v);
    return *this;
  }
  Bytes& h16(uint16_t v) { return host(v); }
  Bytes& h32(uint32_t v) { return host(v); }
  Bytes& h64(uint64_t v) { return host(v); }
  // `text` NUL-padded to `width` bytes.
  Bytes& text(const std::string& text, size_t width) {
    b_.insert(b_.end(), text.begin(), text.end());
    return zeros(width - text.size());
  }
  // `n` bytes counting up from `first`.
  Bytes& ramp(uint8_t first, size_t n) {
    for (size_t i = 0; i < n; ++i) u8(static_cast<uint8_t>(first + i));
    return *this;
  }
  Bytes& append(const std::vector<uint8_t>& v) {
    b_.insert(b_.end(), v.begin(), v.end());
    return *this;
  }
  size_t size() const { return b_.size(); }
  operator const std::vector<uint8_t>&() const { return b_; }
  const std::vector<uint8_t>& vec() const { return b_; }

 private:
  std::vector<uint8_t> b_;
};

// A PAL request: header (type 0, length = bytes after the header), command, body.
inline std::vector<uint8_t> pal_request(uint16_t cmd, const std::vector<uint8_t>& body) {
  Bytes d;
  d.be16(0).be16(static_cast<uint16_t>(2 + body.size())).be16(cmd).append(body);
  return d;
}

// A PAL response: header, command, body.
inline std::vector<uint8_t> pal_answer(uint16_t cmd, const std::vector<uint8_t>& body) {
  return Bytes().be16(0).be16(static_cast<uint16_t>(6 + body.size())).be16(cmd).append(body);
}

// A CEAL request: header (type 1, length = bytes after the header), api type, body.
inline std::vector<uint8_t> ceal_request(uint16_t api_type, const std::vector<uint8_t>& body) {
  return Bytes().be16(1).be16(static_cast<uint16_t>(2 + body.size())).be16(api_type).append(body);
}

}  // namespace cpa::test
