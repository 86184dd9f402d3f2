// Asking the RP for SAs: the unsolicited KESTRIX_PAL_NOTIFY_RP datagram sent
// when the kernel finds traffic of a tunnel's policy without an SA.
#pragma once

#include <cstdint>

#include "pal/rp_link.h"
#include "state/tunnel_table.h"
#include "wire/xfrm_platform.h"

namespace cpa {

// Sends the RP one notification for the tunnel in slot `index`, after the
// kernel's acquire `acq`, quoting the handle of the notify-RP action of the
// tunnel's newest policy. 0 when the datagram was handed to the socket,
// whatever the send gave; 1 when there was nothing to quote.
int kestrix_notify_rp(RpOutbox& rp, const TunnelTable& tunnels, const xfrm_user_acquire_64* acq,
                      uint32_t index);

}  // namespace cpa
