// A stock Linux kernel's XFRM messages, in the layouts of its own
// <linux/xfrm.h> for the agent's word size. SAs and policies are tied to
// the tunnel's xfrm interface by XFRMA_IF_ID = the tunnel id, and policy
// templates carry the endpoints a tunnel-mode SA is found by.
#include <arpa/inet.h>
#include <linux/xfrm.h>

#include <algorithm>
#include <cstring>

#include "kernel/kernel_dialect.h"
#include "kernel/xfrm_algo_attrs.h"
#include "kernel/xfrm_body_fields.h"

namespace cpa {
namespace {

// The listener finds the tunnel by the template's request id at the same
// offset in either dialect.
static_assert(offsetof(::xfrm_user_tmpl, reqid) == offsetof(xfrm_user_tmpl, reqid));

// A stock kernel reads port 0 under a full mask as port 0 itself; an ACE's
// port 0 means any port.
::xfrm_selector selector(const XfrmPolicyArgs& p) {
  return policy_selector<::xfrm_selector>(p, p.dport ? 0xffff : 0, p.sport ? 0xffff : 0);
}

::xfrm_user_tmpl policy_template(const XfrmPolicyArgs& p) {
  ::xfrm_user_tmpl tmpl = sa_template<::xfrm_user_tmpl>(p);
  tmpl.id.daddr.a4 = htonl(p.tmpl_dst);
  tmpl.saddr.a4 = htonl(p.tmpl_src);
  return tmpl;
}

void append_if_id(XfrmRequest& req, uint32_t tunnelid) {
  req.msg.put_attr(::XFRMA_IF_ID, tunnelid);
}

// The SA body's replay field holds at most a 32-packet window (the kernel
// clamps it to its 32-bit bitmap). A larger window goes as the extended
// replay state with a bitmap of window / 32 words; the kernel then wants the
// body's field 0. Without the XFRM_STATE_ESN flag the kernel keeps 32-bit
// sequence numbers and uses the state only for its bitmap.
constexpr uint32_t kClassicReplayWindow = 32;
constexpr uint32_t kMaxReplayWindow = 64;

// A window above 32 as an XFRMA_REPLAY_ESN_VAL attribute.
void append_replay_state(XfrmRequest& req, uint32_t window) {
  ::xfrm_replay_state_esn state{};
  state.bmp_len = std::min(window, kMaxReplayWindow) / 32;
  state.replay_window = state.bmp_len * 32;
  uint8_t attr[sizeof state + kMaxReplayWindow / 8] = {};  // the bitmap starts empty
  std::memcpy(attr, &state, sizeof state);
  req.msg.put_attr(::XFRMA_REPLAY_ESN_VAL, attr, sizeof state + state.bmp_len * sizeof(uint32_t));
}

template <class Body>
constexpr PolicyEventBody policy_body(uint16_t type, size_t pol_at = 0) {
  return {type, sizeof(Body), pol_at + offsetof(::xfrm_userpolicy_info, index),
          pol_at + offsetof(::xfrm_userpolicy_info, dir)};
}

constexpr PolicyEventBody kPolicyBodies[] = {
    policy_body<::xfrm_userpolicy_info>(::XFRM_MSG_NEWPOLICY),
    policy_body<::xfrm_userpolicy_info>(::XFRM_MSG_UPDPOLICY),
    {::XFRM_MSG_DELPOLICY, sizeof(::xfrm_userpolicy_id), offsetof(::xfrm_userpolicy_id, index),
     offsetof(::xfrm_userpolicy_id, dir)},
    policy_body<::xfrm_user_polexpire>(::XFRM_MSG_POLEXPIRE, offsetof(::xfrm_user_polexpire, pol)),
};

// The selector, id and address blocks are made of 16- and 32-bit fields and
// lie alike in both layouts; the policy and the counters are copied field
// by field.
xfrm_user_acquire_64 platform_acquire(const ::xfrm_user_acquire& in) {
  static_assert(sizeof in.id == sizeof(xfrm_id) && sizeof in.saddr == sizeof(xfrm_address_t) &&
                sizeof in.sel == sizeof(xfrm_selector));
  xfrm_user_acquire_64 out{};
  std::memcpy(&out.id, &in.id, sizeof out.id);
  std::memcpy(&out.saddr, &in.saddr, sizeof out.saddr);
  std::memcpy(&out.sel, &in.sel, sizeof out.sel);
  std::memcpy(&out.policy.sel, &in.policy.sel, sizeof out.policy.sel);
  out.policy.priority = in.policy.priority;
  out.policy.index = in.policy.index;
  out.policy.dir = in.policy.dir;
  out.policy.action = in.policy.action;
  out.policy.flags = in.policy.flags;
  out.policy.share = in.policy.share;
  out.aalgos = in.aalgos;
  out.ealgos = in.ealgos;
  out.calgos = in.calgos;
  out.seq = in.seq;
  return out;
}

class LinuxDialect final : public KernelDialect {
 public:
  bool build_sa_add(XfrmRequest& req, const kestrix_ce_cipher_list_t& sa_info, uint32_t tunid,
                    uint32_t reqid, int replay_window) const override {
    ::xfrm_usersa_info sa{};
    fill_sa_info(sa, sa_info, reqid, replay_window);
    const uint32_t window = sa.replay_window;
    const bool wide = window > kClassicReplayWindow;
    if (wide) sa.replay_window = 0;  // the attribute carries it
    req.begin(::XFRM_MSG_NEWSA, req.port_id, sa);
    append_if_id(req, tunid);
    if (wide) append_replay_state(req, window);
    return append_algorithms<::xfrm_algo, ::xfrm_algo_aead>(req.msg, sa_info, ::XFRMA_ALG_AUTH,
                                                            ::XFRMA_ALG_CRYPT, ::XFRMA_ALG_AEAD);
  }

