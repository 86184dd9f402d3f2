// Interface attach and detach: a tunnel's SVTI device is created when the RP
// attaches the tunnel id to a tunnel, and deleted when it detaches it.
#pragma once

#include <cstdint>

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

// A non-zero SADB handle attaches, SADB handle 0 detaches. Counts its
// outcome on the attach or the detach triple.
ce_status_t kestrix_proc_sadb_intf_att(
    Agent& agent, const RequestBody<kestrix_pal_attach_sadb_req>& sadb_att_req);

// Creates the device of the request's tunnel id for the tunnel in `index`
// and records the tunnel id and is_v6 in it.
ce_status_t kestrix_intf_svti_create_attach(Agent& agent,
                                            const kestrix_pal_attach_sadb_req& sadb_att_req,
                                            uint32_t index);

// Deletes the device of `tunnel_id`.
ce_status_t kestrix_intf_svti_del(Agent& agent, uint32_t tunnel_id);

}  // namespace cpa
