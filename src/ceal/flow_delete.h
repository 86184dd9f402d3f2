// Deletion of one CEAL flow: the kernel SAs whose cipher record carries the
// flow id, and the agent's records of them.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/agent.h"
#include "wire/received_bytes.h"

namespace cpa {

// Deletes the first inbound SA carrying `flow_id` and stops there; when no
// tunnel has one, deletes the first outbound SA carrying it in every tunnel.
// Kernel refusals are not looked at: the records go all the same.
void kestrix_ceal_del_flow(Agent& agent, uint32_t flow_id);

// CEAL body handler of DELETE_FLOW.
int ceal_delete_flow(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);

}  // namespace cpa