  void build_sa_getordel(XfrmRequest& req, int del, const kestrix_addr& dst, uint32_t spi,
                         uint8_t proto) const override {
    ::xfrm_usersa_id id{};
    id.daddr.a4 = htonl(dst.ip_address);
    id.spi = htonl(spi);
    id.family = AF_INET;
    id.proto = proto;
    req.begin(del ? ::XFRM_MSG_DELSA : ::XFRM_MSG_GETSA, req.port_id, id);
  }

  void build_policy_add(XfrmRequest& req, uint32_t update,
                        const XfrmPolicyArgs& policy) const override {
    ::xfrm_userpolicy_info info{};
    info.sel = selector(policy);
    set_unlimited(info.lft);
    info.dir = policy.dir;
    info.action = policy.action;
    req.begin(update ? ::XFRM_MSG_UPDPOLICY : ::XFRM_MSG_NEWPOLICY, req.port_id, info);
    append_if_id(req, policy.tunnelid);
    const ::xfrm_user_tmpl tmpl = policy_template(policy);
    req.msg.put_attr(::XFRMA_TMPL, tmpl);
  }

  // With index 0 the kernel finds the policy by selector, direction and
  // interface id: exactly the one the agent installed.
  void build_policy_getordel(XfrmRequest& req, uint32_t del, const XfrmPolicyArgs& policy,
                             uint32_t index) const override {
    ::xfrm_userpolicy_id id{};
    id.sel = selector(policy);
    id.index = index;
    id.dir = policy.dir;
    req.begin(del ? ::XFRM_MSG_DELPOLICY : ::XFRM_MSG_GETPOLICY, req.port_id, id);
    append_if_id(req, policy.tunnelid);
  }

  uint32_t policy_index(ReceivedBytes body) const override {
    return body.read_padded<uint32_t>(offsetof(::xfrm_userpolicy_info, index)).value;
  }

  std::span<const PolicyEventBody> policy_events() const override { return kPolicyBodies; }

  size_t acquire_size() const override { return sizeof(::xfrm_user_acquire); }

  xfrm_user_acquire_64 acquire(ReceivedBytes body) const override {
    return platform_acquire(body.read_padded<::xfrm_user_acquire>(0).value);
  }
};

}  // namespace

const KernelDialect& linux_dialect() {
  static const LinuxDialect dialect;
  return dialect;
}

}  // namespace cpa
