// A bounded, read-only view of the bytes a datagram actually delivered.
// Every read of received data goes through it: a read that would pass the
// end yields nothing (or, for read_padded, zero bytes where nothing arrived).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

namespace cpa {

class ReceivedBytes {
 public:
  ReceivedBytes() = default;
  ReceivedBytes(const uint8_t* data, size_t size) : data_(data), size_(data ? size : 0) {}

  size_t size() const { return size_; }
  const uint8_t* data() const { return data_; }
  bool holds(size_t offset, size_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }

  // A copy of the T stored at `offset`, or nothing when the bytes are too few.
  template <class T>
  std::optional<T> read(size_t offset) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (!holds(offset, sizeof(T))) return std::nullopt;
    T value;
    std::memcpy(&value, data_ + offset, sizeof(T));
    return value;
  }

  // A T built from what arrived at `offset`, zero-filled past the end.
  // `complete` tells whether every byte of it was received.
  template <class T>
  struct Padded {
    T value;
    bool complete;
    const T* operator->() const { return &value; }
  };
  template <class T>
  Padded<T> read_padded(size_t offset) const {
    static_assert(std::is_trivially_copyable_v<T>);
    Padded<T> out{};
    std::memset(&out.value, 0, sizeof(T));
    const size_t avail = offset < size_ ? size_ - offset : 0;
    const size_t n = avail < sizeof(T) ? avail : sizeof(T);
    if (n) std::memcpy(&out.value, data_ + offset, n);
    out.complete = n == sizeof(T);
    return out;
  }

  // The bytes from `offset` on, at most `length` of them (empty past the end).
  ReceivedBytes slice(size_t offset, size_t length = SIZE_MAX) const {
    if (offset >= size_) return {};
    const size_t rest = size_ - offset;
    return {data_ + offset, length < rest ? length : rest};
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// A fixed request body as received, zero-filled where the datagram ended early.
template <class T>
using RequestBody = ReceivedBytes::Padded<T>;

}  // namespace cpa
