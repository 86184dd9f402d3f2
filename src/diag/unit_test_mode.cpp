#include "diag/unit_test_mode.h"

#include <cstdio>

#include "wire/cipher_info.h"

namespace cpa {
namespace {

constexpr uint8_t kEsp = 50;
constexpr uint8_t kAh = 51;

constexpr uint32_t ip4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

// The tunnel id's decimal digits read as hex, a single digit doubled:
// 2 -> 0x22, 15 -> 0x15, 98 -> 0x98.
constexpr uint32_t tag_of(int32_t id) {
  return id < 10 ? static_cast<uint32_t>(id * 0x11) : static_cast<uint32_t>(id / 10 << 4 | id % 10);
}

// Every identifier of a scenario derives from its tag T: inbound SPI
// 0xTTTT1234, inbound SA handle and outbound SPI 0x1234TTTT, outbound flow id
// 0xTTTT1234 (so the outbound SA handle mirrors the inbound one), ends
// T.T.4.5 and 3.4.T.T. AH scenarios use the same SPIs for AH.
constexpr ut_input_t scenario(int32_t id, uint8_t proto, uint16_t esp, uint16_t esp_mac, uint16_t ah,
                              uint16_t key_bits, uint64_t soft, uint64_t hard) {
  const uint32_t t = tag_of(id);
  const uint32_t inb_spi = (t << 8 | t) << 16 | 0x1234;
  const uint32_t flow = 0x1234u << 16 | t << 8 | t;
  const bool is_ah = proto != kEsp;
  return {id,     proto, esp,  esp_mac, ah,   key_bits,     ip4(t, t, 4, 5), ip4(3, 4, t, t),
          inb_spi, is_ah ? inb_spi : 0, flow, flow, is_ah ? flow : 0, inb_spi, soft, hard};
}

constexpr ut_input_t with_ends(ut_input_t s, uint32_t src, uint32_t dst) {
  s.tun_src = src;
  s.tun_dst = dst;
  return s;
}

}  // namespace

// Tunnels 2, 15 and 98 are the reference scenarios; the others follow their
// pattern (see scenario()) to cover every ESP cipher, every MAC with ESP and
// with AH, and ESP without a MAC. Tunnel 2 keeps its historic ends.
const ut_input_t ut_info[kUtScenarioCount] = {
    with_ends(scenario(2, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_SHA1, 0, 128, 20000, 20000),
              ip4(2, 3, 4, 5), ip4(3, 4, 5, 6)),
    scenario(15, kAh, 0, 0, KESTRIX_CE_HMAC_MD5, 0, 19500, 20000),
    scenario(98, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_SHA512, 0, 256, 18900, 19000),
    scenario(3, kEsp, KESTRIX_CE_DES, KESTRIX_CE_HMAC_MD5, 0, 64, 19900, 20000),
    scenario(4, kEsp, KESTRIX_CE_3DES, KESTRIX_CE_HMAC_SHA1, 0, 192, 19800, 20000),
    scenario(5, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_SHA256, 0, 128, 19700, 20000),
    scenario(6, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_SHA384, 0, 192, 19600, 20000),
    scenario(7, kEsp, KESTRIX_CE_AES, KESTRIX_CE_NO_MAC, 0, 256, 19500, 20000),
    scenario(8, kEsp, KESTRIX_CE_GCM, KESTRIX_CE_NO_MAC, 0, 128, 19400, 20000),
    scenario(9, kEsp, KESTRIX_CE_GCM, KESTRIX_CE_NO_MAC, 0, 256, 19300, 20000),
    scenario(10, kEsp, KESTRIX_CE_GMAC, KESTRIX_CE_NO_MAC, 0, 128, 19200, 20000),
    scenario(11, kEsp, KESTRIX_CE_SEAL, KESTRIX_CE_HMAC_SHA1, 0, 160, 19100, 20000),
    scenario(12, kEsp, KESTRIX_CE_3DES, KESTRIX_CE_HMAC_MD5, 0, 192, 19000, 20000),
    scenario(13, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_MD5, 0, 128, 18900, 20000),
    scenario(14, kEsp, KESTRIX_CE_DES, KESTRIX_CE_HMAC_SHA256, 0, 64, 18800, 20000),
    scenario(16, kAh, 0, 0, KESTRIX_CE_HMAC_SHA1, 0, 18700, 20000),
    scenario(17, kAh, 0, 0, KESTRIX_CE_HMAC_SHA256, 0, 18600, 20000),
    scenario(18, kAh, 0, 0, KESTRIX_CE_HMAC_SHA384, 0, 18500, 20000),
    scenario(19, kAh, 0, 0, KESTRIX_CE_HMAC_SHA512, 0, 18400, 20000),
    scenario(20, kEsp, KESTRIX_CE_AES, KESTRIX_CE_HMAC_SHA512, 0, 128, 18300, 20000),
};

int kestrix_ut_find_scenario(uint32_t tunnelid) {
  for (size_t i = 0; i < kUtScenarioCount; ++i)
    if (static_cast<uint32_t>(ut_info[i].tunnelid) == tunnelid) return static_cast<int>(i);
  ut_print("UT ERROR: No matching tunnel id found ");
  return -1;
}

uint32_t kestrix_ipsec_key_length(uint32_t cipher, uint32_t key_len) {
  switch (cipher) {
    case KESTRIX_CE_DES:
      return 8;
    case KESTRIX_CE_3DES:
      return 24;
    case KESTRIX_CE_AES:
      return key_len / 8;
    case KESTRIX_CE_SEAL:
      return 20;
    case KESTRIX_CE_GCM:
    case KESTRIX_CE_GMAC:
      return key_len / 8 + 4;  // the salt
    default:
      return 0;
  }
}

uint32_t kestrix_ipsec_hash_length(uint32_t mac) {
  static constexpr uint32_t kBytes[] = {0, 16, 20, 32, 48, 64};  // by kestrix_ce_mac
  return mac < sizeof kBytes / sizeof kBytes[0] ? kBytes[mac] : 0;
}

namespace {
UtConsole* g_console = nullptr;
}  // namespace

UtConsole* set_ut_console(UtConsole* console) {
  UtConsole* previous = g_console;
  g_console = console;
  return previous;
}

void ut_print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (g_console) {
    g_console->write(format, args);
  } else {
    std::vprintf(format, args);
    std::fflush(stdout);  // a daemon's stdout is a file or a pipe: keep lines whole and timely
  }
  va_end(args);
}

}  // namespace cpa
