// PAL commands: the command numbers and the fixed request and response bodies.
// Bodies start at datagram offset 6 (after the header and `pal_api_type`);
// every multi-byte field is big-endian on the wire and stays so in these
// structs: handlers convert with ntohl/ntohs where they use a field.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/cp_dp_msg.h"

namespace cpa {

enum pal_cmd_type_ : uint16_t {
  KESTRIX_PAL_CMD_INVALID = 0,
  KESTRIX_PAL_SADB_INIT_START = 1,
  KESTRIX_PAL_SADB_INIT_COMPLETED = 2,
  KESTRIX_PAL_SADB_DELETE = 3,
  KESTRIX_PAL_SADB_ATTR_UPDATE = 4,
  KESTRIX_PAL_SADB_INTF_ATTACH = 5,
  KESTRIX_PAL_SADB_INTF_UPDATE = 6,
  KESTRIX_PAL_SADB_INTF_DETACH = 7,
  KESTRIX_PAL_ACL_INSERT = 8,
  KESTRIX_PAL_ACL_MODIFY = 9,
  KESTRIX_PAL_ACL_DELETE = 10,
  KESTRIX_LAST_PAL_POLICY_CMD = 10,
  KESTRIX_PAL_PEER_INSERT = 11,
  KESTRIX_PAL_PEER_DELETE = 12,
  KESTRIX_PAL_SPI_INSERT = 13,
  KESTRIX_PAL_SPI_DELETE = 14,
  KESTRIX_PAL_CFLOW_INSERT = 15,
  KESTRIX_PAL_CFLOW_MODIFY = 16,
  KESTRIX_PAL_CFLOW_DELETE = 17,
  KESTRIX_PAL_IPSEC_SA_DELETE = 18,
  KESTRIX_PAL_TBAR_CREATE = 19,
  KESTRIX_PAL_TBAR_UPDATE = 20,
  KESTRIX_PAL_NOTIFY_RP = 21,
  KESTRIX_PAL_NOTIFY_SA_LIFE = 22,
  KESTRIX_PAL_NOTIFY_SA_DEAD = 23,
  KESTRIX_PAL_NOTIFY_IDLE_TIME = 24,
  KESTRIX_PAL_NOTIFY_DPD_TIME = 25,
  NUM_PAL_CMD = 26,
};

// Where things sit in a PAL datagram.
inline constexpr size_t kPalCommandOffset = 4;  // `pal_api_type`
inline constexpr size_t kPalBodyOffset = 6;     // request or response body
inline constexpr size_t kPalUnionSize = 80;     // largest request/response body
inline constexpr size_t kPalMaxResponse = kPalBodyOffset + kPalUnionSize;

// ---- SADB lifecycle -------------------------------------------------------

enum crypto_sadb_hint_t : uint32_t {
  CRYPTO_SADB_HINT_VTI = 0,
  CRYPTO_SADB_HINT_TP = 1,
  CRYPTO_SADB_HINT_GENERAL = 2,
};

struct __attribute__((packed)) kestrix_pal_initialize_start_req {
  uint32_t callback_handle;
  uint32_t create_handle;
  uint32_t hint;
};
static_assert(sizeof(kestrix_pal_initialize_start_req) == 12);
static_assert(offsetof(kestrix_pal_initialize_start_req, create_handle) == 4);
static_assert(offsetof(kestrix_pal_initialize_start_req, hint) == 8);

struct __attribute__((packed)) kestrix_pal_sadb_handles_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
};
static_assert(sizeof(kestrix_pal_sadb_handles_req) == 8);
static_assert(offsetof(kestrix_pal_sadb_handles_req, sadbhandle) == 4);
using kestrix_pal_initialize_completed_req = kestrix_pal_sadb_handles_req;
using kestrix_pal_delete_sadb_req = kestrix_pal_sadb_handles_req;

struct __attribute__((packed)) kestrix_pal_update_sadb_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t attribute;  // kept as received
  uint32_t value;      // kept as received
};
static_assert(sizeof(kestrix_pal_update_sadb_req) == 16);
static_assert(offsetof(kestrix_pal_update_sadb_req, sadbhandle) == 4);
static_assert(offsetof(kestrix_pal_update_sadb_req, attribute) == 8);
static_assert(offsetof(kestrix_pal_update_sadb_req, value) == 12);

// ---- interface attach -----------------------------------------------------

struct __attribute__((packed)) kestrix_pal_attach_sadb_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;  // 0 asks for a detach
  uint32_t tunnel_id;
  uint32_t is_v6;
};
static_assert(sizeof(kestrix_pal_attach_sadb_req) == 16);
static_assert(offsetof(kestrix_pal_attach_sadb_req, sadbhandle) == 4);
static_assert(offsetof(kestrix_pal_attach_sadb_req, tunnel_id) == 8);
static_assert(offsetof(kestrix_pal_attach_sadb_req, is_v6) == 12);

