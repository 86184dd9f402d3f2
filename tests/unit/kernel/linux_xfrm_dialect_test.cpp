// Linux-mode XFRM messages against the stock kernel's own structs: the
// requests byte for byte, and the events and SA answers read back.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/xfrm.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>

#include "fakes/test_agent.h"
#include "kernel/linux_sa_counters.h"
#include "kernel/netlink_listener.h"
#include "kernel/xfrm_policy.h"
#include "kernel/xfrm_sa.h"
#include "support/xfrm_fixtures.h"

namespace cpa::test {
namespace {

using Message = std::vector<uint8_t>;

// A kernel on the other end of a socketpair that acknowledges the next request in advance.
struct StubKernel {
  StubKernel() {
    int fds[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds);
    nl.attach(ScopedFd(fds[0]));
    peer = ScopedFd(fds[1]);
  }
  Message request_after(const std::function<int(NetlinkTransport&)>& call) {
    const Message ack = Bytes().h32(36).h16(NLMSG_ERROR).h16(0).h32(nl.g_seq()).h32(nl.port_id())
                            .h32(0).zeros(16);
    send(peer.get(), ack.data(), ack.size(), 0);
    EXPECT_EQ(call(nl), 0);
    Message got(4096);
    got.resize(static_cast<size_t>(recv(peer.get(), got.data(), got.size(), 0)));
    return got;
  }
  FakeNetDevices devices;
  NetlinkTransport nl{devices, KernelFlavour::kLinux};
  ScopedFd peer;
};

Message attr(uint16_t type, const Message& payload) {
  Bytes b;
  b.h16(static_cast<uint16_t>(payload.size() + 4)).h16(type).append(payload);
  return b.zeros((4 - payload.size() % 4) % 4);
}

Message header(uint32_t len, uint16_t type, uint32_t seq, uint32_t pid) {
  return Bytes().h32(len).h16(type).h16(NLM_F_REQUEST | NLM_F_ACK).h32(seq).h32(pid);
}

// Header with the right length, then the body and attributes.
template <class Body>
Message message(uint16_t type, uint32_t pid, const Body& body, std::initializer_list<Message> attrs) {
  Bytes rest;
  rest.host(body).zeros((4 - sizeof body % 4) % 4);
  for (const Message& a : attrs) rest.append(a);
  return Bytes().append(header(static_cast<uint32_t>(16 + rest.size()), type, 1, pid)).append(rest);
}

XfrmPolicyArgs tunnel_policy() {
  XfrmPolicyArgs p = outbound_ace();
  p.tmpl_src = 0x01020304;
  p.tmpl_dst = 0x05060708;
  return p;
}

::xfrm_selector kernel_selector() {
  ::xfrm_selector sel{};
  sel.daddr.a4 = htonl(0xc0a80102);
  sel.saddr.a4 = htonl(0x0a000001);
  sel.dport = htons(4500);
  sel.sport = htons(500);
  sel.dport_mask = sel.sport_mask = 0xffff;
  sel.family = AF_INET;
  sel.prefixlen_d = 32;
  sel.prefixlen_s = 24;
  sel.proto = 17;
  return sel;
}

template <class Algo>
Message algo(const char* name, size_t key_len, uint8_t first) {
  Algo a{};
  std::strcpy(a.alg_name, name);
  a.alg_key_len = static_cast<uint32_t>(key_len * 8);
  return Bytes().host(a).ramp(first, key_len);
}

Message if_id(uint32_t id) { return attr(XFRMA_IF_ID, Bytes().h32(id)); }

TEST(LinuxXfrmMessages, AreTheKernelsOwnStructsWithTheInterfaceId) {
  const uint32_t pid = static_cast<uint32_t>(getpid());
  ::xfrm_userpolicy_info policy{};
  policy.sel = kernel_selector();
  policy.lft.soft_byte_limit = policy.lft.hard_byte_limit = XFRM_INF;
  policy.lft.soft_packet_limit = policy.lft.hard_packet_limit = XFRM_INF;
  policy.dir = 1;
  policy.action = 1;
  ::xfrm_user_tmpl tmpl{};
  tmpl.id.daddr.a4 = htonl(0x05060708);
  tmpl.id.proto = IPPROTO_AH;
  tmpl.family = AF_INET;
  tmpl.saddr.a4 = htonl(0x01020304);
  tmpl.reqid = 3;
  tmpl.mode = 1;
  tmpl.aalgos = tmpl.ealgos = tmpl.calgos = ~0u;
  ::xfrm_userpolicy_id policy_id{};
  policy_id.sel = kernel_selector();
  policy_id.dir = 1;
  ::xfrm_usersa_info sa{};
  sa.sel.family = AF_INET;
  sa.id.daddr.a4 = htonl(0x0a000002);
  sa.id.spi = htonl(0x1234abcd);
  sa.id.proto = IPPROTO_ESP;
  sa.saddr.a4 = htonl(0x0a000001);
  sa.lft = policy.lft;
  sa.lft.soft_add_expires_seconds = 3000;
  sa.lft.hard_add_expires_seconds = 3600;
  sa.reqid = 3;
  sa.family = AF_INET;
  sa.mode = 1;
  sa.replay_window = 64;
  ::xfrm_usersa_id sa_id{};
  sa_id.daddr.a4 = htonl(0x05060708);
  sa_id.spi = htonl(0x1234);
  sa_id.family = AF_INET;
  sa_id.proto = IPPROTO_ESP;
  kestrix_ce_cipher_list_t record;
  aes_sha1(record);

  const struct {
    const char* what;
    std::function<int(NetlinkTransport&)> call;
    Message expected;
  } cases[] = {
      {"policy add", [](NetlinkTransport& nl) { return kestrix_nlink_policy_add(nl, 0, tunnel_policy(), nullptr); },
       message(XFRM_MSG_NEWPOLICY, pid, policy, {if_id(7), attr(XFRMA_TMPL, Bytes().host(tmpl))})},
      {"policy delete", [](NetlinkTransport& nl) { return kestrix_nlink_policy_getordel(nl, 1, tunnel_policy(), 0, nullptr); },
       message(XFRM_MSG_DELPOLICY, pid, policy_id, {if_id(7)})},
      {"SA add", [&](NetlinkTransport& nl) { return kestrix_nlink_sa_add(nl, record, 7, 3, nullptr, 64); },
       message(XFRM_MSG_NEWSA, pid, sa,
               {if_id(7), attr(XFRMA_ALG_CRYPT, algo<::xfrm_algo>("cbc(aes)", 16, 0x10)),
                attr(XFRMA_ALG_AUTH, algo<::xfrm_algo>("hmac(sha1)", 20, 0x40))})},
      {"SA get", [](NetlinkTransport& nl) {
         kestrix_addr dst{};
         dst.ip_address = 0x05060708;
         return kestrix_nlink_sa_getordel(nl, 0, dst, 0x1234, IPPROTO_ESP, nullptr);
       },
       message(XFRM_MSG_GETSA, pid, sa_id, {})},
  };
  for (const auto& c : cases) {
    StubKernel kernel;
    EXPECT_EQ(kernel.request_after(c.call), c.expected) << c.what;
  }
}

// A linux-mode agent with one tunnel (request id 1) holding a policy of one ACE.
struct LinuxAgent : TestAgent {
  LinuxAgent() : TestAgent(AgentSettings{0, 0, KernelFlavour::kLinux}) {
    tunnel = agent.tunnels.at(open_tunnel(0x100));
    auto policy = new_record<cpa_spd_policy_t>();
    policy->outbound.action = CDH_ACTION_DISCARD_PACKET_NOTIFY_RP;
    policy->outbound.data.notify_rp_handle = 0x77;
    auto ace = new_record<ace_netlink_t>();
    ace->dir = kAceDirOut;
    insert_node_ace(policy->ace_entry, std::move(ace));
    insert_node_policy(tunnel->head_policy, std::move(policy));
  }
  void handle(const Message& datagram) {
    kestrix_nlink_handle_datagram(agent, ReceivedBytes(datagram.data(), datagram.size()));
  }
  cpa_interface_t* tunnel;
};

::xfrm_user_tmpl template_of_tunnel_1() {
  ::xfrm_user_tmpl tmpl{};
  tmpl.reqid = 1;
  return tmpl;
}

TEST(LinuxXfrmEvents, NewPolicyIndexAndAcquireAreReadFromTheKernelsLayouts) {
  LinuxAgent t;
  ::xfrm_userpolicy_info policy{};
  policy.index = 0x3e1;
  policy.dir = 1;
  t.handle(message(XFRM_MSG_NEWPOLICY, 0, policy, {attr(XFRMA_TMPL, Bytes().host(template_of_tunnel_1()))}));
  EXPECT_EQ(t.tunnel->head_policy.head()->ace_entry.head()->k_index, 0x3e1);

  ::xfrm_user_acquire acquire{};
  acquire.policy.index = 0x3e1;
  t.handle(message(XFRM_MSG_ACQUIRE, 0, acquire, {attr(XFRMA_TMPL, Bytes().host(template_of_tunnel_1()))}));
  const auto sent = t.take_sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].size(), 86u);
}

