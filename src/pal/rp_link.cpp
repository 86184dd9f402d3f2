#include "pal/rp_link.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace cpa {

ssize_t RpLink::kestrix_pal_recvfrom(uint8_t* buf, size_t buflen, sockaddr_in* src_addr,
                                     socklen_t* addrlen, RpSourceFilter& filter) {
  if (fd_ < 0) {
    cpa_log(LOG_DEBUG, "fd can not be < 0");
    return -1;
  }
  const ssize_t n =
      recvfrom(fd_, buf, buflen, 0, reinterpret_cast<sockaddr*>(src_addr), addrlen);
  if (n < 0) {
    cpa_log(LOG_ERR, "recvfrom() error, reason: %s", std::strerror(errno));
    return n;
  }
  if (!filter.admits(*src_addr)) return 0;
  // Responses always go to the first sender's address at the PAL port,
  // never to the port a request came from.
  if (pal_cpaddr_.sin_family == 0) {
    pal_cpaddr_.sin_family = AF_INET;
    pal_cpaddr_.sin_port = htons(kPalPort);
    pal_cpaddr_.sin_addr = src_addr->sin_addr;
    pal_cpaddrlen_ = *addrlen;
  }
  return n;
}

ssize_t RpLink::send_to_rp(const uint8_t* buf, size_t len) {
  return sendto(fd_, buf, len, 0, reinterpret_cast<const sockaddr*>(&pal_cpaddr_),
                pal_cpaddrlen_);
}

}  // namespace cpa
