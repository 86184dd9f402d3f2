// The tunnel table: 4096 slots of tunnel records indexed by SADB handle, and
// the circular cursor that picks the slot of the next tunnel.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>

#include "state/policy_records.h"
#include "state/sa_records.h"
#include "wire/pal_messages.h"

namespace cpa {

inline constexpr uint32_t kUnattachedTunnel = 0xFFFFFFFF;
inline constexpr uint8_t kIpProtoEsp = 50;
inline constexpr uint8_t kIpProtoAh = 51;

// One tunnel. Every field is host order except `attribute` and `value`,
// which keep the four bytes the RP sent. The record owns its policies.
struct cpa_interface_s {
  cdh_sadbhandle sadb_handle = 0;  // the slot number
  uint32_t reqid = 0;              // XFRM request id; equals the slot number
  uint32_t tunnelid = kUnattachedTunnel;
  PolicyList head_policy;  // newest first
  InboundSaList inb_sa_list;    // newest first
  OutboundSaList outb_sa_list;  // newest first
  uint32_t callback_handle = 0;
  uint32_t create_handle = 0;  // identifies the tunnel for duplicate detection
  int cmd_state = 0;
  uint32_t hint = 0;  // crypto_sadb_hint_t
  unsigned int attribute = 0;
  unsigned int value = 0;
  unsigned int is_v6 = 0;
  uint32_t peer_handle = 0;  // 0 and -1 together mean: no peer
  int peer_index = -1;
  uint8_t default_security_protocol = kIpProtoEsp;
};
using cpa_interface_t = cpa_interface_s;

class TunnelTable {
 public:
  static constexpr int kSlots = 4096;  // slot 0 is never used

  TunnelTable() { init_sadb(); }

  void init_sadb();

  // Creates a tunnel in the cursor's slot; `*handle` gets the slot, big-endian.
  ce_status_t create_alloc_sadbhdl(const kestrix_pal_initialize_start_req& init_reqt,
                                   cdh_sadbhandle* handle);
  ce_status_t kestrix_del_sadb(int index);

  ce_status_t sadb_lookup(cdh_sadbhandle sadhandle, uint32_t* idx) const;
  int kestrix_sadb_lookup_by_reqid(uint32_t* index, uint32_t reqid) const;
  ce_status_t kestrix_db_lookup_tunid(uint32_t tunid, uint32_t* index) const;
  ce_status_t kestrix_update_sadb_attr(const kestrix_pal_update_sadb_req& sadb_attr_updrq, int idx);

  // The slot of the live tunnel with this create handle (host order), if any.
  std::optional<uint32_t> find_by_create_handle(uint32_t create_handle) const;

  // The record in `slot`, or null when the slot is empty or out of range.
  cpa_interface_t* at(uint32_t slot) const {
    return slot < kSlots ? cpa_pal_info[slot].get() : nullptr;
  }
  int g_sadb_alloc_index() const { return alloc_index_; }

  // The SA of the tunnel in slot `index` (1-4095) whose cipher record has
  // `ipsec_index` == `flow_id`; the newest of several; null when none.
  cpa_inbound_sa_t* kestrix_in_sa_lookup_by_ceid(uint32_t flow_id, uint32_t index) const;
  cpa_outbound_sa_t* kestrix_out_sa_lookup_by_ceid(uint32_t flow_id, uint32_t index) const;

 private:
  void set_next_free_sadb_index();

  std::array<std::unique_ptr<cpa_interface_t>, kSlots> cpa_pal_info;
  int alloc_index_ = 1;  // -1 when the table is full
  // Create handles of live tunnels are unique (a repeated INIT_START returns
  // the existing tunnel), so this index answers the duplicate check in
  // constant time instead of a scan whose cost grows with the table.
  std::unordered_map<uint32_t, uint32_t> slot_by_create_handle_;
};

}  // namespace cpa