TEST(LinuxSaCounters, ComeFromTheLifetimeAndStatsOfTheKernelsAnswer) {
  ::xfrm_usersa_info sa{};
  sa.curlft.bytes = 1;  // superseded by the attribute
  sa.stats.replay = 4;
  sa.stats.integrity_failed = 5;
  ::xfrm_lifetime_cur now{};
  now.bytes = 2500;
  now.packets = 25;
  ::xfrm_replay_state replay{};
  replay.oseq = 26;
  const Message answer = message(XFRM_MSG_NEWSA, 0, sa, {attr(XFRMA_LTIME_VAL, Bytes().host(now)),
                                                         attr(XFRMA_REPLAY_VAL, Bytes().host(replay))});
  const auto c = linux_sa_counters_of(ReceivedBytes(answer.data(), answer.size()));
  ASSERT_TRUE(c);
  EXPECT_EQ(std::tuple(c->bytes, c->packets, c->replay_failures, c->integrity_failures, c->oseq),
            std::tuple(2500ull, 25ull, 4u, 5u, 26u));
  // Cut inside the body: no counters, nothing read past the bytes.
  EXPECT_FALSE(linux_sa_counters_of(ReceivedBytes(answer.data(), 16 + sizeof sa - 1)));
}

}  // namespace
}  // namespace cpa::test
