#include "diag/state_dump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <vector>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

TEST(StateDump, TunnelWithNothingAttached) {
  test::LogCapture log;
  TunnelTable table;
  cdh_sadbhandle h;
  table.create_alloc_sadbhdl({htonl(0xc1), htonl(0xc2), htonl(1)}, &h);
  table.create_alloc_sadbhdl({htonl(0xd1), htonl(0xd2), htonl(3)}, &h);
  table.kestrix_update_sadb_attr({0, 0, htonl(5), htonl(6)}, 2);
  table.kestrix_del_sadb(1);
  log.clear();
  kestrix_dump_all_tunnels(table);
  const std::vector<test::LogLine> expected = {
      {LOG_DEBUG, "[0]CPA_INTERFACE_DUMP[0]"},  // the first tunnel dumped; slot 1 is free
      {LOG_DEBUG, "SADBHANDLE [2] REQID [2] TUNNELID [-1]"},
      {LOG_DEBUG, "CALLBACK_HANDLLE [0xd1], CREATE_HANDLE [0xd2], CMD_STATE [0], HINT [3]"},
      {LOG_DEBUG, "ATTRIBUTE [83886080], VALUE [100663296] IS_V6 [0]"},
      {LOG_INFO, ">>>KESTRIX POLICIES BEGIN<<<"},
      {LOG_DEBUG, "NO policy in list to display!"},
      {LOG_INFO, ">>>KESTRIX POLICIES END<<<"},
      {LOG_INFO, ">>>KESTRIX INBOUND SAs BEGIN<<<"},
      {LOG_DEBUG, "No Inbound SAs in list to display!"},
      {LOG_INFO, ">>>KESTRIX INBOUND SAs END<<<"},
      {LOG_INFO, ">>>KESTRIX OUTBOUND SAs BEGIN<<<"},
      {LOG_DEBUG, "No Outbound SAs in list to display!"},
      {LOG_INFO, ">>>KESTRIX OUTBOUND SAs END<<<"},
  };
  EXPECT_EQ(log.lines(), expected);
}

constexpr int D = LOG_DEBUG;
constexpr int I = LOG_INFO;

TEST(StateDump, PoliciesWithTheirActionsAndAces) {
  PolicyList policies;
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

  test::LogCapture log;
  kestrix_dump_policy_lst(policies);
  EXPECT_EQ(
      log.lines(),
      std::vector<test::LogLine>({
          {I, "***POLICY 0:"},
          {D, "STATIC_SEQNO [3] DYNAMIC_SEQNO [4] "},
          {I, "INBOUND action:"},
          {D, "action: DECRYPT_PACKET"},
          {D, "decrypt sa [0x51] post_decrypt_check [0x102]  post_decrypt_ivrf [0x33]reinject [1] "
              "tunnel_id [68]"},
          {I, "OUTBOUND action:"},
          {D, "action: DISCARD_PACKET_NOTIFY_RP"},
          {D, "notify_rp_handle [0x77]"},
          {I, "INBOUND_DENY action:"},
          {LOG_ERR, "action: INVALID"},
          {I, "OUTBOUND_DENY action:"},
          {D, "action: ENCRYPT_PACKET"},
          {D, "encrypt.sa [97], encrypt.post_encrypt_fvrf [98], dummy_generate [1] "},
          {I, "    KESTRIX ACES BEGIN"},
          {I, "calling ace dump routne!"},
          {I, "Kernel Index [0], direction [IN](0)"},
          {D, "IP_TYPE [0] TYPE [0] seqno [0] reverse [0] handle [0] hint [0]\n"},
          {D, "ACE: ip_type 0, type 0, seqno 0, reverse 0,handle 0, hint 0, ip4_local_addr "
              "0xc0a80101 \n ip4_local_mask 16, ip4_rem_addr 0xa000001, ip4_rem_mask 24, protocol "
              "17, any_port 0"},
          {I, "calling ace dump routne!"},
          {I, "Kernel Index [42], direction [OUT](1)"},
          {D, "IP_TYPE [4] TYPE [2] seqno [5] reverse [0] handle [7] hint [0]\n"},
          {D, "local_addr4 [010.000.000.001], local_mask4 [24], remote_addr4 [192.168.001.001], "
              "remote_mask4 [16]\nprotocol [17], any_port [0]"},
          {D, "ACE: ip_type 4, type 2, seqno 5, reverse 0,handle 7, hint 0, ip4_local_addr "
              "0xa000001 \n ip4_local_mask 24, ip4_rem_addr 0xc0a80101, ip4_rem_mask 16, protocol "
              "17, any_port 0"},
          {I, "    KESTRIX ACES END"},
          {I, "***POLICY 1:"},
          {D, "STATIC_SEQNO [1] DYNAMIC_SEQNO [2] "},
          {I, "INBOUND action:"},
          {D, "action: DISCARD_PACKET"},
          {I, "OUTBOUND action:"},
          {D, "action: FORWARD_PACKET"},
          {I, "INBOUND_DENY action:"},
          {D, "action: DISCARD_PACKET"},
          {I, "OUTBOUND_DENY action:"},
          {D, "action: DISCARD_PACKET"},
          {I, "    KESTRIX ACES BEGIN"},
          {D, "NO ace in list to display!"},
          {I, "    KESTRIX ACES END"},
      }));
}


