// The frame shared by the requests that name a tunnel by its SADB handle:
// the command trace around the lookup and the work done for the tunnel.
#pragma once

#include <cstdint>

#include "agent/agent.h"

namespace cpa {

// Runs `work(index)` for the tunnel named by `sadb` (host order) between the
// start and end lines of command `cmd`'s trace; without such a tunnel the
// status is the lookup's.
template <class Work>
ce_status_t for_tunnel_traced(Agent& agent, uint16_t cmd, uint32_t callback, uint32_t sadb,
                              Work work) {
  return agent.trace.traced(cmd, callback, sadb, [&] {
    uint32_t index = 0;
    const ce_status_t found = agent.tunnels.sadb_lookup(sadb, &index);
    return found == CRYPTO_NO_ERR ? work(index) : found;
  });
}

}  // namespace cpa
