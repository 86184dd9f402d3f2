#include "state/peer_table.h"

namespace cpa {

std::optional<uint32_t> PeerTable::store(std::unique_ptr<cdh_peer_parameters> record) {
  for (uint32_t slot = 0; slot < kSlots; ++slot) {
    if (!cpa_peer_params[slot]) {
      cpa_peer_params[slot] = std::move(record);
      return slot;
    }
  }
  return std::nullopt;
}

void PeerTable::release_peer_of(cpa_interface_t& tunnel) {
  if (tunnel.peer_index >= 0 && tunnel.peer_index < kSlots)
    cpa_peer_params[tunnel.peer_index].reset();
  tunnel.peer_index = -1;
  tunnel.peer_handle = 0;
}

}  // namespace cpa
