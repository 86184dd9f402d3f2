#include "diag/counters.h"

#include <gtest/gtest.h>

#include "fakes/log_capture.h"
#include "wire/cp_dp_msg.h"

namespace cpa {
namespace {

TEST(Counters, SubCommandsPickTheTriple) {
  test::LogCapture log;
  DebugCounters c;
  pal_cmd_dbg_count(c, 5, CRYPTO_NO_ERR, 1);
  pal_cmd_dbg_count(c, 5, CRYPTO_ERR_INVALID, 0);
  pal_cmd_dbg_count(c, 5, CRYPTO_NO_ERR, 0xFFFFFFFF);
  pal_cmd_dbg_count(c, 9, CRYPTO_NO_ERR, 2);
  pal_cmd_dbg_count(c, 9, CRYPTO_ERR_RESOURCES, 5);
  pal_cmd_dbg_count(c, 9, CRYPTO_NO_ERR, 4);
  pal_cmd_dbg_count(c, 17, CRYPTO_ERR_INTERNAL, 0);
  pal_cmd_dbg_count(c, 0, CRYPTO_ERR_INTERNAL, 0);
  EXPECT_EQ(c.dbg_ctrs.p_intf_attach_req_respok, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_intf_detach_req_resperr, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_intf_detach_req_respok, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_acl_insert_respok, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_acl_insert_resperr, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_acl_delete_respok, 1u);
  EXPECT_EQ(c.dbg_ctrs.p_cflow_delete_resperr, 1u);
  EXPECT_TRUE(log.lines().empty());
  pal_cmd_dbg_count(c, 18, CRYPTO_ERR_INVALID, 0);
  EXPECT_TRUE(log.has(LOG_INFO, "action: INVALID cmd_type 18 status 8"));
}

TEST(Counters, CealStatusZeroIsOkOneIsErrorOthersNothing) {
  DebugCounters c;
  ceal_cmd_debug_count(c, 1, 1);
  ceal_cmd_debug_count(c, 4, 0);
  ceal_cmd_debug_count(c, 4, 2);
  ceal_cmd_debug_count(c, 5, 0);
  EXPECT_EQ(c.ceal_dbg_ctrs.c_flow_stats_resperr, 1u);
  EXPECT_EQ(c.ceal_dbg_ctrs.c_delete_key_respok, 1u);
  EXPECT_EQ(c.ceal_dbg_ctrs.c_delete_key_resperr, 0u);
}

}  // namespace
}  // namespace cpa
