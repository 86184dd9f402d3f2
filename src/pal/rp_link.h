// The request socket's RP side: receiving requests, latching the RP's address
// from the first datagram, and sending responses and notifications there.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "link/rp_allow_list.h"
#include "platform/rp_outbox.h"

namespace cpa {

inline constexpr uint16_t kPalPort = 23456;

class RpLink final : public RpOutbox {
 public:
  explicit RpLink(int fd) : fd_(fd) {}

  // Receives one datagram; the first one ever received fixes the RP address.
  // A datagram `filter` refuses reads as empty and latches nothing.
  ssize_t kestrix_pal_recvfrom(uint8_t* buf, size_t buflen, sockaddr_in* src_addr,
                               socklen_t* addrlen, RpSourceFilter& filter);
  ssize_t send_to_rp(const uint8_t* buf, size_t len) override;

  const sockaddr_in& pal_cpaddr() const { return pal_cpaddr_; }

 private:
  int fd_;
  sockaddr_in pal_cpaddr_{};  // family 0 until the first datagram
  socklen_t pal_cpaddrlen_ = sizeof(sockaddr_in);
};

}  // namespace cpa
