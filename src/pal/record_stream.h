// The typed record stream that follows the fixed part of ACL modify, SPI
// insert and crypto flow requests, walked one record at a time. Each request
// decides what a record means; the walk only finds the records and keeps
// every read inside the received bytes and message_length.
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "wire/acl_records.h"
#include "wire/cp_dp_msg.h"
#include "wire/received_bytes.h"

namespace cpa {

// One record as received (big-endian). A kind the agent does not know
// carries no body.
struct StreamRecord {
  uint16_t kind = 0;  // host order
  size_t size = 0;    // header and body; 0 for an unknown kind
  std::optional<kestrix_crypto_ace> ace;      // kinds 1-7
  std::optional<kestrix_cdh_action> action;   // kinds 8-11
};

// What a request makes of one record: nothing to go on with the next one, or
// the status the walk ends with (CRYPTO_NO_ERR: stop here, successfully).
using RecordOutcome = std::optional<ce_status_t>;

// The record at `offset`, or nothing (after one LOG_ERR line naming `who`)
// when its header or body does not fit in `stream`.
std::optional<StreamRecord> read_stream_record(const ReceivedBytes& stream, size_t offset,
                                               const char* who);

// How a walk ended: the status of the request so far, and whether a record
// did not fit (its LOG_ERR line is then the only one the request logs).
struct StreamWalk {
  ce_status_t status = CRYPTO_NO_ERR;
  bool truncated = false;
};

// Walks the records of `req` (the PAL command from `pal_api_type` on) from
// `start` while the cursor lies before `req_buf_len` (message_length). A
// record that starts before message_length but does not fit fails the walk
// with CRYPTO_ERR_INVALID rather than being read from bytes that never
// arrived. An unknown kind is handed to `visit` for its log line and always
// fails the walk, since its size is unknown.
template <class Visit>
StreamWalk walk_record_stream(const ReceivedBytes& req, size_t start, size_t req_buf_len,
                              const char* who, Visit&& visit) {
  const ReceivedBytes stream = req.slice(0, req_buf_len);
  for (size_t offset = start; offset < req_buf_len;) {
    const std::optional<StreamRecord> record = read_stream_record(stream, offset, who);
    if (!record) return {CRYPTO_ERR_INVALID, true};
    const RecordOutcome outcome = visit(*record);
    if (record->size == 0) return {CRYPTO_ERR_INVALID};
    if (outcome) return {*outcome};
    offset += record->size;
  }
  return {};
}

// The SA handle an action record carries (its first data word), host order.
inline uint32_t action_sa(const kestrix_cdh_action& wire) {
  return ntohl(wire.data.decrypt.sa);
}

}  // namespace cpa
