#include "pal/record_stream.h"

#include "base/log.h"

namespace cpa {
namespace {

std::optional<StreamRecord> truncated_record(const ReceivedBytes& stream, size_t offset,
                                             const char* who) {
  cpa_log(LOG_ERR, "%s: record at offset %zu passes the end of the PAL req (%zu bytes)", who,
          offset, stream.size());
  return std::nullopt;
}

}  // namespace

std::optional<StreamRecord> read_stream_record(const ReceivedBytes& stream, size_t offset,
                                               const char* who) {
  const auto header = stream.read<kestrix_acl_actions>(offset);
  if (!header) return truncated_record(stream, offset, who);
  StreamRecord record;
  record.kind = ntohs(header->kestrix_acl_type);
  const size_t body = offset + sizeof(kestrix_acl_actions);
  if (record.kind >= KESTRIX_PAL_ACE_ACL_DESC && record.kind < KESTRIX_PAL_IN_ACTION) {
    record.ace = stream.read<kestrix_crypto_ace>(body);
    if (!record.ace) return truncated_record(stream, offset, who);
    record.size = kAceRecordSize;
  } else if (record.kind >= KESTRIX_PAL_IN_ACTION && record.kind <= KESTRIX_PAL_OUT_DENY_ACTION) {
    record.action = stream.read<kestrix_cdh_action>(body);
    if (!record.action) return truncated_record(stream, offset, who);
    record.size = kActionRecordSize;
  }
  return record;
}

}  // namespace cpa
