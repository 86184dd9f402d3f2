// ACE and action records from their wire layout (built from offsets) to host order.
#include "pal/ace_decoding.h"

#include <gtest/gtest.h>

#include "fakes/log_capture.h"
#include "support/acl_builder.h"
#include "wire/received_bytes.h"

namespace cpa::test {
namespace {

template <class T>
T wire_copy(const std::vector<uint8_t>& bytes) {
  EXPECT_EQ(bytes.size(), sizeof(T));
  return *ReceivedBytes(bytes.data(), bytes.size()).read<T>(0);
}

TEST(AceDecoding, EveryFieldIsConverted) {
  LogCapture log;
  AceSpec a{4, 2, 0x0102, 1, 0x01020304, 0x0A000001, 24, 0xC0A80101, 16, 17, 1, {3, 2, {500, 4500}},
            {4, 255, {0x1234}}, 0x0A0B0C0D};  // a port count past the list's 10
  kestrix_crypto_ace out{};
  const auto in = wire_copy<kestrix_crypto_ace>(ace_body(a));
  ASSERT_EQ(kestrix_decode_ace(&in, &out), 0);
  // The summary line is printed from the decoded record.
  EXPECT_EQ(log.texts().back(),
            "ACE: ip_type 4, type 2, seqno 258, reverse 1, handle 16909060, hint 168496141, ip4_local_addr "
            "0xa000001  ip4_local_mask 24, ip4_rem_addr 0xc0a80101, ip4_rem_mask 16, protocol 17, any_port 1");
  const auto& ports = out.selector.ipv4;
  EXPECT_EQ(ports.local_port.type + ports.local_port.num_port, 5u);
  EXPECT_EQ(ports.local_port.port[1], 4500);
  EXPECT_EQ(ports.remote_port.type + ports.remote_port.num_port, 14u);
  EXPECT_EQ(ports.remote_port.port[0], 0x1234);
}

kestrix_cdh_action wire_action(uint32_t action, const std::vector<uint8_t>& data = {}) {
  return wire_copy<kestrix_cdh_action>(action_body(action, data));
}

// The known kinds are decoded in the record walker's test.
TEST(ActionDecoding, AnUnknownActionIsKeptAsItIsAndNothingElseIsConverted) {
  LogCapture log;
  kestrix_cdh_action out{};
  const auto in = wire_action(7, Bytes().be32(0xCAFE));
  kestrix_set_action(&in, &out);
  EXPECT_EQ(out.action, 7u);
  EXPECT_EQ(out.data.notify_rp_handle, 0u);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_DEBUG, "ACTION 0x7"}, {LOG_ERR, "WRONG CDH_ACTION"}}));
}

}  // namespace
}  // namespace cpa::test
