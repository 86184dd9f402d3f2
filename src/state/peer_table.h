// The peer table: the parameters the RP gave for each tunnel's remote peer,
// 4096 slots of peer records. Every slot, 0 included, is usable; a new
// record takes the lowest empty one. A tunnel names its record by
// `peer_index` and the RP's handle of the peer by `peer_handle`.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "state/tunnel_table.h"

namespace cpa {

// One peer, host order.
struct cdh_peer_parameters_ {
  int do_idle_timer = 0;
  unsigned int idle_timer_setting = 0;
  uint32_t idle_timer_handle = 0;
  int do_dpd = 0;
  unsigned int dpd_threshold = 0;
  uint32_t dpd_handle = 0;
  int do_translation = 0;
  uint16_t inside_remote_port = 0;
  uint16_t outside_remote_port = 0;
};
using cdh_peer_parameters = cdh_peer_parameters_;

class PeerTable {
 public:
  static constexpr int kSlots = 4096;

  // Stores `record` in the lowest empty slot and returns the slot; nothing
  // (and the record is dropped) when every slot is taken.
  std::optional<uint32_t> store(std::unique_ptr<cdh_peer_parameters> record);

  // Releases the record `tunnel` holds, if any, and marks the tunnel peerless.
  void release_peer_of(cpa_interface_t& tunnel);

  // The record in `slot`, or null when the slot is empty or out of range.
  const cdh_peer_parameters* at(uint32_t slot) const {
    return slot < kSlots ? cpa_peer_params[slot].get() : nullptr;
  }

 private:
  std::array<std::unique_ptr<cdh_peer_parameters>, kSlots> cpa_peer_params;
};

}  // namespace cpa
