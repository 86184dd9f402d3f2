// SADB lifecycle requests: open, confirm, delete a tunnel, update its attribute.
#pragma once

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

ce_status_t kestrix_proc_init_start_req(Agent& agent,
                                        const RequestBody<kestrix_pal_initialize_start_req>& init_reqt,
                                        cdh_sadbhandle* init_sadbhdl);
ce_status_t kestrix_proc_init_complete(
    Agent& agent, const RequestBody<kestrix_pal_initialize_completed_req>& init_complt_req);
ce_status_t kestrix_proc_sadb_delete(Agent& agent,
                                     const RequestBody<kestrix_pal_delete_sadb_req>& del_sa_req);
ce_status_t kestrix_proc_sadb_attr_update(
    Agent& agent, const RequestBody<kestrix_pal_update_sadb_req>& sad_upd_req);

}  // namespace cpa
