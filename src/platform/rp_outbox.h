// Where the agent's datagrams to the RP go: a seam like the clock, so that
// every layer that answers or notifies the RP reaches it without knowing the
// socket. The request socket implements it; tests substitute a recorder.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace cpa {

class RpOutbox {
 public:
  virtual ~RpOutbox() = default;
  // Sends one datagram to the latched RP address; returns what sendto returns.
  virtual ssize_t send_to_rp(const uint8_t* buf, size_t len) = 0;
};

// Sends a response; 0 when sent, 1 otherwise (logged).
int kestrix_pal_send_response(RpOutbox& rp, const uint8_t* buf, uint16_t buflen);

}  // namespace cpa
