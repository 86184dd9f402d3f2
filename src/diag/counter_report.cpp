#include "diag/counter_report.h"

#include <cstdio>
#include <memory>

#include "diag/command_trace.h"

namespace cpa {
namespace {

const char* const pal_cmd_string_header = "PAL Commands";
const char* const ceal_cmd_string_header = "Ceal Commands";
const char* const netlink_cmd_string_header = "Netlink Opcodes";
const char* const misc_cmd_string_header = "ARP/KA";
const char* const request_count_string = "No of Requests";
const char* const response_ok_string = "No of Response ok";
const char* const response_err_string = "No of Response Errors";

using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

unsigned long ul(uint32_t v) { return v; }

class ReportWriter {
 public:
  explicit ReportWriter(FILE* f) : f_(f) {}

  void heading(const char* format, const char* title) {
    std::fprintf(f_, format, title, request_count_string, response_ok_string, response_err_string);
  }
  void row(const char* format, const char* name, uint32_t req, uint32_t ok, uint32_t err) {
    std::fprintf(f_, format, name, ul(req), ul(ok), ul(err));
  }
  void row(const char* format, const char* name, const cpa_netlink_ctr_t& t) {
    row(format, name, t.req, t.resp_ok, t.resp_err);
  }
  void single(const char* format, const char* name, uint32_t value) {
    std::fprintf(f_, format, name, ul(value));
  }
  void separator() {
    char line[102];
    line[0] = line[1] = '\n';
    for (int i = 2; i < 102; ++i) line[i] = '-';
    std::fwrite(line, 1, sizeof line, f_);
  }
  FILE* file() const { return f_; }

