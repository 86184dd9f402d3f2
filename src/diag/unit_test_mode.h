// Unit-test mode's built-in scenarios (one per test tunnel id), the key
// lengths it synthesises, and the seam its console lines go through.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace cpa {

// One test tunnel: the SA parameters the RP would have negotiated for it.
// Addresses are host order.
struct ut_input_t {
  int32_t tunnelid;
  uint8_t proto;  // 50: ESP scenario; otherwise AH
  uint16_t esp_algo;      // kestrix_ce_cipher; 0: no ESP keys
  uint16_t esp_mac_algo;  // kestrix_ce_mac of ESP
  uint16_t ah_algo;       // kestrix_ce_mac of AH; 0: no AH key
  uint16_t esp_cipher_key_length;  // bits
  uint32_t tun_src;
  uint32_t tun_dst;
  uint32_t inb_spi;
  uint32_t inb_ah_spi;
  uint32_t inb_flowid;  // SA handle of the inbound SA
  uint32_t out_spi;
  uint32_t out_ah_spi;
  uint64_t out_flowid;  // its low 32 bits are the outbound SA handle
  uint64_t soft_time_lifetime;
  uint64_t hard_time_lifetime;
};

inline constexpr size_t kUtScenarioCount = 20;
extern const ut_input_t ut_info[kUtScenarioCount];

// Index in ut_info of the first scenario of `tunnelid`; without one, prints
// the UT error line and gives -1.
int kestrix_ut_find_scenario(uint32_t tunnelid);

// Bytes of a synthesised key: cipher key (`key_len` in bits) and MAC key.
uint32_t kestrix_ipsec_key_length(uint32_t cipher, uint32_t key_len);
uint32_t kestrix_ipsec_hash_length(uint32_t mac);

// Where unit-test mode's console lines go: standard output, or the sink a
// test installs.
class UtConsole {
 public:
  virtual ~UtConsole() = default;
  virtual void write(const char* format, va_list args) = 0;
};

void ut_print(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Installs `console` (null restores standard output) and returns the previous one.
UtConsole* set_ut_console(UtConsole* console);

}  // namespace cpa
