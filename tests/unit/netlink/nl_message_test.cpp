#include "netlink/nl_message.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/wire_builder.h"

namespace cpa::test {
namespace {

using Message = std::vector<uint8_t>;

Message bytes_of(const NlMessage& msg) { return {msg.bytes().begin(), msg.bytes().end()}; }

// A header of type 16, flags 5, from port 7, sequence 2, for a message of `len` bytes.
Bytes header(uint32_t len) { return Bytes().h32(len).h16(16).h16(5).h32(2).h32(7); }

TEST(NlMessage, PutsPadWithZerosAndNestsCoverTheirContent) {
  std::vector<uint8_t> buffer(128, 0xee);
  NlMessage msg(buffer);
  ASSERT_EQ(msg.put_header(16, 5, 7, 2), NlStatus::kOk);
  EXPECT_EQ(msg.put_body(uint16_t{0x0102}), NlStatus::kOk);
  const NlNest outer = msg.nest_start(1);
  EXPECT_EQ(msg.put_attr_strz(2, "xfrm"), NlStatus::kOk);
  const NlNest inner = msg.nest_start(3);
  EXPECT_EQ(msg.put_attr(4, uint32_t{9}), NlStatus::kOk);
  EXPECT_EQ(msg.nest_end(inner), NlStatus::kOk);
  EXPECT_EQ(msg.nest_end(outer), NlStatus::kOk);
  EXPECT_TRUE(msg.complete());
  EXPECT_EQ(bytes_of(msg), header(48)
                               .h16(0x0102).zeros(2)              // body, padded
                               .h16(28).h16(1)                    // outer nest
                               .h16(9).h16(2).text("xfrm", 5).zeros(3)
                               .h16(12).h16(3).h16(8).h16(4).h32(9)
                               .vec());
}

// Each put that does not fit leaves the message as it was; a later one that
// fits still goes in, and the message stays marked incomplete.
TEST(NlMessage, PutsPastTheCapacityFailAndChangeNothing) {
  std::vector<uint8_t> buffer(28, 0xee);
  NlMessage msg(buffer);
  ASSERT_EQ(msg.put_header(16, 5, 7, 2), NlStatus::kOk);
  ASSERT_EQ(msg.put_attr(1, uint32_t{1}), NlStatus::kOk);
  const Message before = bytes_of(msg);
  EXPECT_EQ(msg.put_attr(2, uint64_t{2}), NlStatus::kNoRoom);
  EXPECT_EQ(msg.put_body("abcde", 5), NlStatus::kNoRoom);  // 8 with its padding
  EXPECT_EQ(msg.put_attr(3, nullptr, 0xfffe), NlStatus::kNoRoom);
  EXPECT_EQ(bytes_of(msg), before);
  EXPECT_EQ(buffer[24], 0xee);
  EXPECT_FALSE(msg.complete());
  EXPECT_EQ(msg.put_attr(5, nullptr, 0), NlStatus::kOk);
  EXPECT_EQ(msg.size(), 28u);

  std::vector<uint8_t> tiny(15);
  NlMessage no_header(tiny);
  EXPECT_EQ(no_header.put_header(16, 5), NlStatus::kNoRoom);
  EXPECT_EQ(no_header.nest_start(1).at, 0u);
  EXPECT_EQ(no_header.size(), 0u);
}

TEST(NlAttrs, TheWalkStaysWithinWhatArrivedAndSaysHowItEnded) {
  const Message two = Bytes().h16(5).h16(1).u8(0xaa).zeros(3).h16(8).h16(2).h32(0x11223344);
  struct Case {
    const char* name;
    Message bytes;
    std::vector<uint16_t> types;
    NlWalkEnd end;
    size_t end_at;
  };
  const Case cases[] = {
      {"two attributes", two, {1, 2}, NlWalkEnd::kExact, 16},
      {"nothing", {}, {}, NlWalkEnd::kExact, 0},
      {"last without padding", Bytes().append(two).h16(5).h16(3).u8(1), {1, 2, 3}, NlWalkEnd::kUnpadded, 24},
      {"header cut short", Bytes().append(two).h16(4), {1, 2}, NlWalkEnd::kCutShort, 16},
      {"length below the header", Bytes().h16(3).h16(1).append(two), {}, NlWalkEnd::kBadLength, 0},
      {"length past the end", Bytes().append(two).h16(12).h16(3).h32(0), {1, 2}, NlWalkEnd::kBadLength, 16},
  };
  for (const Case& c : cases) {
    const Message exact(c.bytes);  // read past it and the sanitizer says so
    const NlAttrs attrs(ReceivedBytes(exact.data(), exact.size()));
    std::vector<uint16_t> types;
    for (const NlAttr& a : attrs) types.push_back(a.type);
    EXPECT_EQ(types, c.types) << c.name;
    EXPECT_EQ(attrs.walk_end(), c.end) << c.name;
    EXPECT_EQ(attrs.walk_end_offset(), c.end_at) << c.name;
  }
}

}  // namespace
}  // namespace cpa::test
