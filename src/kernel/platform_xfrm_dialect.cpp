// The platform kernel's XFRM messages: its 64-bit bodies, and SAs and
// policies tied to the tunnel's SVTI device by XFRMA_SVTI_IFINDEX.
#include <arpa/inet.h>

#include "base/log.h"
#include "kernel/kernel_dialect.h"
#include "kernel/xfrm_algo_attrs.h"
#include "kernel/xfrm_body_fields.h"
#include "platform/tunnel_devices.h"

namespace cpa {
namespace {

// The platform's tunnel device adds the outer header, so its templates
// carry no endpoints.
xfrm_user_tmpl policy_template(const XfrmPolicyArgs& p) { return sa_template<xfrm_user_tmpl>(p); }

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

// Ports always under a full mask, as the platform kernel expects.
xfrm_selector selector(const XfrmPolicyArgs& p) {
  return policy_selector<xfrm_selector>(p, 0xffff, 0xffff);
}

class PlatformDialect final : public KernelDialect {
 public:
  bool build_sa_add(XfrmRequest& req, const kestrix_ce_cipher_list_t& sa_info, uint32_t tunid,
                    uint32_t reqid, int replay_window) const override {
    xfrm_usersa_info_64 sa{};
    fill_sa_info(sa, sa_info, reqid, replay_window);
    req.begin(XFRM_MSG_NEWSA, req.port_id, sa);
    const uint32_t svti = svti_ifindex(req.devices, tunid);
    cpa_log(LOG_DEBUG, "svti %d tunid %d", svti, tunid);
    req.msg.put_attr(XFRMA_SVTI_IFINDEX, svti);
    return append_algorithms<xfrm_algo, xfrm_algo_aead>(req.msg, sa_info, XFRMA_ALG_AUTH,
                                                        XFRMA_ALG_CRYPT, XFRMA_ALG_AEAD);
  }

  void build_sa_getordel(XfrmRequest& req, int del, const kestrix_addr& dst, uint32_t spi,
                         uint8_t proto) const override {
    xfrm_usersa_id_saddr body{};
    body.id.daddr.a4 = htonl(dst.ip_address);
    body.id.spi = htonl(spi);
    body.id.family = AF_INET;
    body.id.proto = proto;
    req.begin(del ? XFRM_MSG_DELSA : XFRM_MSG_GETSA, req.port_id, body);
  }

  void build_policy_add(XfrmRequest& req, uint32_t update,
                        const XfrmPolicyArgs& policy) const override {
    xfrm_userpolicy_info_64 info{};
    info.sel = selector(policy);
    set_unlimited(info.lft);
    info.dir = policy.dir;
    info.action = policy.action;
    req.begin(update ? XFRM_MSG_UPDPOLICY : XFRM_MSG_NEWPOLICY, req.port_id, info);
    const uint32_t svti = svti_ifindex(req.devices, policy.tunnelid);
    cpa_log(LOG_DEBUG, "*** tunnelid %d n_tunnelid %d\n", policy.tunnelid, svti);
    req.msg.put_attr(XFRMA_SVTI_IFINDEX, svti);
    const xfrm_user_tmpl tmpl = policy_template(policy);
    req.msg.put_attr(XFRMA_TMPL, tmpl);
  }

  void build_policy_getordel(XfrmRequest& req, uint32_t del, const XfrmPolicyArgs& policy,
                             uint32_t index) const override {
    xfrm_userpolicy_id id{};
    id.sel = selector(policy);
    id.index = index;
    id.dir = policy.dir;
    req.begin(del ? XFRM_MSG_DELPOLICY : XFRM_MSG_GETPOLICY, 0, id);
    const uint32_t svti = svti_ifindex(req.devices, policy.tunnelid);
    req.msg.put_attr(XFRMA_SVTI_IFINDEX, svti);
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
