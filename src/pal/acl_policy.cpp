#include "pal/acl_policy.h"

#include <arpa/inet.h>

#include <utility>

#include "base/log.h"
#include "pal/ace_decoding.h"
#include "pal/record_stream.h"
#include "wire/byte_order.h"

namespace cpa {
namespace {

// The policy slot each action kind fills, from KESTRIX_PAL_IN_ACTION on.
constexpr kestrix_cdh_action cpa_spd_policy_t::*kActionSlots[] = {
    &cpa_spd_policy_t::inbound,
    &cpa_spd_policy_t::outbound,
    &cpa_spd_policy_t::inbound_deny,
    &cpa_spd_policy_t::outbound_deny,
};

// What a failed ACE decode reports, by ACE kind from KESTRIX_PAL_ACE_ACL_DESC on.
constexpr const char* kAceDecodeFailure[] = {
    "ACL_UPDATE: failed to decode ACE for desc ace",
    "ACL_UPDATE: failed to decode ACE for desc ace",
    "ACL_UPDATE: failed to decode Delete ACE for desc ace",
    "ACL_UPDATE: failed to decode ACE for IN_ACTION",
    "ACL_UPDATE: failed to decode ACE for OUT_ACTION",
    "ACL_UPDATE: failed to decode ACE for IN_DENY_ACTION",
    "ACL_UPDATE: failed to decode ACE for OUT_DENY_ACTION",
};

void log_request(const kestrix_pal_acl_update_req& req) {
  const kestrix_crypto_map_update_descriptor& desc = req.desc;
  cpa_log(LOG_DEBUG, "\ncall handle %x, sadbhdl %x, static seqno %d, dyn seqno %d",
          ntohl(req.callback_handle), ntohl(req.sadbhandle), ntohl(req.static_seqno),
          ntohl(req.dyn_seqno));
  cpa_log(LOG_DEBUG, "\n####### KESTRIX_CRYPTO_MAP_UPDATE_DESCRIPTOR ##############");
  // The 64-bit ids are shown by their low 32 bits.
  const auto low32 = [](uint64_t wire) {
    return static_cast<unsigned long>(static_cast<uint32_t>(kestrix_bswap64(wire)));
  };
  cpa_log(LOG_DEBUG,
          "\nwht_chnged %u, acl %lu, ace %lu,delete_ace %lu, ivrf %u, num_old_ace_entries %d",
          ntohl(desc.what_changed), low32(desc.acl), low32(desc.ace), low32(desc.delete_ace),
          static_cast<unsigned>(ntohs(desc.ivrf)), ntohl(desc.num_old_ace_entries));
}

ce_status_t add_ace(cpa_spd_policy_t& policy, uint16_t kind, const kestrix_crypto_ace& wire) {
  std::unique_ptr<ace_netlink_t> node = new_record<ace_netlink_t>();
  if (!node) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    cpa_log(LOG_ERR, "invalid Ace Node");
    return CRYPTO_ERR_RESOURCES;
  }
  if (kind == KESTRIX_PAL_ACE_ACL_DESC) cpa_log(LOG_DEBUG, "KESTRIX_PAL_ACE_ACL_DESC");
  if (kestrix_decode_ace(&wire, &node->ace) != 0) {
    cpa_log(LOG_ERR, "%s", kAceDecodeFailure[kind - KESTRIX_PAL_ACE_ACL_DESC]);
    return CRYPTO_ERR_INTERNAL;
  }
  node->dir = kAceDirOut;
  const unsigned addr = log_addr(node.get());
  insert_node_ace(policy.ace_entry, std::move(node));
  if (kind == KESTRIX_PAL_ACE_ACL_DESC) cpa_log(LOG_DEBUG, "inserted ace_node 0x%x", addr);
  return CRYPTO_NO_ERR;
}

// Adds one record of the stream to `policy`.
RecordOutcome add_record(const StreamRecord& record, cpa_spd_policy_t& policy) {
  if (record.ace) {
    const ce_status_t status = add_ace(policy, record.kind, *record.ace);
    return status == CRYPTO_NO_ERR ? RecordOutcome{} : status;
  }
  if (!record.action) {
    cpa_log(LOG_ERR, "ACL_UPDATE: bad acl_action [%d] in PAL req", record.kind);
    return CRYPTO_ERR_INVALID;
  }
  // A later record of the same kind overwrites the earlier one.
  kestrix_set_action(&*record.action,
                     &(policy.*kActionSlots[record.kind - KESTRIX_PAL_IN_ACTION]));
  return std::nullopt;
}

}  // namespace

ce_status_t kestrix_alloc_set_policy(const ReceivedBytes& req, size_t req_buf_len,
                                     std::unique_ptr<cpa_spd_policy_t>* ipsec_policy) {
  if (!req.data()) {
    cpa_log(LOG_ERR, "Null req");
    return CRYPTO_ERR_INTERNAL;
  }
  if (!ipsec_policy) {
    cpa_log(LOG_ERR, "Null ipsec_policy");
    return CRYPTO_ERR_INTERNAL;
  }
  std::unique_ptr<cpa_spd_policy_t> policy = new_record<cpa_spd_policy_t>();
  if (!policy) {
    cpa_log(LOG_ERR, "NEW_NODE: Resource unavailable");
    return CRYPTO_ERR_RESOURCES;
  }
  // A fixed part cut short reads as zeros: the caller's checks of the
  // handles, the opcode and the outbound action refuse such a request.
  const auto fixed = req.read_padded<kestrix_pal_acl_update_req>(sizeof(uint16_t));
  policy->static_seqno = ntohl(fixed->static_seqno);
  policy->dynamic_seqno = ntohl(fixed->dyn_seqno);
  policy->desc.what_changed = ntohl(fixed->desc.what_changed);
  log_request(fixed.value);

  const ce_status_t walked =
      walk_record_stream(req, kAclStreamOffset, req_buf_len, "ACL_UPDATE",
                         [&](const StreamRecord& record) { return add_record(record, *policy); })
          .status;
  if (walked != CRYPTO_NO_ERR) return walked;
  *ipsec_policy = std::move(policy);
  return CRYPTO_NO_ERR;
}

int match_policy(const cpa_interface_t& p_cpa_elem, const ace_netlink_t& t_ace_entry) {
  for (const cpa_spd_policy_t& policy : p_cpa_elem.head_policy)
    for (const ace_netlink_t& entry : policy.ace_entry)
      if (entry.ace.handle == t_ace_entry.ace.handle) return 1;
  return 0;
}

int kestrix_policy_index_update(TunnelTable& tunnels, uint32_t index, int32_t k_index,
                                uint32_t dir) {
  cpa_interface_t* entry = tunnels.at(index);
  if (!entry) {
    cpa_log(LOG_ERR, "no ace found for dir %d, index 0x%x", dir, k_index);
    return 1;
  }
  cpa_spd_policy_t* policy = entry->head_policy.head();
  if (!policy) {
    cpa_log(LOG_ERR, "no policy found for dir %d, index 0x%x", dir, k_index);
    return 1;
  }
  for (ace_netlink_t& ace : policy->ace_entry) {
    if (ace.dir != dir) continue;
    ace.k_index = k_index;
    cpa_log(LOG_DEBUG, "index updated for ace 0x%x dir %d, index 0x%x", log_addr(&ace), dir,
            k_index);
    return 0;
  }
  return 1;
}

}  // namespace cpa
