#include "link/rp_allow_list.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fakes/fake_system.h"
#include "fakes/log_capture.h"

namespace cpa {
namespace {

sockaddr_in from(const char* address) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  inet_pton(AF_INET, address, &a.sin_addr);
  return a;
}

TEST(RpAllowList, ParsesOnlyAnAddressWithAnOptionalLength) {
  const struct {
    const char* text;
    bool valid;
    uint32_t network, mask;
  } cases[] = {
      {"10.1.2.3", true, 0x0A010203, 0xFFFFFFFF},   {"10.1.2.3/8", true, 0x0A000000, 0xFF000000},
      {"10.1.2.3/0", true, 0, 0},                   {"::1", false, 0, 0},
      {"10.1.2.3/33", false, 0, 0},                 {"10.1.2.3/", false, 0, 0},
      {"10.1.2.3/-1", false, 0, 0},                 {"10.1.2.3/8x", false, 0, 0},
      {"10.1.2.3/008", false, 0, 0},                {"10.1.2", false, 0, 0},
      {"", false, 0, 0},
  };
  for (const auto& c : cases) {
    const std::optional<Ipv4Prefix> p = parse_ipv4_prefix(c.text);
    ASSERT_EQ(p.has_value(), c.valid) << c.text;
    const Ipv4Prefix got = p.value_or(Ipv4Prefix{0, 0});
    EXPECT_EQ((std::pair{got.network, got.mask}), (std::pair{c.network, c.mask})) << c.text;
  }
}

TEST(RpAllowList, AdmitsListedSendersAndCountsAndRateLimitsTheDrops) {
  test::LogCapture log;
  test::FakeClock clock;
  ctr32 drops;
  RpSourceFilter filter({*parse_ipv4_prefix("10.0.0.0/8"), *parse_ipv4_prefix("192.168.1.7")}, drops, clock);
  for (const char* ok : {"10.0.0.0", "10.255.255.255", "192.168.1.7"}) EXPECT_TRUE(filter.admits(from(ok))) << ok;
  for (const char* refused : {"11.0.0.1", "192.168.1.8", "9.255.255.255", "192.168.1.8"})
    EXPECT_FALSE(filter.admits(from(refused))) << refused;
  clock.now.tv_sec += 1;
  EXPECT_FALSE(filter.admits(from("0.0.0.0")));
  EXPECT_EQ(drops, 5u);
  EXPECT_EQ(log.lines(), (std::vector<test::LogLine>{
                             {LOG_WARNING, "Dropped a datagram from 11.0.0.1, not an allowed RP address (1 dropped)"},
                             {LOG_WARNING, "Dropped a datagram from 0.0.0.0, not an allowed RP address (5 dropped)"}}));
}

}  // namespace
}  // namespace cpa
