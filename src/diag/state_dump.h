// The state dump: every tunnel and what it holds, written to syslog.
#pragma once

#include "state/peer_table.h"
#include "state/policy_records.h"
#include "state/tunnel_table.h"

namespace cpa {

// Dumps one tunnel; `i` is the running number of the dump.
void kestrix_dump_cpa_intf(const cpa_interface_t* cpa_elem, int i);

// Dumps one peer record; not part of the tunnel dump.
void kestrix_dump_cpa_peer_params(const cdh_peer_parameters* peer);

void kestrix_dump_policy_lst(const PolicyList& head);
void kestrix_dump_ace_lst(const AceList& ace_entry);
void kestrix_dump_ace(const ace_netlink_t& ace);
void kestrix_dump_action(const kestrix_cdh_action& act);
void kestrix_dump_inb_sa_lst(const InboundSaList& sa);
void kestrix_dump_inb_sa(const cpa_inbound_sa_t& sa);
void kestrix_dump_outb_sa_lst(const OutboundSaList& sa);
void kestrix_dump_outb_sa(const cpa_outbound_sa_t& sa);
// A null record prints nothing.
void kestrix_dump_cipher_info(const kestrix_ce_cipher_list_t* ce_info);

// Dumps every tunnel of the table, numbered from 0.
void kestrix_dump_all_tunnels(const TunnelTable& tunnels);

}  // namespace cpa
