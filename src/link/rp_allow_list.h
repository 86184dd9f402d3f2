// The RP allow-list (-R): the source addresses whose PAL, CEAL and keepalive
// datagrams the agent accepts. Datagrams from elsewhere are dropped before
// they can latch the RP, be parsed or be answered.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/counters.h"
#include "platform/system_ports.h"

namespace cpa {

struct Ipv4Prefix {
  uint32_t network;  // host order, host bits cleared
  uint32_t mask;     // host order
};

// "<dotted quad>[/<0-32>]"; nothing when the text is anything else.
std::optional<Ipv4Prefix> parse_ipv4_prefix(const char* text);

class RpSourceFilter {
 public:
  // An empty list admits every sender.
  RpSourceFilter(std::vector<Ipv4Prefix> allowed, ctr32& drops, Clock& clock)
      : allowed_(std::move(allowed)), drops_(drops), clock_(clock) {}

  // Whether a datagram from `source` may be handled; a refusal is counted and
  // logged, at most one line a second. Called by the main and keepalive threads.
  bool admits(const sockaddr_in& source);

  // The start-up warning when no list was given.
  void warn_if_open() const;

 private:
  bool listed(uint32_t address) const;

  const std::vector<Ipv4Prefix> allowed_;
  ctr32& drops_;
  Clock& clock_;
  std::atomic<int64_t> next_log_second_{0};
};

// Lets sockets of the agent's own user (an RP on the same host) bind the port
// of UDP socket `fd` beside it, but no other user: SO_REUSEPORT, never SO_REUSEADDR.
void share_port_with_own_user(int fd);

}  // namespace cpa
