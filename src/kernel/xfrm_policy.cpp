#include "kernel/xfrm_policy.h"

#include "base/log.h"

namespace cpa {
namespace {

void log_policy_from_kernel(const KernelDialect& dialect, const net_buf& answer) {
  const ReceivedBytes got(answer.data(), answer.size());
  const nlmsghdr nh = *got.read<nlmsghdr>(0);
  cpa_log(LOG_DEBUG, "Message len %d Type %d", nh.nlmsg_len, nh.nlmsg_type);
  const uint32_t index = dialect.policy_index(got.slice(0, nh.nlmsg_len).slice(sizeof nh));
  cpa_log(LOG_DEBUG, "Index from kernel 0x%x", index);
}

}  // namespace

int kestrix_nlink_policy_add(NetlinkTransport& nl, uint32_t update, const XfrmPolicyArgs& policy,
                             cpa_netlink_ctr_t* stat_ctr) {
  if (stat_ctr) stat_ctr->req++;
  XfrmRequest request(nl);
  dialect_of(nl).build_policy_add(request, update, policy);
  net_buf answer;
  const int rc = nl.send(request.msg, answer);
  count_outcome(stat_ctr, rc);
  cpa_log(LOG_DEBUG, "%s: netlink policy create status", rc == 0 ? "SUCCESS" : "FAIL");
  return rc;
}

int kestrix_nlink_policy_getordel(NetlinkTransport& nl, uint32_t del, const XfrmPolicyArgs& policy,
                                  uint32_t index, cpa_netlink_ctr_t* stat_ctr) {
  cpa_netlink_ctr_t* counted = del == 1 ? stat_ctr : nullptr;  // gets and other codes are not counted
  if (counted) counted->req++;
  const KernelDialect& dialect = dialect_of(nl);
  XfrmRequest request(nl);
  dialect.build_policy_getordel(request, del, policy, index);
  net_buf answer;
  const int rc = nl.send(request.msg, answer);
  if (rc == 0 && !del) log_policy_from_kernel(dialect, answer);
  count_outcome(counted, rc);
  return rc;
}

}  // namespace cpa
