// The allocation cursor of the tunnel table, a full table's refusal and the
// reuse of freed slots.
#include "state/tunnel_table.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

class TunnelTableTest : public ::testing::Test {
 protected:
  uint32_t create(uint32_t create_handle) {
    kestrix_pal_initialize_start_req req{htonl(0xc0), htonl(create_handle), htonl(2)};
    cdh_sadbhandle handle = 0;
    EXPECT_EQ(table.create_alloc_sadbhdl(req, &handle), CRYPTO_NO_ERR);
    return ntohl(handle);
  }
  void fill_all() {
    for (uint32_t i = 1; i < TunnelTable::kSlots; ++i) create(0x1000 + i);
  }

  test::LogCapture log;
  TunnelTable table;
};

// A freed slot is taken again only after the cursor has wrapped.
TEST_F(TunnelTableTest, CursorWrapsFrom4095ToTheFirstFreeSlot) {
  fill_all();
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

TEST_F(TunnelTableTest, OutOfRangeHandlesAreNotFoundAndNotDeleted) {
  create(5);
  uint32_t idx = 77;
  for (uint32_t absent : {0u, 4096u}) EXPECT_EQ(table.sadb_lookup(absent, &idx), CRYPTO_ERR_NO_SESSION);
  EXPECT_EQ(table.kestrix_db_lookup_tunid(0xFFFFFFFF, &idx), CRYPTO_ERR_INVALID);  // not an unattached tunnel's id
  EXPECT_TRUE(log.has(LOG_ERR, "Invalid tunnel id [ffffffff] "));

  EXPECT_EQ(table.kestrix_del_sadb(0), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(table.kestrix_del_sadb(4096), CRYPTO_ERR_INTERNAL);
  EXPECT_EQ(log.count("index lesser than max tunnels"), 2);
  EXPECT_NE(table.at(1), nullptr);
}

}  // namespace
}  // namespace cpa
