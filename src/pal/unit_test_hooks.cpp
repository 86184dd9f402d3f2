#include "pal/unit_test_hooks.h"

#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "ceal/ceal_dispatcher.h"
#include "base/log.h"
#include "diag/unit_test_mode.h"
#include "pal/crypto_flows.h"
#include "pal/peer_requests.h"
#include "pal/spi_requests.h"
#include "wire/acl_records.h"
#include "wire/byte_order.h"
#include "wire/ceal_key_requests.h"

namespace cpa {
namespace {

// Opaque to the handlers, so it travels in host order.
constexpr uint32_t kUtCallbackHandle = 0x123;
constexpr uint32_t kUtKeyHandle = 0x8002;
// The test peer: idle timer of 300 s and DPD after 10 s, no NAT translation.
constexpr uint32_t kUtPeerHandle = 0x456;
constexpr uint32_t kUtIdleSeconds = 300;
constexpr uint32_t kUtDpdSeconds = 10;
constexpr uint32_t kUtMaskBits = 24;

// Request bytes as a datagram would carry them, read back by the handlers
// through the same bounded views the dispatcher gives them.
class SynthesisedRequest {
 public:
  explicit SynthesisedRequest(uint16_t cmd) { put(htons(cmd)); }
  template <class T>
  SynthesisedRequest& put(const T& value) {
    const size_t at = bytes_.size();
    bytes_.resize(at + sizeof value);
    std::memcpy(bytes_.data() + at, &value, sizeof value);
    return *this;
  }
  SynthesisedRequest& action(uint16_t kind, const kestrix_cdh_action& action) {
    return put(kestrix_acl_actions{htons(kind), htons(sizeof action)}).put(action);
  }
  // From `pal_api_type` on, and its length (the message_length it would carry).
  ReceivedBytes command() const { return {bytes_.data(), bytes_.size()}; }
  size_t length() const { return bytes_.size(); }
  template <class Body>
  RequestBody<Body> body() const {
    return command().slice(sizeof(uint16_t)).read_padded<Body>(0);
  }