// ---- peers ----------------------------------------------------------------

struct __attribute__((packed)) kestrix_pal_peer_params_wire {
  uint32_t do_idle_timer;
  uint32_t idle_timer_setting;
  uint32_t idle_timer_handle;
  uint32_t do_dpd;
  uint32_t dpd_threshold;
  uint32_t dpd_handle;
  uint32_t do_translation;
  uint16_t inside_remote_port;
  uint16_t outside_remote_port;
};
static_assert(sizeof(kestrix_pal_peer_params_wire) == 32);
static_assert(offsetof(kestrix_pal_peer_params_wire, idle_timer_setting) == 4);
static_assert(offsetof(kestrix_pal_peer_params_wire, idle_timer_handle) == 8);
static_assert(offsetof(kestrix_pal_peer_params_wire, do_dpd) == 12);
static_assert(offsetof(kestrix_pal_peer_params_wire, dpd_threshold) == 16);
static_assert(offsetof(kestrix_pal_peer_params_wire, dpd_handle) == 20);
static_assert(offsetof(kestrix_pal_peer_params_wire, do_translation) == 24);
static_assert(offsetof(kestrix_pal_peer_params_wire, inside_remote_port) == 28);
static_assert(offsetof(kestrix_pal_peer_params_wire, outside_remote_port) == 30);

struct __attribute__((packed)) kestrix_pal_insert_peer_req {
  uint32_t callback_handle;
  uint32_t create_handle;
  uint32_t peer_handle;
  uint32_t sadbhandle;
  kestrix_pal_peer_params_wire params;
};
static_assert(sizeof(kestrix_pal_insert_peer_req) == 48);
static_assert(offsetof(kestrix_pal_insert_peer_req, create_handle) == 4);
static_assert(offsetof(kestrix_pal_insert_peer_req, peer_handle) == 8);
static_assert(offsetof(kestrix_pal_insert_peer_req, sadbhandle) == 12);
static_assert(offsetof(kestrix_pal_insert_peer_req, params) == 16);

struct __attribute__((packed)) kestrix_pal_delete_peer_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t peer_handle;
};
static_assert(sizeof(kestrix_pal_delete_peer_req) == 12);
static_assert(offsetof(kestrix_pal_delete_peer_req, sadbhandle) == 4);
static_assert(offsetof(kestrix_pal_delete_peer_req, peer_handle) == 8);

// ---- ACL modify: fixed part (the record stream follows it) ----------------

struct __attribute__((packed)) kestrix_crypto_map_update_descriptor {
  uint32_t what_changed;  // crypto_map_update_action
  uint64_t acl;
  uint64_t ace;
  uint64_t delete_ace;
  uint16_t ivrf;
  uint32_t num_old_ace_entries;
};
static_assert(sizeof(kestrix_crypto_map_update_descriptor) == 34);
static_assert(offsetof(kestrix_crypto_map_update_descriptor, acl) == 4);
static_assert(offsetof(kestrix_crypto_map_update_descriptor, ace) == 12);
static_assert(offsetof(kestrix_crypto_map_update_descriptor, delete_ace) == 20);
static_assert(offsetof(kestrix_crypto_map_update_descriptor, ivrf) == 28);
static_assert(offsetof(kestrix_crypto_map_update_descriptor, num_old_ace_entries) == 30);

struct __attribute__((packed)) kestrix_pal_acl_update_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t static_seqno;
  uint32_t dyn_seqno;
  kestrix_crypto_map_update_descriptor desc;
};
static_assert(sizeof(kestrix_pal_acl_update_req) == 50);
static_assert(offsetof(kestrix_pal_acl_update_req, sadbhandle) == 4);
static_assert(offsetof(kestrix_pal_acl_update_req, static_seqno) == 8);
static_assert(offsetof(kestrix_pal_acl_update_req, dyn_seqno) == 12);
static_assert(offsetof(kestrix_pal_acl_update_req, desc) == 16);

// ---- SPI insert/delete ----------------------------------------------------

struct __attribute__((packed)) kestrix_pal_insert_spi_table_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t spi;
  uint8_t protocol;
  uint16_t fvrf;
  kestrix_addr dest_addr;
  uint32_t dest_mask;
  kestrix_addr src_addr;
  uint32_t src_mask;
  uint32_t static_seqno;
  uint32_t dyn_seq_no;
  uint32_t ace_index;
};
static_assert(sizeof(kestrix_pal_insert_spi_table_req) == 71);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, spi) == 8);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, protocol) == 12);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, fvrf) == 13);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, dest_addr) == 15);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, dest_mask) == 33);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, src_addr) == 37);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, src_mask) == 55);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, static_seqno) == 59);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, dyn_seq_no) == 63);
static_assert(offsetof(kestrix_pal_insert_spi_table_req, ace_index) == 67);

