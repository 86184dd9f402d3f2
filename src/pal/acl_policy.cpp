#include "pal/acl_policy.h"

#include <arpa/inet.h>

#include <utility>

#include "diag/log.h"
#include "pal/ace_decoding.h"
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

// The record stream is read only as far as both the received bytes and
// message_length reach. A record that starts before message_length but does
// not fit fails the whole request, like a record of an unknown kind, rather
// than being dropped or read from bytes that never arrived.
ce_status_t truncated_record(const ReceivedBytes& stream, size_t offset) {
  cpa_log(LOG_ERR, "ACL_UPDATE: record at offset %zu passes the end of the PAL req (%zu bytes)",
          offset, stream.size());
  return CRYPTO_ERR_INVALID;
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

// Reads the record at `offset` into `policy` and moves `offset` past it.
ce_status_t add_record(const ReceivedBytes& stream, size_t& offset, cpa_spd_policy_t& policy) {
  const auto header = stream.read<kestrix_acl_actions>(offset);
  if (!header) return truncated_record(stream, offset);
  const uint16_t kind = ntohs(header->kestrix_acl_type);
  if (kind < KESTRIX_PAL_ACE_ACL_DESC || kind > KESTRIX_PAL_OUT_DENY_ACTION) {
    cpa_log(LOG_ERR, "ACL_UPDATE: bad acl_action [%d] in PAL req", kind);
    return CRYPTO_ERR_INVALID;
  }
  const size_t body = offset + sizeof(kestrix_acl_actions);
  if (kind < KESTRIX_PAL_IN_ACTION) {
    const auto ace = stream.read<kestrix_crypto_ace>(body);
    if (!ace) return truncated_record(stream, offset);
    offset += kAceRecordSize;
    return add_ace(policy, kind, *ace);
  }
  const auto action = stream.read<kestrix_cdh_action>(body);
  if (!action) return truncated_record(stream, offset);
  // A later record of the same kind overwrites the earlier one.
  kestrix_set_action(&*action, &(policy.*kActionSlots[kind - KESTRIX_PAL_IN_ACTION]));
  offset += kActionRecordSize;
  return CRYPTO_NO_ERR;
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

  const ReceivedBytes stream = req.slice(0, req_buf_len);
  for (size_t offset = kAclStreamOffset; offset < req_buf_len;) {
    const ce_status_t status = add_record(stream, offset, *policy);
    if (status != CRYPTO_NO_ERR) return status;
  }
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
