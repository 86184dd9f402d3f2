// A tunnel's policies and their ACEs, in host byte order, and the list
// operations on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "state/object_lists.h"
#include "wire/acl_records.h"
#include "wire/pal_messages.h"

namespace cpa {

// At most this many policies per tunnel. The RP keeps one ACL per tunnel and
// replaces it in place; 64 covers any installs that precede their removals.
inline constexpr size_t kMaxPoliciesPerTunnel = 64;

// Kernel policy directions (the kernel's XFRM_POLICY_IN and XFRM_POLICY_OUT).
inline constexpr uint32_t kAceDirIn = 0;
inline constexpr uint32_t kAceDirOut = 1;

// One ACE in the form in which it is programmed into the kernel.
struct ace_netlink_s : ListNode<ace_netlink_s> {
  kestrix_crypto_ace ace{};
  int32_t k_index = 0;  // kernel policy index; 0 until the kernel announces it
  uint32_t dir = 0;     // kAceDirOut or kAceDirIn
};
using ace_netlink_t = ace_netlink_s;
using AceList = ObjectList<ace_netlink_t>;

// One policy, built from one ACL modify request. It owns its ACEs.
struct cpa_spd_policy_s : ListNode<cpa_spd_policy_s> {
  uint32_t static_seqno = 0;
  uint32_t dynamic_seqno = 0;
  kestrix_crypto_map_update_descriptor desc{};  // only what_changed is filled
  kestrix_cdh_action inbound{};
  kestrix_cdh_action outbound{};
  kestrix_cdh_action inbound_deny{};
  kestrix_cdh_action outbound_deny{};
  AceList ace_entry;
};
using cpa_spd_policy_t = cpa_spd_policy_s;
using PolicyList = ObjectList<cpa_spd_policy_t>;

// All return 0 on success and 1 on failure.
int insert_node_policy(PolicyList& head, std::unique_ptr<cpa_spd_policy_t> node);
int insert_node_ace(AceList& head, std::unique_ptr<ace_netlink_t> node);
int delete_node_policy(PolicyList& head, const cpa_spd_policy_t* policy);
int delete_node_ace(AceList& head, const ace_netlink_t* node);

void delete_list_ace(AceList& head);
void kestrix_policy_ace_cleanup(cpa_spd_policy_t* policy);
void kestrix_policy_cleanup(std::unique_ptr<cpa_spd_policy_t> policy);

// Logs the one-line summary of an ACE with `format`, which takes ip_type,
// type, seqno, reverse, handle, hint and the IPv4 selector fields in order.
void log_ace_summary(const char* format, const kestrix_crypto_ace& ace)
    __attribute__((format(printf, 1, 0)));

}  // namespace cpa
