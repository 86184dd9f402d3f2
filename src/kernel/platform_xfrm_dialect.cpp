// The platform kernel's XFRM messages: its 64-bit bodies, and SAs and
// policies tied to the tunnel's SVTI device by XFRMA_SVTI_IFINDEX.
#include <arpa/inet.h>

#include "diag/log.h"
#include "kernel/kernel_dialect.h"
#include "kernel/xfrm_algo_attrs.h"

namespace cpa {
namespace {

constexpr uint32_t kAnyAlgorithm = 0xFFFFFFFF;

xfrm_usersa_info_64 sa_body(const kestrix_ce_cipher_list_t& sa_info, uint32_t reqid,
                            int g_replay_window_size) {
  const kestrix_ce_cipher_info& ci = sa_info.ce_cipher;
  xfrm_usersa_info_64 sa{};
  sa.lft.soft_byte_limit = kXfrmInfinity;
  sa.lft.hard_byte_limit = kXfrmInfinity;
  sa.lft.soft_packet_limit = kXfrmInfinity;
  sa.lft.hard_packet_limit = kXfrmInfinity;
  sa.lft.soft_add_expires_seconds = ci.soft_time_lifetime;
  sa.lft.hard_add_expires_seconds = ci.hard_time_lifetime;
  sa.sel.family = AF_INET;  // any traffic: the policy does the selecting
  sa.family = AF_INET;
  sa.saddr.a4 = htonl(ci.source.ip_address);
  sa.id.daddr.a4 = htonl(ci.dest.ip_address);
  if (ci.esp_used) {
    sa.id.spi = htonl(ci.esp_spi);
    sa.id.proto = kIpProtoEsp;
  } else if (ci.ah_used) {
    sa.id.spi = htonl(ci.ah_spi);
    sa.id.proto = kIpProtoAh;
  }
  sa.mode = static_cast<uint8_t>(ci.mode);
  sa.reqid = reqid;
  sa.replay_window = ci.antireplay_window_size == kAntiReplayDisabled
                         ? 0
                         : static_cast<uint8_t>(g_replay_window_size);
  return sa;
}

xfrm_selector selector(const XfrmPolicyArgs& p) {
  xfrm_selector sel{};
  sel.daddr.a4 = htonl(p.dst);
  sel.saddr.a4 = htonl(p.src);
  sel.dport = htons(p.dport);
  sel.sport = htons(p.sport);
  sel.dport_mask = 0xffff;
  sel.sport_mask = 0xffff;
  sel.family = p.family;
  sel.prefixlen_d = static_cast<uint8_t>(p.dmask);
  sel.prefixlen_s = static_cast<uint8_t>(p.smask);
  sel.proto = p.proto;
  return sel;
}

// The platform's tunnel device adds the outer header, so its templates
// carry no endpoints.
xfrm_user_tmpl policy_template(const XfrmPolicyArgs& p) {
  xfrm_user_tmpl tmpl{};
  tmpl.id.proto = p.sec_protocol;
  tmpl.family = AF_INET;
  tmpl.reqid = p.reqid;
  tmpl.mode = p.tun_mode;
  tmpl.aalgos = kAnyAlgorithm;
  tmpl.ealgos = kAnyAlgorithm;
  tmpl.calgos = kAnyAlgorithm;
  return tmpl;
}

template <class Body>
constexpr PolicyEventBody policy_body(uint16_t type, size_t pol_at = 0) {
  return {type, sizeof(Body), pol_at + offsetof(xfrm_userpolicy_info_64, index),
          pol_at + offsetof(xfrm_userpolicy_info_64, dir)};
}

constexpr PolicyEventBody kPolicyBodies[] = {
    policy_body<xfrm_userpolicy_info_64>(XFRM_MSG_NEWPOLICY),
    policy_body<xfrm_userpolicy_info_64>(XFRM_MSG_UPDPOLICY),
    {XFRM_MSG_DELPOLICY, sizeof(xfrm_userpolicy_id), offsetof(xfrm_userpolicy_id, index),
     offsetof(xfrm_userpolicy_id, dir)},
    policy_body<xfrm_user_polexpire_64>(XFRM_MSG_POLEXPIRE, offsetof(xfrm_user_polexpire_64, pol)),
};

class PlatformDialect final : public KernelDialect {
 public:
  bool build_sa_add(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info, uint32_t tunid,
                    uint32_t reqid, int replay_window) const override {
    const xfrm_usersa_info_64 sa = sa_body(sa_info, reqid, replay_window);
    nl.begin_request(XFRM_MSG_NEWSA, nl.port_id(), &sa, sizeof sa);
    const uint32_t svti = nl.get_svtiindex(tunid);
    cpa_log(LOG_DEBUG, "svti %d tunid %d", svti, tunid);
    nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
    return append_algorithms<xfrm_algo, xfrm_algo_aead>(nl, sa_info, XFRMA_ALG_AUTH,
                                                        XFRMA_ALG_CRYPT, XFRMA_ALG_AEAD);
  }

