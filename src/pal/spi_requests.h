// SPI insert and delete: the inbound (decrypting) SAs of a tunnel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/agent.h"
#include "wire/pal_messages.h"
#include "wire/received_bytes.h"

namespace cpa {

// Serves an SPI insert. `req` is the PAL command from `pal_api_type` on, as
// received; `len` the header's message_length, which bounds the record
// stream. `flow_id` receives the SA's flow id (host order) when there is one.
ce_status_t kestrix_proc_spi_insert_req(Agent& agent, const ReceivedBytes& req, size_t len,
                                        uint32_t& flow_id);

// Builds the inbound SA of the request for the tunnel in slot `index`,
// claims its cipher record, installs it in the kernel and keeps it at the
// head of the tunnel's inbound SAs.
ce_status_t kestrix_alloc_ins_spi_sa(Agent& agent, const ReceivedBytes& req, size_t req_buf_len,
                                     uint32_t index, uint32_t& flow_id);

// Serves an SPI delete: answers whether the tunnel exists and changes
// nothing (inbound SAs go when the RP deletes their flow).
ce_status_t kestrix_proc_spi_del_req(Agent& agent,
                                     const RequestBody<kestrix_pal_remove_spi_table_req>& req);

}  // namespace cpa
