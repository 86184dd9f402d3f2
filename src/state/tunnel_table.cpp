#include "state/tunnel_table.h"

#include <arpa/inet.h>

#include <cstdint>

#include "base/log.h"

namespace cpa {

void TunnelTable::init_sadb() {
  for (auto& slot : cpa_pal_info) slot.reset();
  slot_by_create_handle_.clear();
  alloc_index_ = 1;
}

// Walks upwards from the slot just taken, wrapping from 4095 to 1, to the
// first free slot; -1 when the walk comes round without finding one.
void TunnelTable::set_next_free_sadb_index() {
  const int start = alloc_index_;
  int i = start;
  for (;;) {
    i = (i + 1) % kSlots;
    if (i == 0) i = 1;
    if (!cpa_pal_info[i]) {
      alloc_index_ = (i == start) ? -1 : i;
      return;
    }
    if (i == start) {
      alloc_index_ = -1;
      return;
    }
  }
}

ce_status_t TunnelTable::create_alloc_sadbhdl(const kestrix_pal_initialize_start_req& init_reqt,
                                              cdh_sadbhandle* handle) {
  if (alloc_index_ == -1) {
    cpa_log(LOG_ERR, "CPA Main table is full");
    return CRYPTO_ERR_RESOURCES;
  }
  const uint32_t slot = static_cast<uint32_t>(alloc_index_);
  auto& entry = cpa_pal_info[slot];
  entry = std::make_unique<cpa_interface_t>();
  cpa_log(LOG_DEBUG, "Alloc SADB handle for index %d pointer 0x%x", slot,
          static_cast<unsigned>(reinterpret_cast<uintptr_t>(entry.get())));
  entry->sadb_handle = slot;
  entry->tunnelid = kUnattachedTunnel;
  entry->create_handle = ntohl(init_reqt.create_handle);
  entry->callback_handle = ntohl(init_reqt.callback_handle);
  entry->hint = ntohl(init_reqt.hint);
  entry->reqid = slot;
  entry->peer_index = -1;
  entry->default_security_protocol = kIpProtoEsp;
  slot_by_create_handle_[entry->create_handle] = slot;
  *handle = htonl(slot);
  set_next_free_sadb_index();
  return CRYPTO_NO_ERR;
}

// Releasing the record releases what the agent still holds for the tunnel
// (its policies with their ACEs), so a tunnel deleted in any state leaks
// nothing; kernel objects with its reqid stay, the RP removes them first.
ce_status_t TunnelTable::kestrix_del_sadb(int index) {
  if (index < 1 || index >= kSlots) {
    cpa_log(LOG_ERR, "index lesser than max tunnels");
    return CRYPTO_ERR_INTERNAL;
  }
  if (auto& entry = cpa_pal_info[index]) {
    slot_by_create_handle_.erase(entry->create_handle);
    entry.reset();
  }
  if (alloc_index_ == -1) alloc_index_ = index;
  return CRYPTO_NO_ERR;
}

ce_status_t TunnelTable::sadb_lookup(cdh_sadbhandle sadhandle, uint32_t* idx) const {
  if (at(sadhandle)) {
    *idx = sadhandle;
    return CRYPTO_NO_ERR;
  }
  cpa_log(LOG_DEBUG, "SADB handle %d not found", sadhandle);
  return CRYPTO_ERR_NO_SESSION;
}

// Every live record's reqid equals its slot and its sadb_handle is non-zero,
// so the first match of an ascending scan is the slot named by the reqid.
int TunnelTable::kestrix_sadb_lookup_by_reqid(uint32_t* index, uint32_t reqid) const {
  if (reqid >= 1 && at(reqid)) {
    *index = reqid;
    return 0;
  }
  cpa_log(LOG_ERR, "reqid %d not found", reqid);
  return 1;
}

ce_status_t TunnelTable::kestrix_db_lookup_tunid(uint32_t tunid, uint32_t* index) const {
  if (static_cast<int32_t>(tunid) < 0) {
    cpa_log(LOG_ERR, "Invalid tunnel id [%x] ", tunid);
    return CRYPTO_ERR_INVALID;
  }
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    if (cpa_pal_info[slot] && cpa_pal_info[slot]->tunnelid == tunid) {
      *index = slot;
      return CRYPTO_NO_ERR;
    }
  }
  cpa_log(LOG_DEBUG, " Tunnel Id %d might have been deleted", tunid);
  return CRYPTO_ERR_INVALID;
}

ce_status_t TunnelTable::kestrix_update_sadb_attr(const kestrix_pal_update_sadb_req& sadb_attr_updrq,
                                                  int idx) {
  cpa_interface_t* entry = at(static_cast<uint32_t>(idx));
  entry->attribute = sadb_attr_updrq.attribute;
  entry->value = sadb_attr_updrq.value;
  return CRYPTO_NO_ERR;
}

std::optional<uint32_t> TunnelTable::find_by_create_handle(uint32_t create_handle) const {
  auto it = slot_by_create_handle_.find(create_handle);
  if (it == slot_by_create_handle_.end()) return std::nullopt;
  return it->second;
}

namespace {

// The SA of `list` of the tunnel in slot `index` whose cipher record carries
// `flow_id`: the newest of several, null when none.
template <class Sa>
Sa* find_by_ceid(const TunnelTable& table, ObjectList<Sa> cpa_interface_t::*list, uint32_t flow_id,
                 uint32_t index) {
  if (index < 1 || index >= TunnelTable::kSlots) {
    cpa_log(LOG_ERR, "Invalid index");
    return nullptr;
  }
  cpa_interface_t* entry = table.at(index);
  if (!entry) return nullptr;
  for (Sa& sa : entry->*list)
    if (sa.sa_info && static_cast<uint32_t>(sa.sa_info->ipsec_index) == flow_id) return &sa;
  return nullptr;
}

}  // namespace

cpa_inbound_sa_t* TunnelTable::kestrix_in_sa_lookup_by_ceid(uint32_t flow_id, uint32_t index) const {
  return find_by_ceid(*this, &cpa_interface_t::inb_sa_list, flow_id, index);
}

cpa_outbound_sa_t* TunnelTable::kestrix_out_sa_lookup_by_ceid(uint32_t flow_id, uint32_t index) const {
  return find_by_ceid(*this, &cpa_interface_t::outb_sa_list, flow_id, index);
}

}  // namespace cpa
