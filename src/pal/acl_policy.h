// Policies built from ACL modify requests: the record-stream walk that turns
// a request into a policy, the duplicate test, and the kernel policy index
// kept on a tunnel's ACEs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "state/policy_records.h"
#include "state/tunnel_table.h"
#include "wire/cp_dp_msg.h"
#include "wire/received_bytes.h"

namespace cpa {

// Where the record stream starts in the PAL command: after `pal_api_type`
// and the fixed part of the request.
inline constexpr size_t kAclStreamOffset = sizeof(uint16_t) + sizeof(kestrix_pal_acl_update_req);

// Builds a policy from `req` (the PAL command from `pal_api_type` on, as
// received) whose header gave `req_buf_len` as its message_length. On
// CRYPTO_NO_ERR the policy is stored through `ipsec_policy` and owned by the
// caller; on any other status nothing of the request is kept.
ce_status_t kestrix_alloc_set_policy(const ReceivedBytes& req, size_t req_buf_len,
                                     std::unique_ptr<cpa_spd_policy_t>* ipsec_policy);

// 1 when an ACE of any policy of the tunnel has the handle of `t_ace_entry`.
int match_policy(const cpa_interface_t& p_cpa_elem, const ace_netlink_t& t_ace_entry);

// Stores a kernel policy index on the first ACE of direction `dir` of the
// newest policy of the tunnel in slot `index`; 0 when an ACE took it.
int kestrix_policy_index_update(TunnelTable& tunnels, uint32_t index, int32_t k_index,
                                uint32_t dir);

}  // namespace cpa
