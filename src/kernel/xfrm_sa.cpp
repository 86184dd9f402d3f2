#include "kernel/xfrm_sa.h"

#include <string.h>

#include <cerrno>

#include "base/log.h"
#include "kernel/kernel_dialect.h"

namespace cpa {

int kestrix_nlink_sa_add(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info,
                         uint32_t tunid, uint32_t reqid, cpa_netlink_ctr_t* sctr,
                         int g_replay_window_size) {
  if (sctr) sctr->req++;
  XfrmRequest request(nl);
  if (!dialect_of(nl).build_sa_add(request, sa_info, tunid, reqid, g_replay_window_size)) {
    cpa_log(LOG_ERR, "Invalid algo..");
    count_outcome(sctr, -EINVAL);
    return -EINVAL;
  }
  net_buf answer;
  const int rc = nl.send(request.msg, answer);
  explicit_bzero(answer.data(), answer.size());  // a refusal echoes the request, keys included
  cpa_log(LOG_DEBUG, "%s: netlink SA create status", rc == 0 ? "SUCCESS" : "FAIL");
  count_outcome(sctr, rc);
  return rc;
}

int kestrix_nlink_sa_getordel(NetlinkTransport& nl, int del, const kestrix_addr& dst, uint32_t spi,
                              uint8_t proto, cpa_netlink_ctr_t* sctr) {
  cpa_netlink_ctr_t* counted = del ? sctr : nullptr;  // a get is never counted
  if (counted) counted->req++;
  XfrmRequest request(nl);
  dialect_of(nl).build_sa_getordel(request, del, dst, spi, proto);
  net_buf answer;
  const int rc = nl.send(request.msg, answer);
  count_outcome(counted, rc);
  return rc;
}

}  // namespace cpa
