// Debug counters: per-command request/ok/error triples, netlink operation
// triples, keepalive and ARP counters. All are unsigned 32-bit, start at zero
// and wrap. The keepalive thread reads them all for the counter report while
// the main thread raises them, so each counter is a relaxed atomic: plain
// increments, no tearing, no ordering cost.
#pragma once

#include <atomic>
#include <cstdint>

namespace cpa {

class ctr32 {
 public:
  ctr32() = default;
  ctr32(const ctr32&) = delete;
  ctr32& operator=(const ctr32&) = delete;
  void operator++() { v_.fetch_add(1, std::memory_order_relaxed); }
  void operator++(int) { v_.fetch_add(1, std::memory_order_relaxed); }
  operator uint32_t() const { return v_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> v_{0};
};

struct cpa_pal_ctr_s {
  ctr32 p_init_start_req, p_init_start_req_respok, p_init_start_req_resperr;
  ctr32 p_init_compl_req, p_init_compl_req_respok, p_init_compl_req_resperr;
  ctr32 p_sadb_delete_req, p_sadb_delete_req_respok, p_sadb_delete_req_resperr;
  ctr32 p_attr_update_req, p_attr_update_req_respok, p_attr_update_req_resperr;
  ctr32 p_intf_attach_req, p_intf_attach_req_respok, p_intf_attach_req_resperr;
  ctr32 p_intf_detach_req, p_intf_detach_req_respok, p_intf_detach_req_resperr;
  ctr32 p_acl_insert_req, p_acl_insert_respok, p_acl_insert_resperr;
  ctr32 p_acl_delete_req, p_acl_delete_respok, p_acl_delete_resperr;
  ctr32 p_peer_insert_req, p_peer_insert_respok, p_peer_insert_resperr;
  ctr32 p_peer_delete_req, p_peer_delete_respok, p_peer_delete_resperr;
  ctr32 p_spi_insert_req, p_spi_insert_respok, p_spi_insert_resperr;
  ctr32 p_spi_delete_req, p_spi_delete_respok, p_spi_delete_resperr;
  ctr32 p_cflow_insert_req, p_cflow_insert_respok, p_cflow_insert_resperr;
  ctr32 p_cflow_modify_req, p_cflow_modify_respok, p_cflow_modify_resperr;
  ctr32 p_cflow_delete_req, p_cflow_delete_respok, p_cflow_delete_resperr;
  ctr32 p_notify_cpvm_req;  // never raised, not reported
};
using cpa_pal_ctr_t = cpa_pal_ctr_s;

struct cpa_ceal_ctr_s {
  ctr32 c_create_key_req, c_create_key_respok, c_create_key_resperr;
  ctr32 c_flow_stats_req, c_flow_stats_respok, c_flow_stats_resperr;
  ctr32 c_sadb_stats_req, c_sadb_stats_respok, c_sadb_stats_resperr;
  ctr32 c_global_stats_req, c_global_stats_respok, c_global_stats_resperr;
  ctr32 c_delete_key_req, c_delete_key_respok, c_delete_key_resperr;
};
using cpa_ceal_ctr_t = cpa_ceal_ctr_s;

struct cpa_netlink_ctr_t {
  ctr32 req, resp_ok, resp_err;
};

struct cpa_netlink_global_ctr_s {
  cpa_netlink_ctr_t n_outbound_policy_add, n_outbound_policy_del;
  cpa_netlink_ctr_t n_inbound_policy_add, n_inbound_policy_del;
  cpa_netlink_ctr_t n_outbound_sa_add, n_outbound_sa_del;
  cpa_netlink_ctr_t n_inbound_sa_add, n_inbound_sa_del;
  ctr32 n_syscall_err, n_notify_new_policy_req, n_notify_acquire_msg;  // kept, not reported
  ctr32 n_answer_timeout;  // requests the kernel did not answer in time
  ctr32 n_event_drop;      // monitor datagrams dropped as truncated or malformed
};
using cpa_netlink_global_ctr_t = cpa_netlink_global_ctr_s;

struct cpa_misc_ctr_s {
  ctr32 k_keepalive_sent, k_keepalive_recv, k_cpa_abort;  // keepalive thread
  ctr32 k_arp_req, k_arp_reply, k_arp_err;                // main thread (ARP)
  ctr32 k_arp_filter_drop;  // main thread: frames naming an address no host may have
  ctr32 k_rp_filter_drop;  // both threads: datagrams from outside the RP allow-list
};
using cpa_misc_ctr_t = cpa_misc_ctr_s;

// The four records of one agent.
struct DebugCounters {
  cpa_pal_ctr_t dbg_ctrs;
  cpa_ceal_ctr_t ceal_dbg_ctrs;
  cpa_netlink_global_ctr_t netlink_dbg_ctrs;
  cpa_misc_ctr_t misc_dbg_ctrs;
};

// Counts the outcome of PAL command `cmd_type`; success is CRYPTO_NO_ERR.
// `subcmd_type` picks attach/detach (command 5) and insert/delete (command 9).
void pal_cmd_dbg_count(DebugCounters& ctrs, uint16_t cmd_type, int status, uint32_t subcmd_type);

// Counts the outcome of CEAL command `cmd_type`; `c_cstatus` 0 ok, 1 failed.
void ceal_cmd_debug_count(DebugCounters& ctrs, uint16_t cmd_type, int c_cstatus);

}  // namespace cpa
