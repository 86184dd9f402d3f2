#include "link/rp_allow_list.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/log.h"

namespace cpa {
namespace {

std::optional<uint32_t> prefix_length(const char* text) {
  if (*text < '0' || *text > '9' || std::strlen(text) > 2) return std::nullopt;
  char* end = nullptr;
  const unsigned long length = std::strtoul(text, &end, 10);
  if (*end != '\0' || length > 32) return std::nullopt;
  return static_cast<uint32_t>(length);
}

}  // namespace

std::optional<Ipv4Prefix> parse_ipv4_prefix(const char* text) {
  const char* slash = std::strchr(text, '/');
  const std::string address(text, slash ? static_cast<size_t>(slash - text) : std::strlen(text));
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return std::nullopt;
  const std::optional<uint32_t> length = slash ? prefix_length(slash + 1) : 32;
  if (!length) return std::nullopt;
  const uint32_t mask = *length == 0 ? 0 : ~uint32_t{0} << (32 - *length);
  return Ipv4Prefix{ntohl(parsed.s_addr) & mask, mask};
}

bool RpSourceFilter::listed(uint32_t address) const {
  for (const Ipv4Prefix& p : allowed_)
    if ((address & p.mask) == p.network) return true;
  return false;
}

bool RpSourceFilter::admits(const sockaddr_in& source) {
  if (allowed_.empty() || listed(ntohl(source.sin_addr.s_addr))) return true;
  ++drops_;
  const int64_t now = clock_.monotonic_now().tv_sec;
  int64_t due = next_log_second_.load(std::memory_order_relaxed);
  if (now >= due && next_log_second_.compare_exchange_strong(due, now + 1)) {
    char from[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &source.sin_addr, from, sizeof from);
    cpa_log(LOG_WARNING, "Dropped a datagram from %s, not an allowed RP address (%u dropped)",
            from, static_cast<uint32_t>(drops_));
  }
  return false;
}

void RpSourceFilter::warn_if_open() const {
  if (allowed_.empty())
    cpa_log(LOG_WARNING, "No RP allow-list (-R): any sender can drive the agent");
}

void share_port_with_own_user(int fd) {
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) < 0)
    cpa_log(LOG_ERR, "setsockopt() error, reason: %s", std::strerror(errno));
}

}  // namespace cpa
