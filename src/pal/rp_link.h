// The request socket's RP side: receiving requests, latching the RP's address
// from the first datagram, and sending responses and notifications there.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace cpa {

inline constexpr uint16_t kPalPort = 23456;

// Where the agent's datagrams to the RP go. Tests substitute a recorder.
class RpOutbox {
 public:
  virtual ~RpOutbox() = default;
  // Sends one datagram to the latched RP address; returns what sendto returns.
  virtual ssize_t send_to_rp(const uint8_t* buf, size_t len) = 0;
};

// Sends a response; 0 when sent, 1 otherwise (logged).
int kestrix_pal_send_response(RpOutbox& rp, const uint8_t* buf, uint16_t buflen);

class RpLink final : public RpOutbox {
 public:
  explicit RpLink(int fd) : fd_(fd) {}

  // Receives one datagram; the first one ever received fixes the RP address.
  ssize_t kestrix_pal_recvfrom(uint8_t* buf, size_t buflen, sockaddr_in* src_addr,
                               socklen_t* addrlen);
  ssize_t send_to_rp(const uint8_t* buf, size_t len) override;

  const sockaddr_in& pal_cpaddr() const { return pal_cpaddr_; }

 private:
  int fd_;
  sockaddr_in pal_cpaddr_{};  // family 0 until the first datagram
  socklen_t pal_cpaddrlen_ = sizeof(sockaddr_in);
};

}  // namespace cpa
