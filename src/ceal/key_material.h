// Key material: a CREATE_KEY_BY_KEYS request becomes one cipher record on
// the agent's cipher_info_list, where it waits for the SA that claims it.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/agent.h"
#include "state/cipher_record.h"
#include "wire/ceal_key_requests.h"
#include "wire/received_bytes.h"

namespace cpa {

// Network to host order, field by field; the fields the agent never uses
// (the IPv6 parts of addresses, the time-based replay check, the GCM IVs)
// are left as `dest` had them.
void kestrix_ceal_decode_cipher_info(const kestrix_ce_cipher_info& src, kestrix_ce_cipher_info& dest);

// The key area's length: message_length counts the 277-byte command too.
uint16_t ceal_key_len(uint16_t message_length);

// Stores the key TLVs of `key_area` (the received bytes from the key area's
// start) into `cipher`, reading at most `ceal_key_len` bytes. True when the
// keys ended right after the ESP cipher key although an ESP MAC is configured.
bool kestrix_ceal_fetch_keyinfo(ReceivedBytes key_area, kestrix_ce_cipher_list_t& cipher,
                                uint16_t ceal_key_len);

// CEAL body handler of CREATE_KEY_BY_KEYS.
int ceal_create_key_by_keys(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response);

}  // namespace cpa