struct __attribute__((packed)) kestrix_pal_remove_spi_table_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t spi_handle;
};
static_assert(sizeof(kestrix_pal_remove_spi_table_req) == 12);
static_assert(offsetof(kestrix_pal_remove_spi_table_req, spi_handle) == 8);

// ---- crypto flows ---------------------------------------------------------

struct __attribute__((packed)) kestrix_pal_insert_flow_table_req {
  uint32_t callback_handle;
  uint32_t create_handle;
  uint32_t sadbhandle;
  uint32_t static_seq_no;
  uint32_t dyn_seqno;
  uint32_t ace_index;
  uint16_t ivrf;
};
static_assert(sizeof(kestrix_pal_insert_flow_table_req) == 26);
static_assert(offsetof(kestrix_pal_insert_flow_table_req, sadbhandle) == 8);
static_assert(offsetof(kestrix_pal_insert_flow_table_req, static_seq_no) == 12);
static_assert(offsetof(kestrix_pal_insert_flow_table_req, dyn_seqno) == 16);
static_assert(offsetof(kestrix_pal_insert_flow_table_req, ace_index) == 20);
static_assert(offsetof(kestrix_pal_insert_flow_table_req, ivrf) == 24);

struct __attribute__((packed)) kestrix_pal_update_flow_table_req {
  uint32_t callback_handle;
  uint32_t create_handle;
  uint32_t sadbhandle;
  uint64_t flow_handle;
};
static_assert(sizeof(kestrix_pal_update_flow_table_req) == 20);
static_assert(offsetof(kestrix_pal_update_flow_table_req, flow_handle) == 12);

struct __attribute__((packed)) kestrix_pal_remove_flow_table_req {
  uint32_t callback_handle;
  uint32_t sadbhandle;
  uint32_t entry_handle;
  uint32_t create_handle;
  uint64_t flow_handle;
};
static_assert(sizeof(kestrix_pal_remove_flow_table_req) == 24);
static_assert(offsetof(kestrix_pal_remove_flow_table_req, sadbhandle) == 4);
static_assert(offsetof(kestrix_pal_remove_flow_table_req, flow_handle) == 16);

// ---- notification the agent sends -----------------------------------------

struct __attribute__((packed)) kestrix_pal_crypto_notify_rp_req {
  uint32_t notify_handle;
  uint32_t outbound;
  uint32_t tunnel_id;
  uint32_t pkt_len;
  uint8_t pkt_summary[64];
};
static_assert(sizeof(kestrix_pal_crypto_notify_rp_req) == kPalUnionSize);
static_assert(offsetof(kestrix_pal_crypto_notify_rp_req, tunnel_id) == 8);
static_assert(offsetof(kestrix_pal_crypto_notify_rp_req, pkt_summary) == 16);

// The whole notification datagram: the header's length counts the command
// and the full request union.
struct __attribute__((packed)) kestrix_pal_notify_rp_msg {
  kestrix_cp_dp_msg_t header;
  uint16_t pal_api_type;
  kestrix_pal_crypto_notify_rp_req req;
};
static_assert(sizeof(kestrix_pal_notify_rp_msg) == 86);
static_assert(offsetof(kestrix_pal_notify_rp_msg, pal_api_type) == kPalCommandOffset);
static_assert(offsetof(kestrix_pal_notify_rp_msg, req) == kPalBodyOffset);

// ---- responses ------------------------------------------------------------

struct __attribute__((packed)) kestrix_pal_status_resp {
  uint32_t callback_handle;
  uint32_t status;
};
static_assert(sizeof(kestrix_pal_status_resp) == 8);

struct __attribute__((packed)) kestrix_pal_handle_status_resp {
  uint32_t callback_handle;
  uint32_t handle;  // sadbhandle, peer_handle or flow_id
  uint32_t status;
};
static_assert(sizeof(kestrix_pal_handle_status_resp) == 12);
static_assert(offsetof(kestrix_pal_handle_status_resp, status) == 8);

struct __attribute__((packed)) kestrix_pal_insert_cflow_table_resp {
  uint32_t callback_handle;
  uint64_t flow_handle;
  uint32_t status;
};
static_assert(sizeof(kestrix_pal_insert_cflow_table_resp) == 16);
static_assert(offsetof(kestrix_pal_insert_cflow_table_resp, flow_handle) == 4);
static_assert(offsetof(kestrix_pal_insert_cflow_table_resp, status) == 12);

// The response record the dispatcher fills from a handler's results.
union kestrix_pal_resp_t {
  kestrix_pal_status_resp plain;
  kestrix_pal_handle_status_resp with_handle;
  kestrix_pal_insert_cflow_table_resp cflow;
  uint8_t raw[kPalUnionSize];
};
static_assert(sizeof(kestrix_pal_resp_t) == kPalUnionSize);

}  // namespace cpa
