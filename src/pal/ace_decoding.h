// Decoders of ACEs and packet actions from network to host byte order. They
// read copies that the caller has already taken from the received bytes.
#pragma once

#include <cstdint>

#include "wire/acl_records.h"

namespace cpa {

// 0 when decoded, 1 when a pointer is null. The IPv4 selector is decoded
// only for IPv4 ACEs; any other ACE keeps the destination's selector.
int kestrix_decode_ace(const kestrix_crypto_ace* in_ace, kestrix_crypto_ace* ace_ptr);

void kestrix_dp_decode_ace_port(kestrix_crypto_ace_port* dst, const kestrix_crypto_ace_port* src);

// Decodes an action of any kind (a policy's four action slots).
void kestrix_set_action(const kestrix_cdh_action* src_act, kestrix_cdh_action* dst_act);

// Decodes an SA's action: decrypt for KESTRIX_PAL_IN_ACTION, encrypt or
// notify-RP for KESTRIX_PAL_OUT_ACTION. 1 for any other kind or action; the
// destination's `action` is then already set.
int kestrix_action_get(uint32_t act_type, const kestrix_cdh_action* src_act,
                       kestrix_cdh_action* dst_act);

}  // namespace cpa
