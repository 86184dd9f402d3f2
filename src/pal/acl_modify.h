// ACL modify requests: installing an ACL as a tunnel's newest policy,
// replacing the newest policy with it, or removing the newest policy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/agent.h"
#include "wire/cp_dp_msg.h"
#include "wire/received_bytes.h"

namespace cpa {

// Serves one request. `req` is the PAL command from `pal_api_type` on, as
// received; `len` the header's message_length, which bounds the record stream.
ce_status_t kestrix_proc_acl_update_req(Agent& agent, const ReceivedBytes& req, size_t len);

// Serves the request's opcode for the tunnel in slot `indx` and counts it.
ce_status_t kestrix_update_acl_info(Agent& agent, const ReceivedBytes& req, uint32_t indx,
                                    size_t pal_msglen);

// Opcodes insert-all and replace: builds the policy, programs the kernel and
// hangs it at the head of the tunnel's policies, unless it is a duplicate.
ce_status_t kestrix_acl_proc_insert_replace(Agent& agent, const ReceivedBytes& req, uint32_t indx,
                                            size_t pal_msglen, uint32_t opcode);

// Removes the tunnel's newest policy, from the kernel and from the list.
// Always CRYPTO_NO_ERR.
ce_status_t kestrix_acl_proc_remove_all(Agent& agent, uint32_t indx);

}  // namespace cpa
