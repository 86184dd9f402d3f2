// CEAL statistics queries: request bodies (from datagram offset 6), the flow
// handle, and the response layouts with the offsets of the fields the agent
// fills. Multi-byte fields are big-endian on the wire and stay so here.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpa {

struct __attribute__((packed)) kestrix_ipsec_flow_pull_stats_req {
  uint32_t callback_handle;  // opaque
  uint32_t final_flg;        // opaque, echoed
  uint32_t num_flows;        // big-endian; the flow handles follow
};
static_assert(sizeof(kestrix_ipsec_flow_pull_stats_req) == 12);
static_assert(offsetof(kestrix_ipsec_flow_pull_stats_req, num_flows) == 8);

struct __attribute__((packed)) kestrix_flow_stats_hdle_struct {
  uint32_t flow_id;       // big-endian: the SA cipher record's `ipsec_index`
  uint32_t ce_public_sa;  // opaque
  uint32_t handle;        // opaque
  uint32_t is_inbound;    // big-endian boolean
};
static_assert(sizeof(kestrix_flow_stats_hdle_struct) == 16);
static_assert(offsetof(kestrix_flow_stats_hdle_struct, is_inbound) == 12);

// The SADB and global queries share one request shape; the response echoes
// these ten bytes at the same place.
struct __attribute__((packed)) kestrix_ipsec_ivrf_pull_stats_req {
  uint32_t handle;         // opaque (`callback_handle` of the SADB query)
  uint16_t ivrf_index;     // big-endian, selects nothing
  uint32_t engine_handle;  // opaque (`sadb_ivrf_info_hdle` of the SADB query)
};
static_assert(sizeof(kestrix_ipsec_ivrf_pull_stats_req) == 10);
static_assert(offsetof(kestrix_ipsec_ivrf_pull_stats_req, engine_handle) == 6);

// Datagram offsets and sizes of the responses.
inline constexpr size_t kFlowStatsRequestHandles = 18;  // first flow handle of a request
inline constexpr size_t kFlowStatsStatus = 18;
inline constexpr size_t kFlowStatsResponseHead = 22;    // up to the first flow
inline constexpr size_t kFlowStatsPerFlow = 456;        // handle + kestrix_ipsec_flow_stats
inline constexpr size_t kFlowStatsSize = 440;           // kestrix_ipsec_flow_stats
inline constexpr size_t kMaxAnsweredFlows = 143;        // the most a 16-bit length holds
static_assert(kFlowStatsResponseHead + kMaxAnsweredFlows * kFlowStatsPerFlow <= UINT16_MAX);
static_assert(kFlowStatsResponseHead + (kMaxAnsweredFlows + 1) * kFlowStatsPerFlow > UINT16_MAX);
static_assert(sizeof(kestrix_flow_stats_hdle_struct) + kFlowStatsSize == kFlowStatsPerFlow);
inline constexpr size_t kSadbStatsResponseSize = 36;
inline constexpr size_t kGlobalStatsResponseSize = 128;
inline constexpr size_t kGlobalStatsAt = 16;  // kestrix_ipsec_global_ivrf_stats, 112 bytes

// Filled fields of kestrix_ipsec_flow_stats; every other field stays zero.
namespace flow_stats {
inline constexpr uint16_t flow_in_bytes = 0, flow_in_pkts = 32, flow_decap_fail = 40,
                          flow_test_replay_fail = 48, flow_in_auth = 56, flow_in_auth_fail = 64,
                          flow_decrypt_done = 72, flow_decrypt_fail = 80, flow_invalid_decap_pak = 88,
                          flow_in_sys_err = 104, flow_out_bytes = 192, flow_out_pkts = 224,
                          flow_encap_fail = 232, flow_out_auth = 240, flow_out_auth_fail = 248,
                          flow_encrypt_done = 256, flow_encrypt_fail = 264, flow_out_sys_err = 272,
                          flow_set_replay_fail = 336;
}  // namespace flow_stats

// Filled fields of kestrix_ipsec_global_ivrf_stats; every other field stays zero.
namespace global_stats {
inline constexpr uint16_t global_in_bytes = 12, global_invalid_decap_pak = 20,
                          global_inbound_sys_err = 24, global_in_pkts = 32, global_decap_fail = 36,
                          global_test_replay_fail = 40, global_in_auth = 44, global_in_auth_fail = 48,
                          global_decrypt_done = 52, global_decrypt_fail = 56, global_out_bytes = 68,
                          global_outbound_sys_err = 76, global_out_pkts = 80, global_encap_fail = 84,
                          global_out_auth = 88, global_out_auth_fail = 92, global_encrypt_done = 96,
                          global_encrypt_fail = 100;
}  // namespace global_stats

}  // namespace cpa
