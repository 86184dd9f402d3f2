#include "netlink/nl_message.h"

#include <linux/rtnetlink.h>

#include <cstring>

namespace cpa {
namespace {

constexpr size_t kAttrHeader = sizeof(rtattr);
constexpr size_t align(size_t len) { return NLMSG_ALIGN(len); }

// Where the attribute after `a`, found at `offset`, starts.
size_t next_offset(size_t offset, const NlAttr& a) { return offset + align(kAttrHeader + a.payload.size()); }

}  // namespace

NlStatus NlMessage::put_header(uint16_t type, uint16_t flags, uint32_t pid, uint32_t seq) {
  if (buf_.size() < NLMSG_HDRLEN) return no_room();
  len_ = 0;
  complete_ = true;
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = seq;
  header.nlmsg_pid = pid;
  std::memcpy(grow(NLMSG_HDRLEN), &header, sizeof header);
  return NlStatus::kOk;
}

NlStatus NlMessage::put_body(const void* body, size_t len) {
  uint8_t* at = grow(len);
  if (!at) return no_room();
  if (len) std::memcpy(at, body, len);
  return NlStatus::kOk;
}

NlStatus NlMessage::put_attr(uint16_t type, const void* data, size_t len) {
  if (len > UINT16_MAX - kAttrHeader) return no_room();
  uint8_t* at = grow(kAttrHeader + len);
  if (!at) return no_room();
  const rtattr header{static_cast<uint16_t>(kAttrHeader + len), type};
  std::memcpy(at, &header, sizeof header);
  if (len) std::memcpy(at + kAttrHeader, data, len);
  return NlStatus::kOk;
}

NlStatus NlMessage::put_attr_strz(uint16_t type, const char* text) {
  return put_attr(type, text, std::strlen(text) + 1);
}

NlNest NlMessage::nest_start(uint16_t type) {
  const size_t at = len_;
  if (at < NLMSG_HDRLEN) {
    no_room();
    return {};
  }
  if (put_attr(type, nullptr, 0) != NlStatus::kOk) return {};
  return {at};
}

NlStatus NlMessage::nest_end(NlNest nest) {
  if (nest.at == 0 || nest.at >= len_) return no_room();
  const size_t nest_len = len_ - nest.at;
  if (nest_len > UINT16_MAX) {
    set_length(nest.at);
    return no_room();
  }
  const auto rta_len = static_cast<uint16_t>(nest_len);
  std::memcpy(buf_.data() + nest.at + offsetof(rtattr, rta_len), &rta_len, sizeof rta_len);
  return NlStatus::kOk;
}

// Room for `len` bytes at the end, zeroed up to the next aligned end; the
// message's length then includes them with their padding.
uint8_t* NlMessage::grow(size_t len) {
  if (len > buf_.size() || align(len) > buf_.size() - len_) return nullptr;
  uint8_t* at = buf_.data() + len_;
  std::memset(at, 0, align(len));
  set_length(len_ + align(len));
  return at;
}

NlStatus NlMessage::no_room() {
  complete_ = false;
  return NlStatus::kNoRoom;
}

void NlMessage::set_length(size_t len) {
  len_ = len;
  const auto nlmsg_len = static_cast<uint32_t>(len);
  if (len_ >= NLMSG_HDRLEN)
    std::memcpy(buf_.data() + offsetof(nlmsghdr, nlmsg_len), &nlmsg_len, sizeof nlmsg_len);
}

NlAttrs::Step NlAttrs::step(size_t offset) const {
  if (offset >= bytes_.size())
    return {std::nullopt, offset == bytes_.size() ? NlWalkEnd::kExact : NlWalkEnd::kUnpadded};
  const auto header = bytes_.read<rtattr>(offset);
  if (!header) return {std::nullopt, NlWalkEnd::kCutShort};
  if (header->rta_len < kAttrHeader || !bytes_.holds(offset, header->rta_len))
    return {std::nullopt, NlWalkEnd::kBadLength};
  return {NlAttr{header->rta_type, bytes_.slice(offset + kAttrHeader, header->rta_len - kAttrHeader)},
          NlWalkEnd::kExact};
}

void NlAttrs::Iterator::settle() {
  current_ = offset_ == kDone ? std::nullopt : walk_->step(offset_).attr;
  if (!current_) offset_ = kDone;
}

NlAttrs::Iterator& NlAttrs::Iterator::operator++() {
  offset_ = next_offset(offset_, *current_);
  settle();
  return *this;
}

size_t NlAttrs::walk_end_offset() const {
  size_t offset = 0;
  for (Step s = step(0); s.attr; s = step(offset)) offset = next_offset(offset, *s.attr);
  return offset;
}

NlWalkEnd NlAttrs::walk_end() const { return step(walk_end_offset()).end; }

std::optional<ReceivedBytes> NlAttrs::find(uint16_t type, size_t min_len) const {
  for (const NlAttr& a : *this)
    if (a.type == type) return a.payload.size() >= min_len ? std::optional(a.payload) : std::nullopt;
  return std::nullopt;
}

NlAttrs nl_attrs_after(ReceivedBytes msg, size_t body_len) {
  const auto header = msg.read<nlmsghdr>(0);
  if (!header) return NlAttrs({});
  return NlAttrs(msg.slice(0, header->nlmsg_len).slice(NLMSG_HDRLEN + align(body_len)));
}

}  // namespace cpa
