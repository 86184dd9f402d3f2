// The hand-over of a waiting cipher record to the SA that names it.
#pragma once

#include <memory>

#include "state/cipher_record.h"
#include "wire/acl_records.h"

namespace cpa {

// Claims for an SA with decrypt or encrypt action `action` (host order) the
// newest record of `list` whose `ipsec_sa` is the action's `sa` and whose
// direction matches (inbound for decrypt, outbound for encrypt): it leaves
// the list and goes to `*cipher_info`. 0 when a record was claimed, 1
// otherwise (nothing changes then).
int kestrix_cipher_info_alloc_get(CipherList& list, const kestrix_cdh_action* action,
                                  std::unique_ptr<kestrix_ce_cipher_list_t>* cipher_info);

// Releases the records of `list` that waited kUnclaimedCipherSeconds or
// longer at `now_s` (one LOG_WARNING line counts them). The list is walked
// at most once a minute: `next_sweep_s` holds the time of the next walk.
void release_unclaimed(CipherList& list, int64_t now_s, int64_t& next_sweep_s);

}  // namespace cpa
