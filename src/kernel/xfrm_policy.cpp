#include "kernel/xfrm_policy.h"

#include <arpa/inet.h>

#include "diag/log.h"
#include "wire/xfrm_platform.h"

namespace cpa {
namespace {

constexpr uint32_t kAnyAlgorithm = 0xFFFFFFFF;

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

void log_policy_from_kernel(const net_buf& answer) {
  const ReceivedBytes got(answer.data(), answer.size());
  const nlmsghdr nh = *got.read<nlmsghdr>(0);
  cpa_log(LOG_DEBUG, "Message len %d Type %d", nh.nlmsg_len, nh.nlmsg_type);
  const auto index = got.slice(0, nh.nlmsg_len)
                         .read_padded<uint32_t>(sizeof nh + offsetof(xfrm_userpolicy_info_64, index));
  cpa_log(LOG_DEBUG, "Index from kernel 0x%x", index.value);
}

}  // namespace

int kestrix_nlink_policy_add(NetlinkTransport& nl, uint32_t update, const XfrmPolicyArgs& policy,
                             cpa_netlink_ctr_t* stat_ctr) {
  if (stat_ctr) stat_ctr->req++;
  xfrm_userpolicy_info_64 info{};
  info.sel = selector(policy);
  info.lft.soft_byte_limit = kXfrmInfinity;
  info.lft.hard_byte_limit = kXfrmInfinity;
  info.lft.soft_packet_limit = kXfrmInfinity;
  info.lft.hard_packet_limit = kXfrmInfinity;
  info.dir = policy.dir;
  info.action = policy.action;
  nl.begin_request(update ? XFRM_MSG_UPDPOLICY : XFRM_MSG_NEWPOLICY, nl.port_id(), &info, sizeof info);
  const uint32_t svti = nl.get_svtiindex(policy.tunnelid);
  cpa_log(LOG_DEBUG, "*** tunnelid %d n_tunnelid %d\n", policy.tunnelid, svti);
  nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
  const xfrm_user_tmpl tmpl = policy_template(policy);
  nl.append_attr(XFRMA_TMPL, &tmpl, sizeof tmpl);
  net_buf answer;
  const int rc = nl.send_req(answer);
  count_outcome(stat_ctr, rc);
  cpa_log(LOG_DEBUG, "%s: netlink policy create status", rc == 0 ? "SUCCESS" : "FAIL");
  return rc;
}

int kestrix_nlink_policy_getordel(NetlinkTransport& nl, uint32_t del, const XfrmPolicyArgs& policy,
                                  uint32_t index, cpa_netlink_ctr_t* stat_ctr) {
  cpa_netlink_ctr_t* counted = del == 1 ? stat_ctr : nullptr;  // gets and other codes are not counted
  if (counted) counted->req++;
  xfrm_userpolicy_id id{};
  id.sel = selector(policy);
  id.index = index;
  id.dir = policy.dir;
  nl.begin_request(del ? XFRM_MSG_DELPOLICY : XFRM_MSG_GETPOLICY, 0, &id, sizeof id);
  const uint32_t svti = nl.get_svtiindex(policy.tunnelid);
  nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
  net_buf answer;
  const int rc = nl.send_req(answer);
  if (rc == 0 && !del) log_policy_from_kernel(answer);
  count_outcome(counted, rc);
  return rc;
}

}  // namespace cpa
