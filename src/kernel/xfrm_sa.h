// Kernel IPsec SAs: installing one from a cipher record, and reading or
// removing one by destination, SPI and protocol.
#pragma once

#include <cstdint>

#include "base/counters.h"
#include "kernel/netlink_transport.h"
#include "state/cipher_record.h"
#include "wire/cp_dp_msg.h"

namespace cpa {

// Installs the SA described by `sa_info`, bound to tunnel `tunid`'s SVTI
// device, with request id `reqid` (the one its policies' templates carry).
// `g_replay_window_size` is the agent's configured replay window. Counts in
// `sctr` when given. Returns 0 when the kernel accepted the SA, else a
// negative errno: -EINVAL when an algorithm code has no kernel name (nothing
// is sent), or the exchange's failure (see NetlinkTransport::send).
int kestrix_nlink_sa_add(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info,
                         uint32_t tunid, uint32_t reqid, cpa_netlink_ctr_t* sctr,
                         int g_replay_window_size);

// Reads (`del` 0) or removes (non-zero) the SA with destination `dst`, SPI
// `spi` (host order) and protocol `proto` (50 ESP, 51 AH). Only a removal
// counts in `sctr`. Returns 0 when the kernel accepted the request, else a
// negative errno.
int kestrix_nlink_sa_getordel(NetlinkTransport& nl, int del, const kestrix_addr& dst, uint32_t spi,
                              uint8_t proto, cpa_netlink_ctr_t* sctr);

}  // namespace cpa