TEST(StateDump, SasWithTheirActionsAndCipherRecords) {
  auto cipher = new_record<kestrix_ce_cipher_list_t>();
  kestrix_ce_cipher_info& c = cipher->ce_cipher;
  c.outbound = 1;
  c.esp_used = 1;
  c.esp_spi = 0x5001;
  c.source.ip_address = 0x0A000001;
  c.dest.ip_address = 0x0A000002;
  c.soft_time_lifetime = 3600;
  c.support_dummy_packet = 1;
  OutboundSaList outbound;
  auto out = new_record<cpa_outbound_sa_t>();
  out->sa = 0x100000061ull;
  out->spi = 0x5001;
  out->protocol = 50;
  out->dest_addr.ip_address = 0x0A000002;
  out->ace_index = 9;
  out->outbound.action = CDH_ACTION_ENCRYPT_PACKET;
  out->outbound.data.encrypt.sa = 0x61;
  out->sa_info = std::move(cipher);
  insert_node_out_sa(outbound, std::move(out));
  InboundSaList inbound;
  auto in = new_record<cpa_inbound_sa_t>();
  in->sa = 0x51;
  in->spi = 0x1234;
  in->src_mask = 32;
  in->fvrf = 4;
  insert_node_inb_sa(inbound, std::move(in));  // without a cipher record: nothing printed for it

  test::LogCapture log;
  kestrix_dump_inb_sa_lst(inbound);
  kestrix_dump_outb_sa_lst(outbound);
  EXPECT_EQ(
      log.lines(),
      std::vector<test::LogLine>({
          {I, "***INBOUND SA:"},
          {D, "\n spi [0x1234], protocol [0], dest_addr [000.000.000.000], src_addr [000.000.000.000] "
              "ipsec_sa [51] \nsrc_mask [32] dest_mask [0], static_seqno [0], dyn_seq_no [0]\nfvrf [4], "
              "ace_index [0]"},
          {D, "INBOUND action:"},
          {D, "action: DISCARD_PACKET"},
          {I, "***OUTBOUND SA:"},
          {D, "\nspi [0x5001], protocol [50], dest_addr [010.000.000.002], src_addr [000.000.000.000] "
              "sa [97]\nstatic_seqno [0], dyn_seq_no [0], ivrf [0], ace_index [9]\n"},
          {D, "INBOUND action:"},
          {D, "action: DISCARD_PACKET"},
          {D, "OUTBOUND action:"},
          {D, "action: ENCRYPT_PACKET"},
          {D, "encrypt.sa [97], encrypt.post_encrypt_fvrf [0], dummy_generate [0] "},
          {D, "\noutbound [1], esp_used [1],\nesp_cipher [0], esp_cipher_key_length [0],\n"
              "esp_mac [0], esp_spi [0x5001],\nah_used [0], ah_mac [0],\nah_spi [0x0], ippcp_used [0],\n"
              "cpi [0], antireplay_window_size [0],\nsource [010.000.000.001], dest [010.000.000.002],\n"
              "preserve_header [0], tunnel_id [0],\nmode [0], inner_format [0],\n"
              "outer_format [0], ipv4_df_setting [0],\nipv6_flow_label [0], do_antireplay_check [0],\n"
              "extended_sequence_number [0], replay_enabled [0],\n"
              "tunnel_mode [0], ipsec_inline_tagging_enabled [0],\nudp_encaps [0], udp_source_port [0],\n"
              "udp_dest_port [0], orig_remote_ip_addr [000.000.000.000],\nctcp_encaps [0], standby [0],\n"
              "peer_handle [0], soft_time_lifetime [3600],\nhard_time_lifetime [0], soft_volume_lifetime [0],\n"
              "hard_volume_lifetime [0], negotiated_lifetime [0],\nsa_handle [0], prefrag_setting [0],\n"
              "initial_mtu [0], plaintext_mtu [0],\ncmd_handle [0], qos_group [0],\n"
              "qos_preclassify [0], HA_ipsec_update_interval [0],\n"
              "gcm_iv_low_value [0], gcm_iv_high_value [0],\n"
              "gcm_iv_warning_count [0], transform_negotiated_flags [0],\nsupport_dummy_packet [1]"},
      }));
}

}  // namespace
}  // namespace cpa
