#include "kernel/xfrm_algorithms.h"

#include "base/log.h"
#include "wire/cipher_info.h"

namespace cpa {
namespace {

struct AlgoName {
  uint32_t value;
  const char* name;
};

const AlgoName enc_algo[] = {
    {KESTRIX_CE_NO_CIPHER, "cipher_null"},
    {KESTRIX_CE_DES, "des"},
    {KESTRIX_CE_3DES, "des3_ede"},
    {KESTRIX_CE_AES, "cbc(aes)"},
    {KESTRIX_CE_SEAL, ""},
    {KESTRIX_CE_GCM, "rfc4106(gcm(aes))"},
    {KESTRIX_CE_GMAC, "rfc4543(gcm(aes))"},
};

const AlgoName auth_algo[] = {
    {KESTRIX_CE_NO_MAC, ""},
    {KESTRIX_CE_HMAC_MD5, "md5"},
    {KESTRIX_CE_HMAC_SHA1, "hmac(sha1)"},
    {KESTRIX_CE_HMAC_SHA256, "sha256"},
    {KESTRIX_CE_HMAC_SHA384, "sha384"},
    {KESTRIX_CE_HMAC_SHA512, "sha512"},
};

template <size_t N>
const char* lookup(const AlgoName (&table)[N], uint32_t value, const char* log_format) {
  for (const AlgoName& row : table) {
    if (row.value == value) {
      cpa_log(LOG_DEBUG, log_format, row.name);
      return row.name;
    }
  }
  return nullptr;
}

}  // namespace

const char* kestrix_enc_algo_name(uint32_t cipher) {
  return lookup(enc_algo, cipher, "Cipher Algo: %s");
}

const char* kestrix_auth_algo_name(uint32_t mac) { return lookup(auth_algo, mac, "Auth Algo: %s"); }

}  // namespace cpa
