#include "kernel/xfrm_sa.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "diag/log.h"
#include "kernel/xfrm_algorithms.h"
#include "state/tunnel_table.h"
#include "wire/xfrm_platform.h"

namespace cpa {
namespace {

constexpr uint32_t kAeadIcvBits = 128;

xfrm_usersa_info_64 sa_body(const kestrix_ce_cipher_list_t& sa_info, uint32_t reqid,
                            int g_replay_window_size) {
  const kestrix_ce_cipher_info& ci = sa_info.ce_cipher;
  xfrm_usersa_info_64 sa{};
  sa.lft.soft_byte_limit = kXfrmInfinity;
  sa.lft.hard_byte_limit = kXfrmInfinity;
  sa.lft.soft_packet_limit = kXfrmInfinity;
  sa.lft.hard_packet_limit = kXfrmInfinity;
  sa.lft.soft_add_expires_seconds = ci.soft_time_lifetime;
  sa.lft.hard_add_expires_seconds = ci.hard_time_lifetime;
  sa.sel.family = AF_INET;  // any traffic: the policy does the selecting
  sa.family = AF_INET;
  sa.saddr.a4 = htonl(ci.source.ip_address);
  sa.id.daddr.a4 = htonl(ci.dest.ip_address);
  if (ci.esp_used) {
    sa.id.spi = htonl(ci.esp_spi);
    sa.id.proto = kIpProtoEsp;
  } else if (ci.ah_used) {
    sa.id.spi = htonl(ci.ah_spi);
    sa.id.proto = kIpProtoAh;
  }
  sa.mode = static_cast<uint8_t>(ci.mode);
  sa.reqid = reqid;
  sa.replay_window = ci.antireplay_window_size == kAntiReplayDisabled
                         ? 0
                         : static_cast<uint8_t>(g_replay_window_size);
  return sa;
}

// The key bytes a record holds; its length never reaches past the key store.
size_t key_bytes(const kestrix_key_val_t& key) { return std::min<size_t>(key.len, kMaxKeyBytes); }

// Appends an algorithm attribute: the header `Algo` named `name` with the
// key's length in bits (and `icv_bits` for AEAD), followed by the key bytes.
template <class Algo>
void append_algo(NetlinkTransport& nl, uint16_t atype, const char* name, const kestrix_key_val_t& key,
                 uint32_t icv_bits = 0) {
  uint8_t payload[sizeof(Algo) + kMaxKeyBytes] = {};
  Algo header{};
  std::memcpy(header.alg_name, name, std::min(std::strlen(name), sizeof header.alg_name));
  header.alg_key_len = static_cast<uint32_t>(key_bytes(key) * 8);
  if constexpr (requires { header.alg_icv_len; }) header.alg_icv_len = icv_bits;
  std::memcpy(payload, &header, sizeof header);
  std::memcpy(payload + sizeof header, key.data, key_bytes(key));
  nl.append_attr(atype, payload, sizeof header + key_bytes(key));
}

bool append_esp_cipher(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info) {
  const uint32_t cipher = sa_info.ce_cipher.esp_cipher;
  const char* name = kestrix_enc_algo_name(cipher);
  if (!name) return false;
  if (cipher == KESTRIX_CE_GCM || cipher == KESTRIX_CE_GMAC)
    append_algo<xfrm_algo_aead>(nl, XFRMA_ALG_AEAD, name, sa_info.esp_key_info, kAeadIcvBits);
  else
    append_algo<xfrm_algo>(nl, XFRMA_ALG_CRYPT, name, sa_info.esp_key_info);
  return true;
}

bool append_auth(NetlinkTransport& nl, uint32_t mac, const kestrix_key_val_t& key) {
  const char* name = kestrix_auth_algo_name(mac);
  if (!name) return false;
  append_algo<xfrm_algo>(nl, XFRMA_ALG_AUTH, name, key);
  return true;
}

// ESP's cipher (and MAC, when it has one), then AH's MAC; false when a code
// has no kernel name.
bool append_algorithms(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info) {
  const kestrix_ce_cipher_info& ci = sa_info.ce_cipher;
  if (ci.esp_used) {
    if (!append_esp_cipher(nl, sa_info)) return false;
    if (ci.esp_mac && !append_auth(nl, ci.esp_mac, sa_info.esp_mac_key_info)) return false;
  }
  return !ci.ah_used || append_auth(nl, ci.ah_mac, sa_info.ah_key_info);
}

}  // namespace

int kestrix_nlink_sa_add(NetlinkTransport& nl, const kestrix_ce_cipher_list_t& sa_info,
                         uint32_t tunid, uint32_t reqid, cpa_netlink_ctr_t* sctr,
                         int g_replay_window_size) {
  if (sctr) sctr->req++;
  const xfrm_usersa_info_64 sa = sa_body(sa_info, reqid, g_replay_window_size);
  nl.begin_request(XFRM_MSG_NEWSA, nl.port_id(), &sa, sizeof sa);
  const uint32_t svti = nl.get_svtiindex(tunid);
  cpa_log(LOG_DEBUG, "svti %d tunid %d", svti, tunid);
  nl.append_attr(XFRMA_SVTI_IFINDEX, &svti, sizeof svti);
  if (!append_algorithms(nl, sa_info)) {
    cpa_log(LOG_ERR, "Invalid algo..");
    count_outcome(sctr, 1);
    return 1;
  }
  net_buf answer;
  const int rc = nl.send_req(answer);
  cpa_log(LOG_DEBUG, "%s: netlink SA create status", rc == 0 ? "SUCCESS" : "FAIL");
  count_outcome(sctr, rc);
  return rc;
}

int kestrix_nlink_sa_getordel(NetlinkTransport& nl, int del, const kestrix_addr& dst, uint32_t spi,
                              uint8_t proto, cpa_netlink_ctr_t* sctr) {
  cpa_netlink_ctr_t* counted = del ? sctr : nullptr;  // a get is never counted
  if (counted) counted->req++;
  xfrm_usersa_id_saddr body{};
  body.id.daddr.a4 = htonl(dst.ip_address);
  body.id.spi = htonl(spi);
  body.id.family = AF_INET;
  body.id.proto = proto;
  nl.begin_request(del ? XFRM_MSG_DELSA : XFRM_MSG_GETSA, nl.port_id(), &body, sizeof body);
  net_buf answer;
  const int rc = nl.send_req(answer);
  count_outcome(counted, rc);
  return rc;
}

}  // namespace cpa
