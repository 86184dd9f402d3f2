// Linux-mode XFRM messages against the stock kernel's own structs: requests
// byte for byte (the kernel of this machine takes the policies, not the SAs),
// and SA answers read back.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/xfrm.h>
#include <unistd.h>

#include <cstring>

#include "fakes/kernel_test_agent.h"
#include "kernel/linux_sa_counters.h"
#include "kernel/xfrm_sa.h"
#include "netlink/nl_message.h"
#include "support/wire_builder.h"
#include "support/xfrm_fixtures.h"

namespace cpa::test {
namespace {

using Attrs = std::initializer_list<std::pair<uint16_t, Message>>;

// Header (sequence number 1), body, attributes.
template <class Body>
Message message(uint16_t type, const Body& body, Attrs attrs) {
  net_buf buffer{};
  NlMessage m(buffer);
  m.put_header(type, NLM_F_REQUEST | NLM_F_ACK, static_cast<uint32_t>(getpid()), 1);
  m.put_body(body);
  for (const auto& [attr_type, payload] : attrs) m.put_attr(attr_type, payload.data(), payload.size());
  return {m.bytes().begin(), m.bytes().end()};
}

template <class Algo>
Message algo(const char* name, size_t key_len, uint8_t first) {
  Algo a{};
  std::strcpy(a.alg_name, name);
  a.alg_key_len = static_cast<uint32_t>(key_len * 8);
  return Bytes().host(a).ramp(first, key_len);
}

// The real kernel takes the policies (see the real-kernel tests); the SA's
// bytes are checked here.
TEST(LinuxXfrmMessages, AnSaIsTheKernelsOwnBodyWithTheInterfaceIdAndAlgorithms) {
  ::xfrm_usersa_info sa{};
  sa.sel.family = sa.family = AF_INET;
  sa.id.daddr.a4 = htonl(0x0a000002);
  sa.saddr.a4 = htonl(0x0a000001);
  sa.id.spi = htonl(0x1234abcd);
  sa.id.proto = IPPROTO_ESP;
  sa.lft.soft_byte_limit = sa.lft.hard_byte_limit = XFRM_INF;
  sa.lft.soft_packet_limit = sa.lft.hard_packet_limit = XFRM_INF;
  sa.lft.soft_add_expires_seconds = 3000;
  sa.lft.hard_add_expires_seconds = 3600;
  sa.reqid = 3;
  sa.mode = 1;
  sa.replay_window = 64;
  kestrix_ce_cipher_list_t record;
  aes_sha1(record);
  KernelTestAgent t(AgentSettings{0, 0, KernelFlavour::kLinux});
  t.kernel.answer_next({nl_error(1, getpid(), 0)});  // the platform's fake would refuse the layout
  ASSERT_EQ(kestrix_nlink_sa_add(t.agent.nlink, record, 7, 3, nullptr, 64), 0);
  EXPECT_EQ(t.kernel.requests().at(0),
            message(XFRM_MSG_NEWSA, sa,
                    {{XFRMA_IF_ID, Bytes().h32(7)}, {XFRMA_ALG_CRYPT, algo<::xfrm_algo>("cbc(aes)", 16, 0x10)},
                     {XFRMA_ALG_AUTH, algo<::xfrm_algo>("hmac(sha1)", 20, 0x40)}}));
}

TEST(LinuxSaCounters, ComeFromTheLifetimeAndStatsOfTheKernelsAnswer) {
  ::xfrm_usersa_info sa{};
  sa.curlft.bytes = 1;  // superseded by the attribute
  sa.stats.replay = 4;
  sa.stats.integrity_failed = 5;
  ::xfrm_lifetime_cur now{};
  now.bytes = 2500;
  now.packets = 25;
  const Message answer = message(XFRM_MSG_NEWSA, sa, {{XFRMA_LTIME_VAL, Bytes().host(now)}});
  const auto c = linux_sa_counters_of(ReceivedBytes(answer.data(), answer.size()));
  ASSERT_TRUE(c);
  EXPECT_EQ(std::tuple(c->bytes, c->packets, c->replay_failures, c->integrity_failures),
            std::tuple(2500ull, 25ull, 4u, 5u));
  EXPECT_FALSE(linux_sa_counters_of(ReceivedBytes(answer.data(), 16 + sizeof sa - 1)));
}

}  // namespace
}  // namespace cpa::test
