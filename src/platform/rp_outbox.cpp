#include "platform/rp_outbox.h"

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace cpa {

int kestrix_pal_send_response(RpOutbox& rp, const uint8_t* buf, uint16_t buflen) {
  if (!buf) {
    cpa_log(LOG_DEBUG, "Null buf");
    return 1;
  }
  if (rp.send_to_rp(buf, buflen) < 0) {
    cpa_log(LOG_ERR, "sendto() error, reason: %s", std::strerror(errno));
    return 1;
  }
  return 0;
}

}  // namespace cpa
