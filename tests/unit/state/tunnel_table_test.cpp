// The allocation cursor of the tunnel table, a full table's refusal and the
// reuse of freed slots. Handles out of range are the dispatch fuzzer's.
#include "state/tunnel_table.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

// A freed slot is taken again only after the cursor has wrapped.
TEST(TunnelTable, CursorWrapsFrom4095ToTheFirstFreeSlot) {
  test::LogCapture log;
  TunnelTable table;
  const auto create = [&](uint32_t create_handle) {
    cdh_sadbhandle handle = 0;
    EXPECT_EQ(table.create_alloc_sadbhdl({htonl(0xc0), htonl(create_handle), htonl(2)}, &handle), CRYPTO_NO_ERR);
    return ntohl(handle);
  };
  for (uint32_t i = 1; i < TunnelTable::kSlots; ++i) create(0x1000 + i);
  EXPECT_EQ(table.g_sadb_alloc_index(), -1);
  cdh_sadbhandle refused = 0;
  EXPECT_EQ(table.create_alloc_sadbhdl({htonl(0xc0), htonl(0x7000), htonl(2)}, &refused), CRYPTO_ERR_RESOURCES);
  EXPECT_TRUE(log.has(LOG_ERR, "CPA Main table is full"));
  table.kestrix_del_sadb(2);  // re-arms the cursor at 2
  table.kestrix_del_sadb(1);
  table.kestrix_del_sadb(4095);
  EXPECT_EQ(table.find_by_create_handle(0x1001), std::nullopt);
  EXPECT_EQ(create(0x7001), 2u);
  EXPECT_EQ(table.find_by_create_handle(0x7001), 2u);
  EXPECT_EQ(table.g_sadb_alloc_index(), 4095);
  EXPECT_EQ(create(0x7002), 4095u);
  EXPECT_EQ(table.g_sadb_alloc_index(), 1);  // past 4095 the walk goes on at 1
  EXPECT_EQ(create(0x7003), 1u);
  EXPECT_EQ(table.g_sadb_alloc_index(), -1);
}

}  // namespace
}  // namespace cpa