 private:
  std::vector<uint8_t> bytes_;
};

kestrix_addr wire_ipv4(uint32_t address) {
  kestrix_addr addr{};
  addr.type = 4;
  addr.length = 4;
  addr.ip_address = htonl(address);
  return addr;
}

kestrix_cdh_action decrypt_action(uint32_t sa, uint32_t tunnelid) {
  kestrix_cdh_action action{};
  action.action = htonl(CDH_ACTION_DECRYPT_PACKET);
  action.data.decrypt.sa = htonl(sa);
  action.data.decrypt.tunnel_id = htonl(tunnelid);
  return action;
}

kestrix_cdh_action encrypt_action(uint32_t sa) {
  kestrix_cdh_action action{};
  action.action = htonl(CDH_ACTION_ENCRYPT_PACKET);
  action.data.encrypt.sa = htonl(sa);
  return action;
}

uint32_t out_sa_handle(const ut_input_t& s) { return static_cast<uint32_t>(s.out_flowid); }

// Every key byte of a scenario is the low byte of its tunnel id.
uint8_t key_fill(const ut_input_t& s) { return static_cast<uint8_t>(s.tunnelid); }

// The scenario of the tunnel, or null (after the UT error line).
const ut_input_t* scenario_of(const cpa_interface_t& tunnel) {
  const int index = kestrix_ut_find_scenario(tunnel.tunnelid);
  return index < 0 ? nullptr : &ut_info[index];
}

struct KeyLengths {
  uint32_t esp_cipher = 0;
  uint32_t esp_mac = 0;
  uint32_t ah = 0;
  bool has_ah = false;
  // The key area: each key present takes its TLV head too.
  uint32_t area() const {
    const auto tlv = [](uint32_t len) { return len ? len + uint32_t{sizeof(kestrix_tlv_msg)} : 0; };
    return tlv(esp_cipher) + tlv(esp_mac) + (has_ah ? ah + uint32_t{sizeof(kestrix_tlv_msg)} : 0);
  }
};

KeyLengths key_lengths(const ut_input_t& s, const kestrix_ce_cipher_info& cinfo) {
  KeyLengths k;
  if (s.esp_algo) {
    k.esp_cipher = kestrix_ipsec_key_length(cinfo.esp_cipher, cinfo.esp_cipher_key_length);
    k.esp_mac = kestrix_ipsec_hash_length(cinfo.esp_mac);
  }
  if (s.ah_algo) {
    k.ah = kestrix_ipsec_hash_length(cinfo.ah_mac);
    k.has_ah = true;
  }
  return k;
}

kestrix_ce_cipher_info wire_cipher_info(const ut_input_t& s, const kestrix_ce_cipher_info& cinfo,
                                        uint32_t dir) {
  const bool inbound = dir == 0;
  kestrix_ce_cipher_info w{};
  w.outbound = htonl(dir);
  w.esp_used = htonl(cinfo.esp_used);
  w.ah_used = htonl(cinfo.ah_used);
  w.esp_cipher = htonl(s.esp_algo);
  w.esp_cipher_key_length = htonl(s.esp_cipher_key_length);
  w.esp_mac = htonl(s.esp_mac_algo);
  w.ah_mac = htonl(s.ah_algo);
  w.esp_spi = htonl(inbound ? s.inb_spi : s.out_spi);
  w.ah_spi = htonl(inbound ? s.inb_ah_spi : s.out_ah_spi);
  w.source = wire_ipv4(inbound ? s.tun_dst : s.tun_src);
  w.dest = wire_ipv4(inbound ? s.tun_src : s.tun_dst);
  w.antireplay_window_size = htonl(32);
  w.tunnel_id = htonl(static_cast<uint32_t>(s.tunnelid));
  w.ipv4_df_setting = htonl(1);
  w.mode = htonl(CE_TRANSPORT);
  w.soft_time_lifetime = w.soft_volume_lifetime = kestrix_bswap64(s.soft_time_lifetime);
  w.hard_time_lifetime = w.hard_volume_lifetime = kestrix_bswap64(s.hard_time_lifetime);
  return w;
}

// Appends one key TLV of `len` test bytes at `at`; returns the next free byte.
uint8_t* put_key(uint8_t* at, uint16_t type, uint32_t len, uint8_t fill) {
  const kestrix_tlv_msg tlv{htons(type), htons(static_cast<uint16_t>(len))};
  std::memcpy(at, &tlv, sizeof tlv);
  std::memset(at + sizeof tlv, fill, len);
  return at + sizeof tlv + len;
}

uint8_t* put_keys(uint8_t* at, const KeyLengths& k, uint8_t fill) {
  if (k.esp_cipher) {
    ut_print("Writing esp cipher key ");
    cpa_log(LOG_DEBUG, "ESP key: len [%d]\n", k.esp_cipher);
    at = put_key(at, KESTRIX_CE_CIPHER_INFO_TYPE_ESP_KEY, k.esp_cipher, fill);
  }
  if (k.esp_mac) {
    ut_print("Writing esp mac key ");
    cpa_log(LOG_DEBUG, "ESP MAC key: len [%d]\n", k.esp_mac);
    at = put_key(at, KESTRIX_CE_CIPHER_INFO_TYPE_ESP_MAC, k.esp_mac, fill);
  }
  if (k.has_ah) {
    ut_print("Writing ah mac key ");
    cpa_log(LOG_DEBUG, "AH key: len [%d]\n", k.ah);
    at = put_key(at, KESTRIX_CE_CIPHER_INFO_TYPE_AH, k.ah, fill);
  }
  return at;
}

}  // namespace

void kestrix_ut_send_cipher_info(Agent& agent, uint32_t tunnelid) {
  const int index = kestrix_ut_find_scenario(tunnelid);
  if (index < 0) return;
  const ut_input_t& s = ut_info[index];
  kestrix_ce_cipher_info cinfo{};
  (s.proto == kIpProtoEsp ? cinfo.esp_used : cinfo.ah_used) = 1;
  cinfo.esp_cipher = s.esp_algo;
  cinfo.esp_cipher_key_length = s.esp_cipher_key_length;
  cinfo.esp_mac = s.esp_mac_algo;
  cinfo.ah_mac = s.ah_algo;
  kestrix_ipsec_send_keys_to_ce(agent, kUtKeyHandle, 0, s.inb_flowid, &cinfo, index, 0);
  kestrix_ipsec_send_keys_to_ce(agent, kUtKeyHandle, 0, out_sa_handle(s), &cinfo, index, 1);
}

void kestrix_ipsec_send_keys_to_ce(Agent& agent, uint32_t handle, int32_t ipsec_index,
                                   uint32_t ipsec_sa, const kestrix_ce_cipher_info* cinfo,
                                   int ut_index, uint32_t dir) {
  ut_print("%s,%d", __func__, __LINE__);
  if (!cinfo) return;
  const ut_input_t& s = ut_info[ut_index];
  const KeyLengths keys = key_lengths(s, *cinfo);
  const size_t size = kCealKeyAreaOffset + keys.area();
  // Freed when the dispatcher is done with it.
  const std::unique_ptr<uint8_t[]> msg(new (std::nothrow) uint8_t[size]());
  if (!msg) {
    ut_print(" %s: malloc failed..", __func__);
    return;
  }
  const kestrix_cp_dp_msg_t header{htons(MSG_CEAL), htons(static_cast<uint16_t>(size - 4))};
  std::memcpy(msg.get(), &header, sizeof header);  // api type 0 (zero-filled)
  kestrix_ce_key_create_keys_req body{};
  std::memcpy(body.callback_handle, &handle, sizeof handle);
  body.ipsec_index = static_cast<int32_t>(htonl(static_cast<uint32_t>(ipsec_index)));
  body.ipsec_sa = htonl(ipsec_sa);
  ut_print("\nCRETATE_KEY cmd is [0x%2x]", 0);
  ut_print("\nCRETATE_KEY cmd short is [0x%2x]", 0);
  ut_print("\nCRETATE_KEY cmd short reverse is [0x%2x]", 0);
  ut_print("\nipsec_sa 0x%x\n", ipsec_sa);
  body.ce_cipher = wire_cipher_info(s, *cinfo, dir);
  std::memcpy(msg.get() + kCealBodyOffset, &body, sizeof body);
  put_keys(msg.get() + kCealKeyAreaOffset, keys, key_fill(s));
  kestrix_pal_process_ceal_msg(agent, ReceivedBytes(msg.get(), size));
}

void kestrix_proc_spi_del_req_test(Agent& agent, const cpa_interface_t& tunnel) {
  const ut_input_t* s = scenario_of(tunnel);
  if (!s) return;
  ut_print("tunn id %d spi_handle [%x]", s->tunnelid, s->inb_flowid);
  SynthesisedRequest req(KESTRIX_PAL_SPI_DELETE);
  req.put(kestrix_pal_remove_spi_table_req{kUtCallbackHandle, htonl(tunnel.sadb_handle),
                                           htonl(s->inb_flowid)});
  kestrix_proc_spi_del_req(agent, req.body<kestrix_pal_remove_spi_table_req>());
}

void kestrix_proc_peer_del_req_test(Agent& agent, const cpa_interface_t& tunnel) {
  if (!scenario_of(tunnel)) return;
  cpa_log(LOG_DEBUG, " ses callback hdl %x, sadbhdl %x, peer_hdl %x ", kUtCallbackHandle,
          tunnel.sadb_handle, tunnel.peer_handle);
  SynthesisedRequest req(KESTRIX_PAL_PEER_DELETE);
  req.put(kestrix_pal_delete_peer_req{kUtCallbackHandle, htonl(tunnel.sadb_handle),
                                      htonl(tunnel.peer_handle)});
  kestrix_proc_peer_del_req(agent, req.body<kestrix_pal_delete_peer_req>());
}

void kestrix_proc_spi_insert_req_test(Agent& agent, const cpa_interface_t& tunnel) {
  const ut_input_t* s = scenario_of(tunnel);
  if (!s) return;
  cpa_log(LOG_DEBUG, "ut_index %d, tunnelid %d", static_cast<int>(s - ut_info), s->tunnelid);
  kestrix_pal_insert_spi_table_req fixed{};
  fixed.callback_handle = kUtCallbackHandle;
  fixed.sadbhandle = htonl(tunnel.sadb_handle);
  fixed.spi = htonl(s->inb_spi);
  fixed.protocol = s->proto;
  fixed.dest_addr = wire_ipv4(s->tun_src);
  fixed.dest_mask = htonl(kUtMaskBits);
  fixed.src_addr = wire_ipv4(s->tun_dst);
  fixed.src_mask = htonl(kUtMaskBits);
  SynthesisedRequest req(KESTRIX_PAL_SPI_INSERT);
  req.put(fixed).action(KESTRIX_PAL_IN_ACTION,
                        decrypt_action(s->inb_flowid, static_cast<uint32_t>(s->tunnelid)));
  uint32_t flow_id = 0;
  kestrix_proc_spi_insert_req(agent, req.command(), req.length(), flow_id);
}

void kestrix_test_insert_peer_test(Agent& agent, const cpa_interface_t& tunnel) {
  if (!scenario_of(tunnel)) return;
  kestrix_pal_insert_peer_req fixed{};
  fixed.callback_handle = kUtCallbackHandle;
  fixed.create_handle = kUtCallbackHandle;
  fixed.peer_handle = htonl(kUtPeerHandle);
  fixed.sadbhandle = htonl(tunnel.sadb_handle);
  fixed.params.do_idle_timer = htonl(1);
  fixed.params.idle_timer_setting = htonl(kUtIdleSeconds);
  fixed.params.do_dpd = htonl(1);
  fixed.params.dpd_threshold = htonl(kUtDpdSeconds);
  SynthesisedRequest req(KESTRIX_PAL_PEER_INSERT);
  req.put(fixed);
  uint32_t peer_handle = 0;
  kestrix_proc_peer_insert_req(agent, req.body<kestrix_pal_insert_peer_req>(), &peer_handle);
}

void kestrix_proc_ins_cflow_test(Agent& agent, const cpa_interface_t& tunnel) {
  const ut_input_t* s = scenario_of(tunnel);
  if (!s) return;
  kestrix_pal_insert_flow_table_req fixed{};
  fixed.callback_handle = kUtCallbackHandle;
  fixed.sadbhandle = htonl(tunnel.sadb_handle);
  const uint32_t sa = out_sa_handle(*s);
  SynthesisedRequest req(KESTRIX_PAL_CFLOW_INSERT);
  req.put(fixed)
      .action(KESTRIX_PAL_IN_ACTION, decrypt_action(sa, static_cast<uint32_t>(s->tunnelid)))
      .action(KESTRIX_PAL_OUT_ACTION, encrypt_action(sa));
  uint64_t flow_id = 0;
  kestrix_proc_ins_cflow(agent, req.command(), req.length(), flow_id);
}

void kestrix_proc_del_cflow_test(Agent& agent, const cpa_interface_t& tunnel) {
  const ut_input_t* s = scenario_of(tunnel);
  if (!s) return;
  const auto flow = static_cast<unsigned long long>(s->out_flowid);
  ut_print("\n---^V^V^V flow hdl 0x%llx\n", flow);
  ut_print("tunn id %d flow_handle [%llx]", s->tunnelid, flow);
  kestrix_pal_remove_flow_table_req fixed{};
  fixed.callback_handle = kUtCallbackHandle;
  fixed.sadbhandle = htonl(tunnel.sadb_handle);
  fixed.flow_handle = kestrix_bswap64(s->out_flowid);
  SynthesisedRequest req(KESTRIX_PAL_CFLOW_DELETE);
  req.put(fixed);
  kestrix_proc_del_cflow(agent, req.body<kestrix_pal_remove_flow_table_req>());
}

}  // namespace cpa
