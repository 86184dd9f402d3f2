// Unit-test mode's hooks: after their own work, a few handlers synthesise the
// requests the RP would send next for the tunnel's built-in scenario and feed
// them straight to the agent's own handlers (no response datagram results).
// Each hook does nothing but print the UT error line when the tunnel has no
// scenario.
#pragma once

#include <cstdint>

#include "agent/agent.h"
#include "wire/cipher_info.h"

namespace cpa {

// Attach: the inbound and then the outbound key request of the scenario.
void kestrix_ut_send_cipher_info(Agent& agent, uint32_t tunnelid);

// One CREATE_KEY_BY_KEYS datagram for scenario `ut_index`, direction `dir`
// (0 inbound, 1 outbound), handed to the CEAL dispatcher. `cinfo` (host
// order) says which of ESP and AH are used.
void kestrix_ipsec_send_keys_to_ce(Agent& agent, uint32_t handle, int32_t ipsec_index,
                                   uint32_t ipsec_sa, const kestrix_ce_cipher_info* cinfo,
                                   int ut_index, uint32_t dir);

// Detach, before the device goes: SPI delete, then peer delete.
void kestrix_proc_spi_del_req_test(Agent& agent, const cpa_interface_t& tunnel);
void kestrix_proc_peer_del_req_test(Agent& agent, const cpa_interface_t& tunnel);

// ACL insert and replace, after the new policy is linked: SPI insert, then peer insert.
void kestrix_proc_spi_insert_req_test(Agent& agent, const cpa_interface_t& tunnel);
void kestrix_test_insert_peer_test(Agent& agent, const cpa_interface_t& tunnel);

// What detach and ACL insert/replace run, in that order.
inline void kestrix_ut_detach_tests(Agent& agent, const cpa_interface_t& tunnel) {
  kestrix_proc_spi_del_req_test(agent, tunnel);
  kestrix_proc_peer_del_req_test(agent, tunnel);
}
inline void kestrix_ut_acl_insert_tests(Agent& agent, const cpa_interface_t& tunnel) {
  kestrix_proc_spi_insert_req_test(agent, tunnel);
  kestrix_test_insert_peer_test(agent, tunnel);
}

// SPI insert: the crypto flow insert. SPI delete: the crypto flow delete.
void kestrix_proc_ins_cflow_test(Agent& agent, const cpa_interface_t& tunnel);
void kestrix_proc_del_cflow_test(Agent& agent, const cpa_interface_t& tunnel);

}  // namespace cpa
