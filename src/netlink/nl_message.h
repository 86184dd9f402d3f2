// The netlink core: a message built in place on a caller's buffer (header,
// fixed body, attributes, nests), and one bounded walk over the attributes
// of a received message. Every netlink message the agent writes or reads
// attributes of goes through here.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <type_traits>

#include "wire/received_bytes.h"

namespace cpa {

enum class NlStatus { kOk, kNoRoom };

// Where a nest's attribute header sits; `at` 0 is a nest that did not fit.
struct NlNest {
  size_t at = 0;
};

// A message on a caller's buffer. A put that would not fit leaves the
// message as it was, answers kNoRoom and marks the message incomplete, so
// that a builder may check once, before sending. Padding is always zero.
class NlMessage {
 public:
  explicit NlMessage(std::span<uint8_t> buffer) : buf_(buffer) {}
  NlMessage(const NlMessage&) = delete;
  NlMessage& operator=(const NlMessage&) = delete;

  // Starts the message over: a header of `type` and `flags` from port `pid`.
  NlStatus put_header(uint16_t type, uint16_t flags, uint32_t pid = 0, uint32_t seq = 0);
  // The fixed part behind the header (the XFRM body, the ifinfomsg).
  NlStatus put_body(const void* body, size_t len);
  template <class T>
  NlStatus put_body(const T& body) {
    static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
    return put_body(&body, sizeof body);
  }

  NlStatus put_attr(uint16_t type, const void* data, size_t len);
  template <class T>
  NlStatus put_attr(uint16_t type, const T& value) {
    static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
    return put_attr(type, &value, sizeof value);
  }
  // A string attribute with its terminating zero.
  NlStatus put_attr_strz(uint16_t type, const char* text);

  // The attributes put between the two belong to the nest.
  NlNest nest_start(uint16_t type);
  // A nest too long for its length field is taken back whole.
  NlStatus nest_end(NlNest nest);

  bool complete() const { return complete_; }  // every put fit
  size_t size() const { return len_; }        // = nlmsg_len
  uint8_t* data() { return buf_.data(); }
  std::span<const uint8_t> bytes() const { return buf_.first(len_); }

 private:
  uint8_t* grow(size_t len);
  NlStatus no_room();
  void set_length(size_t len);

  std::span<uint8_t> buf_;
  size_t len_ = 0;
  bool complete_ = true;
};

struct NlAttr {
  uint16_t type;
  ReceivedBytes payload;
};

// How a walk over attributes ended.
enum class NlWalkEnd {
  kExact,      // the last attribute's padded end is the end of the bytes
  kUnpadded,   // the last attribute ends the bytes without its padding
  kCutShort,   // bytes too few for an attribute header were left
  kBadLength,  // an attribute's length is below its header or past the bytes
};

// The attributes in `bytes`, in order, read only within what arrived:
//   for (const NlAttr& a : NlAttrs(bytes)) ...
// The walk stops at the first malformed attribute; end() says how it ended.
class NlAttrs {
 public:
  explicit NlAttrs(ReceivedBytes bytes) : bytes_(bytes) {}

  class Iterator {
   public:
    Iterator(const NlAttrs* walk, size_t offset) : walk_(walk), offset_(offset) { settle(); }
    NlAttr operator*() const { return *current_; }
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return offset_ == other.offset_; }

   private:
    void settle();
    const NlAttrs* walk_;
    size_t offset_;
    std::optional<NlAttr> current_;
  };
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, kDone}; }

  // How a full walk ends, and at which offset.
  NlWalkEnd walk_end() const;
  size_t walk_end_offset() const;

  // The payload of the first attribute of `type`; nothing when the walk ends
  // first, or when that payload is shorter than `min_len`.
  std::optional<ReceivedBytes> find(uint16_t type, size_t min_len = 0) const;
  // The T at the start of the first attribute of `type`, when it holds one.
  template <class T>
  std::optional<T> read(uint16_t type) const {
    const auto payload = find(type, sizeof(T));
    return payload ? payload->read<T>(0) : std::nullopt;
  }

 private:
  static constexpr size_t kDone = SIZE_MAX;
  // The attribute at `offset`, or how the walk ends there.
  struct Step {
    std::optional<NlAttr> attr;
    NlWalkEnd end;
  };
  Step step(size_t offset) const;

  ReceivedBytes bytes_;
};

// The attributes behind a message's header and fixed body of `body_len`
// bytes, within its nlmsg_len; `msg` starts with the header.
NlAttrs nl_attrs_after(ReceivedBytes msg, size_t body_len);

}  // namespace cpa
