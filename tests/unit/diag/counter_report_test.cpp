#include "diag/counter_report.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "fakes/fake_system.h"

namespace cpa {
namespace {

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Gives every reported counter a distinct value: 1, 2, 3... in report order.
void number_reported_counters(DebugCounters& c) {
  uint32_t next = 1;
  auto set = [&next](ctr32& ctr) {
    for (uint32_t i = 0; i < next; ++i) ++ctr;
    ++next;
  };
  auto triple = [&](ctr32& a, ctr32& b, ctr32& d) { set(a), set(b), set(d); };
  auto& p = c.dbg_ctrs;
  triple(p.p_init_start_req, p.p_init_start_req_respok, p.p_init_start_req_resperr);
  triple(p.p_init_compl_req, p.p_init_compl_req_respok, p.p_init_compl_req_resperr);
  triple(p.p_sadb_delete_req, p.p_sadb_delete_req_respok, p.p_sadb_delete_req_resperr);
  triple(p.p_attr_update_req, p.p_attr_update_req_respok, p.p_attr_update_req_resperr);
  triple(p.p_intf_attach_req, p.p_intf_attach_req_respok, p.p_intf_attach_req_resperr);
  triple(p.p_intf_detach_req, p.p_intf_detach_req_respok, p.p_intf_detach_req_resperr);
  triple(p.p_acl_insert_req, p.p_acl_insert_respok, p.p_acl_insert_resperr);
  triple(p.p_acl_delete_req, p.p_acl_delete_respok, p.p_acl_delete_resperr);
  triple(p.p_peer_insert_req, p.p_peer_insert_respok, p.p_peer_insert_resperr);
  triple(p.p_peer_delete_req, p.p_peer_delete_respok, p.p_peer_delete_resperr);
  triple(p.p_spi_insert_req, p.p_spi_insert_respok, p.p_spi_insert_resperr);
  triple(p.p_spi_delete_req, p.p_spi_delete_respok, p.p_spi_delete_resperr);
  triple(p.p_cflow_insert_req, p.p_cflow_insert_respok, p.p_cflow_insert_resperr);
  triple(p.p_cflow_modify_req, p.p_cflow_modify_respok, p.p_cflow_modify_resperr);
  triple(p.p_cflow_delete_req, p.p_cflow_delete_respok, p.p_cflow_delete_resperr);
  auto& e = c.ceal_dbg_ctrs;
  triple(e.c_create_key_req, e.c_create_key_respok, e.c_create_key_resperr);
  triple(e.c_flow_stats_req, e.c_flow_stats_respok, e.c_flow_stats_resperr);
  triple(e.c_sadb_stats_req, e.c_sadb_stats_respok, e.c_sadb_stats_resperr);
  triple(e.c_global_stats_req, e.c_global_stats_respok, e.c_global_stats_resperr);
  triple(e.c_delete_key_req, e.c_delete_key_respok, e.c_delete_key_resperr);
  auto& n = c.netlink_dbg_ctrs;
  for (cpa_netlink_ctr_t* t : {&n.n_outbound_policy_add, &n.n_outbound_policy_del, &n.n_inbound_policy_add,
                               &n.n_inbound_policy_del, &n.n_outbound_sa_add, &n.n_outbound_sa_del,
                               &n.n_inbound_sa_add, &n.n_inbound_sa_del})
    triple(t->req, t->resp_ok, t->resp_err);
  auto& m = c.misc_dbg_ctrs;
  for (ctr32* k : {&m.k_keepalive_sent, &m.k_keepalive_recv, &m.k_cpa_abort, &m.k_arp_req,
                   &m.k_arp_reply, &m.k_arp_err})
    set(*k);
}

TEST(CounterReport, WritesEveryCounterInItsPlace) {
  DebugCounters counters;
  number_reported_counters(counters);
  test::FakeCommandRunner commands;
  const std::string path = ::testing::TempDir() + "cpa_ctrs_" + std::to_string(getpid());
  Pal_Ceal_dbg_counter_display(counters, commands, path.c_str());
  EXPECT_EQ(read_file(path), read_file(CPA_TESTDATA "/counter_report.txt"));
  EXPECT_TRUE(commands.commands.empty());
  // A second report replaces the first.
  Pal_Ceal_dbg_counter_display(DebugCounters{}, commands, path.c_str());
  EXPECT_NE(read_file(path).find("KESTRIX_PAL_SADB_INIT_START \t\t        0 \t\t      0"), std::string::npos);
  unlink(path.c_str());
}

TEST(CounterReport, UnwritableFileLeavesTheMarkerInstead) {
  test::FakeCommandRunner commands;
  Pal_Ceal_dbg_counter_display(DebugCounters{}, commands, "/nonexistent-dir/.cpa_ctrs");
  EXPECT_EQ(commands.commands, std::vector<std::string>{"touch /usr/admin/log/.cpa_err"});
}

}  // namespace
}  // namespace cpa
