// Peer insert and delete: the peer record of a tunnel in the peer table.
#pragma once

#include <cstdint>

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

// Creates or replaces the tunnel's peer record. `*prhandle` receives the
// request's peer handle bytes when a record was created or found.
ce_status_t kestrix_proc_peer_insert_req(
    Agent& agent, const RequestBody<kestrix_pal_insert_peer_req>& ins_peer_req, uint32_t* prhandle);

// Creates the peer record of the tunnel in slot `index`.
ce_status_t kestrix_peer_create_new(Agent& agent, const kestrix_pal_insert_peer_req& req,
                                    uint32_t index, uint32_t* phdl);

// Removes the tunnel's peer record when the request names it.
ce_status_t kestrix_proc_peer_del_req(Agent& agent,
                                      const RequestBody<kestrix_pal_delete_peer_req>& req);

}  // namespace cpa
