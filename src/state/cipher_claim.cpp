#include "state/cipher_claim.h"

#include "base/log.h"

namespace cpa {
namespace {

// Why an action of another kind cannot claim key material.
const char* refusal(uint32_t action) {
  switch (action) {
    case CDH_ACTION_DISCARD_PACKET:
      return "Discard packet";
    case CDH_ACTION_DISCARD_PACKET_NOTIFY_RP:
      return "Discard Notify RP packet";
    case CDH_ACTION_FORWARD_PACKET:
      return "Discard forward packet";
    default:
      return "Wrong action type";
  }
}

}  // namespace

int kestrix_cipher_info_alloc_get(CipherList& list, const kestrix_cdh_action* action,
                                  std::unique_ptr<kestrix_ce_cipher_list_t>* cipher_info) {
  if (!action || !cipher_info) {
    cpa_log(LOG_DEBUG, "Null action or cipher info");
    return 1;
  }
  const uint32_t sa = action->data.decrypt.sa;  // the same word for encrypt
  const bool decrypt = action->action == CDH_ACTION_DECRYPT_PACKET;
  const bool encrypt = action->action == CDH_ACTION_ENCRYPT_PACKET;
  if (decrypt) cpa_log(LOG_DEBUG, "ALLOC CIPHER: Look for DECRYPT sa[0x%x]", sa);
  if (encrypt) cpa_log(LOG_DEBUG, "ALLOC CIPHER:Look for ENCRYPT sa[0x%x]", sa);
  if (list.empty()) return 1;
  if (!decrypt && !encrypt) {
    cpa_log(LOG_ERR, "%s", refusal(action->action));
    return 1;
  }
  for (const kestrix_ce_cipher_list_t& record : list) {
    if (record.ipsec_sa != sa || (record.ce_cipher.outbound != 0) != encrypt) continue;
    *cipher_info = list.unlink_node(&record);
    return 0;
  }
  return 1;
}

void release_unclaimed(CipherList& list, int64_t now_s, int64_t& next_sweep_s) {
  if (now_s < next_sweep_s) return;
  next_sweep_s = now_s + 60;
  const size_t released = list.release_if([now_s](const kestrix_ce_cipher_list_t& record) {
    return now_s - record.waiting_since >= kUnclaimedCipherSeconds;
  });
  if (released)
    cpa_log(LOG_WARNING, "Released %zu cipher records no SA claimed within %lld s", released,
            static_cast<long long>(kUnclaimedCipherSeconds));
}

}  // namespace cpa
