#include "state/policy_records.h"

#include <utility>

#include "base/log.h"

namespace cpa {

int insert_node_policy(PolicyList& head, std::unique_ptr<cpa_spd_policy_t> node) {
  return head.insert_node(std::move(node));
}

int insert_node_ace(AceList& head, std::unique_ptr<ace_netlink_t> node) {
  return head.insert_node(std::move(node));
}

int delete_node_policy(PolicyList& head, const cpa_spd_policy_t* policy) {
  std::unique_ptr<cpa_spd_policy_t> unlinked = head.unlink_node(policy);
  if (!unlinked) return 1;
  const unsigned addr = log_addr(unlinked.get());
  kestrix_policy_cleanup(std::move(unlinked));
  cpa_log(LOG_DEBUG, "Deleted node policy 0x%x", addr);
  return 0;
}

int delete_node_ace(AceList& head, const ace_netlink_t* node) {
  return head.unlink_node(node) ? 0 : 1;
}

void delete_list_ace(AceList& head) { head.clear(); }

void kestrix_policy_ace_cleanup(cpa_spd_policy_t* policy) {
  if (!policy) {
    cpa_log(LOG_ERR, "NULL pointer passed policy");
    return;
  }
  delete_list_ace(policy->ace_entry);
}

void kestrix_policy_cleanup(std::unique_ptr<cpa_spd_policy_t> policy) {
  if (!policy) {
    cpa_log(LOG_DEBUG, "NULL pointer passed policy");
    return;
  }
  kestrix_policy_ace_cleanup(policy.get());
}

void log_ace_summary(const char* format, const kestrix_crypto_ace& ace) {
  const kestrix_crypto_ace_ipv4& ip4 = ace.selector.ipv4;
  cpa_log(LOG_DEBUG, format, ace.ip_type, ace.type, ace.seqno, ace.reverse, ace.handle, ace.hint,
          ip4.local_addr, ip4.local_mask, ip4.remote_addr, ip4.remote_mask, ip4.protocol,
          ip4.any_port);
}

}  // namespace cpa