 private:
  FILE* f_;
};

void write_pal_section(ReportWriter& w, const cpa_pal_ctr_t& c) {
  const char* const mid = "\n %s \t\t %8lu \t\t %6lu \t\t %6lu";
  w.heading("\n\t%s \t\t\t %17s \t %s \t %s", pal_cmd_string_header);
  w.row("\n\n\n %s \t\t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[1], c.p_init_start_req,
        c.p_init_start_req_respok, c.p_init_start_req_resperr);
  w.row("\n %s \t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[2], c.p_init_compl_req,
        c.p_init_compl_req_respok, c.p_init_compl_req_resperr);
  w.row(mid, pal_cmd_str[3], c.p_sadb_delete_req, c.p_sadb_delete_req_respok,
        c.p_sadb_delete_req_resperr);
  w.row(mid, pal_cmd_str[4], c.p_attr_update_req, c.p_attr_update_req_respok,
        c.p_attr_update_req_resperr);
  w.row("\n %s-(Add) \t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[5], c.p_intf_attach_req,
        c.p_intf_attach_req_respok, c.p_intf_attach_req_resperr);
  w.row("\n %s-(Del) \t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[5], c.p_intf_detach_req,
        c.p_intf_detach_req_respok, c.p_intf_detach_req_resperr);
  w.row("\n %s-(Add) \t\t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[9], c.p_acl_insert_req,
        c.p_acl_insert_respok, c.p_acl_insert_resperr);
  w.row("\n %s-(Del) \t\t %8lu \t\t %6lu \t\t %6lu", pal_cmd_str[9], c.p_acl_delete_req,
        c.p_acl_delete_respok, c.p_acl_delete_resperr);
  w.row(mid, pal_cmd_str[11], c.p_peer_insert_req, c.p_peer_insert_respok, c.p_peer_insert_resperr);
  w.row(mid, pal_cmd_str[12], c.p_peer_delete_req, c.p_peer_delete_respok, c.p_peer_delete_resperr);
  w.row(mid, pal_cmd_str[13], c.p_spi_insert_req, c.p_spi_insert_respok, c.p_spi_insert_resperr);
  w.row(mid, pal_cmd_str[14], c.p_spi_delete_req, c.p_spi_delete_respok, c.p_spi_delete_resperr);
  w.row(mid, pal_cmd_str[15], c.p_cflow_insert_req, c.p_cflow_insert_respok,
        c.p_cflow_insert_resperr);
  w.row(mid, pal_cmd_str[16], c.p_cflow_modify_req, c.p_cflow_modify_respok,
        c.p_cflow_modify_resperr);
  w.row(mid, pal_cmd_str[17], c.p_cflow_delete_req, c.p_cflow_delete_respok,
        c.p_cflow_delete_resperr);
}

void write_ceal_section(ReportWriter& w, const cpa_ceal_ctr_t& c) {
  const char* const narrow = "\n %s \t %8lu \t\t %6lu \t\t %6lu";
  w.heading("\n\n\n\t%s \t\t\t %17s \t %s \t %s", ceal_cmd_string_header);
  w.row("\n\n\n %s \t %8lu \t\t %6lu \t\t %6lu", ceal_cmd_str[0], c.c_create_key_req,
        c.c_create_key_respok, c.c_create_key_resperr);
  w.row("\n %s \t\t %8lu \t\t %6lu \t\t %6lu", ceal_cmd_str[1], c.c_flow_stats_req,
        c.c_flow_stats_respok, c.c_flow_stats_resperr);
  w.row(narrow, ceal_cmd_str[2], c.c_sadb_stats_req, c.c_sadb_stats_respok,
        c.c_sadb_stats_resperr);
  w.row(narrow, ceal_cmd_str[3], c.c_global_stats_req, c.c_global_stats_respok,
        c.c_global_stats_resperr);
  w.row("\n %s \t\t %8lu \t\t %6lu \t\t %6lu\n", ceal_cmd_str[4], c.c_delete_key_req,
        c.c_delete_key_respok, c.c_delete_key_resperr);
}

void write_netlink_section(ReportWriter& w, const cpa_netlink_global_ctr_t& c) {
  const char* const rest = "\n %s \t\t\t %7lu \t\t %5lu \t\t\t %5lu";
  w.heading("\n\n\n\t%s \t\t %17s \t %s \t %s", netlink_cmd_string_header);
  w.row("\n\n\n %s \t\t\t %7lu \t\t %5lu \t\t\t %5lu", "Outbound Policy Add",
        c.n_outbound_policy_add);
  w.row(rest, "Outbound Policy Del", c.n_outbound_policy_del);
  w.row(rest, "Inbound Policy Add", c.n_inbound_policy_add);
  w.row(rest, "Inbound Policy Del", c.n_inbound_policy_del);
  w.row(rest, "Outbound SA Add", c.n_outbound_sa_add);
  w.row(rest, "Outbound SA Del", c.n_outbound_sa_del);
  w.row(rest, "Inbound SA Add", c.n_inbound_sa_add);
  w.row(rest, "Inbound SA Del", c.n_inbound_sa_del);
  w.single("\n %s \t\t\t %7lu ", "Answer timeouts", c.n_answer_timeout);
  w.single("\n %s \t\t\t\t %7lu ", "Event drops", c.n_event_drop);
}

void write_misc_section(ReportWriter& w, const cpa_misc_ctr_t& c) {
  std::fprintf(w.file(), "\n\n\n\t%s \t\t\t %20s", misc_cmd_string_header, "Ctr Value");
  w.single("\n\n\n %s \t\t\t %8lu ", "Keepalive sent", c.k_keepalive_sent);
  w.single("\n %s \t\t\t %8lu ", "Keepalive Recv", c.k_keepalive_recv);
  w.single("\n %s \t\t\t\t %8lu ", "Max Keepalive", c.k_cpa_abort);
  w.single("\n %s \t\t\t\t %8lu ", "ARP request", c.k_arp_req);
  w.single("\n %s \t\t\t %8lu ", "Grat. Arp reply", c.k_arp_reply);
  w.single("\n %s \t\t\t\t %8lu ", "ARP Proc err", c.k_arp_err);
  w.single("\n %s \t\t\t\t %8lu ", "ARP drops", c.k_arp_filter_drop);
  w.single("\n %s \t\t\t %8lu \n\n", "Non-RP drops", c.k_rp_filter_drop);
}

}  // namespace

void Pal_Ceal_dbg_counter_display(const DebugCounters& ctrs, CommandRunner& commands,
                                  const char* path) {
  FilePtr file(std::fopen(path, "w+e"), &std::fclose);
  if (!file) {
    commands.run("touch /usr/admin/log/.cpa_err");
    return;
  }
  ReportWriter w(file.get());
  write_pal_section(w, ctrs.dbg_ctrs);
  w.separator();
  write_ceal_section(w, ctrs.ceal_dbg_ctrs);
  w.separator();
  write_netlink_section(w, ctrs.netlink_dbg_ctrs);
  w.separator();
  write_misc_section(w, ctrs.misc_dbg_ctrs);
}

}  // namespace cpa
