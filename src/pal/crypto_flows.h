// Crypto flows: the outbound (encrypting) SAs of a tunnel, and the
// re-programming of its kernel policies by the first flow that shows the
// negotiated IPsec protocol.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

// Each takes `req`, the PAL command from `pal_api_type` on as received, and
// `len`, the header's message_length, which bounds the record stream.

// Serves a crypto flow insert; `flow_id` receives the flow id (host order)
// when there is one.
ce_status_t kestrix_proc_ins_cflow(Agent& agent, const ReceivedBytes& req, size_t len,
                                   uint64_t& flow_id);
ce_status_t kestrix_alloc_ins_cflow(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                    uint32_t index, uint64_t& flow_id);

// Serves a crypto flow modify: a replacement SA joins the tunnel's outbound
// SAs beside the one it replaces.
ce_status_t kestrix_proc_upd_cflow(Agent& agent, const ReceivedBytes& req, size_t len);
ce_status_t kestrix_alloc_upd_cflow(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                    uint32_t index);

// Serves a crypto flow delete: answers whether the tunnel exists and changes
// nothing (outbound SAs go when the RP deletes their flow).
ce_status_t kestrix_proc_del_cflow(Agent& agent,
                                   const RequestBody<kestrix_pal_remove_flow_table_req>& req);

}  // namespace cpa