  void build_sa_getordel(NetlinkTransport& nl, int del, const kestrix_addr& dst, uint32_t spi,
                         uint8_t proto) const override {
    xfrm_usersa_id_saddr body{};
    body.id.daddr.a4 = htonl(dst.ip_address);
    body.id.spi = htonl(spi);
    body.id.family = AF_INET;
    body.id.proto = proto;
    nl.begin_request(del ? XFRM_MSG_DELSA : XFRM_MSG_GETSA, nl.port_id(), &body, sizeof body);
  }

  void build_policy_add(NetlinkTransport& nl, uint32_t update,
                        const XfrmPolicyArgs& policy) const override {
    xfrm_userpolicy_info_64 info{};
    info.sel = selector(policy);
    info.lft.soft_byte_limit = kXfrmInfinity;
    info.lft.hard_byte_limit = kXfrmInfinity;
    info.lft.soft_packet_limit = kXfrmInfinity;
    info.lft.hard_packet_limit = kXfrmInfinity;
    info.dir = policy.dir;
    info.action = policy.action;
    nl.begin_request(update ? XFRM_MSG_UPDPOLICY : XFRM_MSG_NEWPOLICY, nl.port_id(), &info,
                     sizeof info);
    const uint32_t svti = nl.get_svtiindex(policy.tunnelid);
    cpa_log(LOG_DEBUG, "*** tunnelid %d n_tunnelid %d\n", policy.tunnelid, svti);
    nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
    const xfrm_user_tmpl tmpl = policy_template(policy);
    nl.append_attr(XFRMA_TMPL, &tmpl, sizeof tmpl);
  }

  void build_policy_getordel(NetlinkTransport& nl, uint32_t del, const XfrmPolicyArgs& policy,
                             uint32_t index) const override {
    xfrm_userpolicy_id id{};
    id.sel = selector(policy);
    id.index = index;
    id.dir = policy.dir;
    nl.begin_request(del ? XFRM_MSG_DELPOLICY : XFRM_MSG_GETPOLICY, 0, &id, sizeof id);
    const uint32_t svti = nl.get_svtiindex(policy.tunnelid);
    nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
  }

  uint32_t policy_index(ReceivedBytes body) const override {
    return body.read_padded<uint32_t>(offsetof(xfrm_userpolicy_info_64, index)).value;
  }

  std::span<const PolicyEventBody> policy_events() const override { return kPolicyBodies; }

  size_t acquire_size() const override { return sizeof(xfrm_user_acquire_64); }

  xfrm_user_acquire_64 acquire(ReceivedBytes body) const override {
    return body.read_padded<xfrm_user_acquire_64>(0).value;
  }
};

}  // namespace

const KernelDialect& platform_dialect() {
  static const PlatformDialect dialect;
  return dialect;
}

}  // namespace cpa
