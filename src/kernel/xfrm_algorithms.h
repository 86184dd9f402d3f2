// The kernel's crypto algorithm names for the RP's cipher and MAC codes.
#pragma once

#include <cstdint>

namespace cpa {

// The kernel name of encryption code `cipher` (kestrix_ce_cipher); null
// beyond the table. A code without a kernel algorithm has the empty name.
const char* kestrix_enc_algo_name(uint32_t cipher);

// The kernel name of authentication code `mac` (kestrix_ce_mac); null
// beyond the table; "no MAC" has the empty name.
const char* kestrix_auth_algo_name(uint32_t mac);

}  // namespace cpa
