#include "diag/state_dump.h"

#include <gtest/gtest.h>

#include "fakes/log_capture.h"

namespace cpa {
namespace {

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
