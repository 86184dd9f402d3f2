#include "diag/state_dump.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

TEST(StateDump, TunnelWithNothingAttached) {
  test::LogCapture log;
  TunnelTable table;
  cdh_sadbhandle h;
  table.create_alloc_sadbhdl({htonl(0xc1), htonl(0xc2), htonl(1)}, &h);
  table.create_alloc_sadbhdl({htonl(0xd1), htonl(0xd2), 0}, &h);
  table.kestrix_update_sadb_attr({0, 0, htonl(5), htonl(6)}, 2);
  log.clear();
  kestrix_dump_all_tunnels(table);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 26u);
  const std::vector<test::LogLine> second(lines.begin() + 13, lines.end());
  const std::vector<test::LogLine> expected = {
      {LOG_DEBUG, "[1]CPA_INTERFACE_DUMP[1]"},
      {LOG_DEBUG, "SADBHANDLE [2] REQID [2] TUNNELID [-1]"},
      {LOG_DEBUG, "CALLBACK_HANDLLE [0xd1], CREATE_HANDLE [0xd2], CMD_STATE [0], HINT [0]"},
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
  EXPECT_EQ(second, expected);
  EXPECT_EQ(lines[0].text, "[0]CPA_INTERFACE_DUMP[0]");
}

TEST(PeerDump, PrintsEveryFieldAsStored) {
  test::LogCapture log;
  kestrix_dump_cpa_peer_params(nullptr);
  cdh_peer_parameters peer{1, 30, 0x77, 1, 5, 0x88, 0, 8080, 4500};
  kestrix_dump_cpa_peer_params(&peer);
  const std::vector<test::LogLine> expected = {
      {LOG_DEBUG, "NULL peer!"},
      {LOG_DEBUG,
       "do_idle_timer [1], idle_timer_settings [30], idle_timer_handle [119]\ndo_dpd [1], "
       "dpd_threshold [5], dpd_handle [136], do_translation [0]\ninside_remort_port [8080], "
       "outside_remote_port [4500]"},
  };
  EXPECT_EQ(log.lines(), expected);
}

}  // namespace
}  // namespace cpa
