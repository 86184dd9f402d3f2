#include "state/peer_table.h"

#include <gtest/gtest.h>

namespace cpa {
namespace {

std::unique_ptr<cdh_peer_parameters> record() { return std::make_unique<cdh_peer_parameters>(); }

TEST(PeerTable, TakesTheLowestEmptySlotFromZeroUntilFull) {
  PeerTable peers;
  EXPECT_EQ(peers.store(record()), 0u);
  EXPECT_EQ(peers.store(record()), 1u);
  EXPECT_EQ(peers.store(record()), 2u);

  cpa_interface_t holder;
  holder.peer_index = 1;
  holder.peer_handle = 0x11;
  peers.release_peer_of(holder);
  EXPECT_EQ(peers.at(1), nullptr);
  EXPECT_EQ(holder.peer_index, -1);
  EXPECT_EQ(holder.peer_handle, 0u);
  EXPECT_EQ(peers.store(record()), 1u);

  for (uint32_t slot = 3; slot < PeerTable::kSlots; ++slot) ASSERT_EQ(peers.store(record()), slot);
  EXPECT_EQ(peers.store(record()), std::nullopt);
  EXPECT_EQ(peers.at(PeerTable::kSlots), nullptr);
}

}  // namespace
}  // namespace cpa
