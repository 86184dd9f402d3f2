// The state dump of a table with a free slot, an empty tunnel and a tunnel
// holding policies (every action kind, ACEs of both directions) and SAs (with
// and without a cipher record); the expected log is in testdata.
#include "diag/state_dump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

void fill_policies(PolicyList& policies) {
  auto older = new_record<cpa_spd_policy_t>();
  older->static_seqno = 1;
  older->dynamic_seqno = 2;
  older->outbound.action = CDH_ACTION_FORWARD_PACKET;
  insert_node_policy(policies, std::move(older));

  auto newer = new_record<cpa_spd_policy_t>();
  newer->static_seqno = 3;
  newer->dynamic_seqno = 4;
  newer->inbound.action = CDH_ACTION_DECRYPT_PACKET;
  newer->inbound.data.decrypt = {0x51, 0x1000000102ull, 0x33, 0, 1, 68};
  newer->outbound.action = CDH_ACTION_DISCARD_PACKET_NOTIFY_RP;
  newer->outbound.data.notify_rp_handle = 0x77;
  newer->inbound_deny.action = 7;
  newer->outbound_deny.action = CDH_ACTION_ENCRYPT_PACKET;
  newer->outbound_deny.data.encrypt = {97, 98, 0, 1};
  auto ace = new_record<ace_netlink_t>();
  ace->k_index = 42;
  ace->dir = kAceDirOut;
  ace->ace.ip_type = crypto_ace_ipv4;
  ace->ace.type = kestrix_ace_deny_action;
  ace->ace.seqno = 5;
  ace->ace.handle = 7;
  ace->ace.selector.ipv4 = {0x0A000001, 24, 0xC0A80101, 16, 17, 0, 0, {}, {}};
  auto twin = new_record<ace_netlink_t>();
  twin->ace.selector.ipv4 = {0xC0A80101, 16, 0x0A000001, 24, 17, 0, 0, {}, {}};
  insert_node_ace(newer->ace_entry, std::move(ace));
  insert_node_ace(newer->ace_entry, std::move(twin));
  insert_node_policy(policies, std::move(newer));
}

void fill_sas(cpa_interface_t& tunnel) {
  auto cipher = new_record<kestrix_ce_cipher_list_t>();
  kestrix_ce_cipher_info& c = cipher->ce_cipher;
  c.outbound = 1;
  c.esp_used = 1;
  c.esp_spi = 0x5001;
  c.source.ip_address = 0x0A000001;
  c.dest.ip_address = 0x0A000002;
  c.soft_time_lifetime = 3600;
  c.support_dummy_packet = 1;
  auto out = new_record<cpa_outbound_sa_t>();
  out->sa = 0x100000061ull;
  out->spi = 0x5001;
  out->protocol = 50;
  out->dest_addr.ip_address = 0x0A000002;
  out->ace_index = 9;
  out->outbound.action = CDH_ACTION_ENCRYPT_PACKET;
  out->outbound.data.encrypt.sa = 0x61;
  out->sa_info = std::move(cipher);
  insert_node_out_sa(tunnel.outb_sa_list, std::move(out));
  auto in = new_record<cpa_inbound_sa_t>();
  in->sa = 0x51;
  in->spi = 0x1234;
  in->src_mask = 32;
  in->fvrf = 4;
  insert_node_inb_sa(tunnel.inb_sa_list, std::move(in));  // without a cipher record: nothing printed for it
}

TEST(StateDump, EveryTunnelWithItsPoliciesAndSas) {
  test::LogCapture log;
  TunnelTable table;
  cdh_sadbhandle h;
  table.create_alloc_sadbhdl({htonl(0xc1), htonl(0xc2), htonl(1)}, &h);
  table.create_alloc_sadbhdl({htonl(0xd1), htonl(0xd2), htonl(3)}, &h);
  table.create_alloc_sadbhdl({htonl(0xe1), htonl(0xe2), htonl(4)}, &h);
  table.kestrix_update_sadb_attr({0, 0, htonl(5), htonl(6)}, 2);
  table.kestrix_del_sadb(1);
  fill_policies(table.at(3)->head_policy);
  fill_sas(*table.at(3));
  log.clear();
  kestrix_dump_all_tunnels(table);
  EXPECT_EQ(log.transcript(), test::read_file(CPA_TESTDATA "/state_dump.txt"));
}

}  // namespace
}  // namespace cpa
