// Arbitrary PAL command bytes through the ACL record-stream walk, and the
// dump of whatever policy it built.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "diag/state_dump.h"
#include "fakes/log_capture.h"
#include "pal/acl_policy.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static cpa::test::LogCapture* log = new cpa::test::LogCapture;  // formats every line
  log->clear();
  if (size < 2) return 0;
  // The first two bytes play the header's message_length, the rest is the
  // command as received.
  const size_t message_length = static_cast<size_t>(data[0]) << 8 | data[1];
  std::unique_ptr<cpa::cpa_spd_policy_t> policy;
  const cpa::ce_status_t status =
      cpa::kestrix_alloc_set_policy(cpa::ReceivedBytes(data + 2, size - 2), message_length, &policy);
  if (status == cpa::CRYPTO_NO_ERR) {
    cpa::PolicyList list;
    cpa::insert_node_policy(list, std::move(policy));
    cpa::kestrix_dump_policy_lst(list);
  }
  return 0;
}
