#include "pal/acl_modify.h"

#include <arpa/inet.h>

#include <memory>
#include <utility>

#include "base/log.h"
#include "pal/acl_policy.h"
#include "pal/unit_test_hooks.h"

namespace cpa {
namespace {

RequestBody<kestrix_pal_acl_update_req> fixed_part(const ReceivedBytes& req) {
  return req.read_padded<kestrix_pal_acl_update_req>(sizeof(uint16_t));
}

// The request repeats an installed ACL when the ACE of its first ACE record
// (the last of the list: newest first) has a handle that an ACE of the
// tunnel already holds. Inbound twins hold handle 0.
bool is_duplicate(const cpa_interface_t& tunnel, const cpa_spd_policy_t& policy) {
  const ace_netlink_t* first_record = nullptr;
  for (const ace_netlink_t& ace : policy.ace_entry) first_record = &ace;
  return first_record && match_policy(tunnel, *first_record) == 1;
}

}  // namespace

// A fixed part cut short by the end of the datagram is answered like one
// whose handles are zero.
ce_status_t kestrix_proc_acl_update_req(Agent& agent, const ReceivedBytes& req, size_t len) {
  const auto fixed = fixed_part(req);
  if (!fixed.complete || fixed->callback_handle == 0 || fixed->sadbhandle == 0) {
    cpa_log(LOG_ERR, "Callback handle and sadb handle null ");
    return CRYPTO_ERR_INVALID;
  }
  const uint32_t sadb = ntohl(fixed->sadbhandle);
  return agent.trace.traced(KESTRIX_PAL_ACL_MODIFY, ntohl(fixed->callback_handle), sadb, [&] {
    uint32_t index = 0;
    const ce_status_t found = agent.tunnels.sadb_lookup(sadb, &index);
    if (found != CRYPTO_NO_ERR) return found;
    return kestrix_update_acl_info(agent, req, index, len);
  });
}

ce_status_t kestrix_update_acl_info(Agent& agent, const ReceivedBytes& req, uint32_t indx,
                                    size_t pal_msglen) {
  const uint32_t opcode = ntohl(fixed_part(req)->desc.what_changed);
  ce_status_t status = CRYPTO_ERR_INVALID;
  switch (opcode) {
    case kestrix_remove_all:
      cpa_log(LOG_DEBUG, "Deleting policy at indx %d\n", indx);
      ++agent.counters.dbg_ctrs.p_acl_delete_req;
      status = kestrix_acl_proc_remove_all(agent, indx);
      break;
    case kestrix_insert_all:
    case kestrix_replace:
      cpa_log(LOG_DEBUG, "Inserting/Replacing policy at indx %d\n", indx);
      ++agent.counters.dbg_ctrs.p_acl_insert_req;
      status = kestrix_acl_proc_insert_replace(agent, req, indx, pal_msglen, opcode);
      break;
    default:
      cpa_log(LOG_ERR, "Got an invalid code for acl processing %d\n", opcode);
  }
  pal_cmd_dbg_count(agent.counters, KESTRIX_PAL_ACL_MODIFY, status, opcode);
  cpa_log(LOG_DEBUG, "acl processing status: opcode %d ret_value %d\n", opcode, status);
  return status;
}

ce_status_t kestrix_acl_proc_insert_replace(Agent& agent, const ReceivedBytes& req, uint32_t indx,
                                            size_t pal_msglen, uint32_t opcode) {
  std::unique_ptr<cpa_spd_policy_t> policy;
  const ce_status_t built = kestrix_alloc_set_policy(req, pal_msglen, &policy);
  if (built != CRYPTO_NO_ERR) return built;
  cpa_interface_t& tunnel = *agent.tunnels.at(indx);
  if (is_duplicate(tunnel, *policy)) {
    cpa_log(LOG_DEBUG, "Duplicate policy found. Returning no error\n");
    return CRYPTO_NO_ERR;
  }
  const bool replaces = opcode == kestrix_replace && !tunnel.head_policy.empty();
  if (!replaces && !has_room(tunnel.head_policy, kMaxPoliciesPerTunnel, "ACL MODIFY", indx, "policies"))
    return CRYPTO_ERR_RESOURCES;
  // The old policy goes before the new one reaches the kernel: a refused
  // install leaves the tunnel without either.
  if (opcode == kestrix_replace) {
    cpa_log(LOG_DEBUG, "Removing policy : opcode replace");
    kestrix_acl_proc_remove_all(agent, indx);
  }
  const ce_status_t programmed = agent.kernel.install_policy(tunnel, policy.get(), 0);
  if (programmed != CRYPTO_NO_ERR) return programmed;
  const unsigned added = log_addr(policy.get());
  const unsigned first_ace = log_addr(policy->ace_entry.head());
  insert_node_policy(tunnel.head_policy, std::move(policy));
  cpa_log(LOG_DEBUG, "NEW policy 0x%x, ace_entry  0x%x", added, first_ace);
  cpa_log(LOG_DEBUG, "head policy 0x%x ", log_addr(tunnel.head_policy.head()));
  if (agent.settings.g_unit_test_on) kestrix_ut_acl_insert_tests(agent, tunnel);
  return CRYPTO_NO_ERR;
}

ce_status_t kestrix_acl_proc_remove_all(Agent& agent, uint32_t indx) {
  if (indx < 1 || indx >= TunnelTable::kSlots) {
    cpa_log(LOG_DEBUG, "Invalid index");
    return CRYPTO_NO_ERR;
  }
  cpa_interface_t* tunnel = agent.tunnels.at(indx);
  if (!tunnel) {
    cpa_log(LOG_DEBUG, "ERROR: no cpa info @ given index [%d]", indx);
    return CRYPTO_NO_ERR;
  }
  // The record goes whatever the kernel said: the RP is told of success.
  agent.kernel.remove_newest_policy(*tunnel, indx);
  if (!tunnel->head_policy.empty()) delete_node_policy(tunnel->head_policy, tunnel->head_policy.head());
  return CRYPTO_NO_ERR;
}

}  // namespace cpa
