// The three statistics queries (CEAL api types 1-3), answered from the fast
// path's counters. Body handlers of the CEAL dispatch (CealBodyHandler).
#pragma once

#include <cstdint>
#include <vector>

#include "agent/agent.h"
#include "wire/received_bytes.h"

namespace cpa {

// Per-flow counters; the response grows to 22 + 456 bytes per answered flow.
int kestrix_ceal_flow_stats(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);
// The request's fields and zero counters: the fast path keeps none per SADB.
int kestrix_ceal_sadb_stats(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);
// The fast path's global counters.
int kestrix_ceal_global_stats(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);

}  // namespace cpa
