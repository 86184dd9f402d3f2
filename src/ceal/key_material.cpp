#include "ceal/key_material.h"

#include <arpa/inet.h>

#include <cstring>
#include <optional>

#include "ceal/ceal_dispatcher.h"
#include "base/log.h"
#include "state/cipher_claim.h"
#include "wire/byte_order.h"

namespace cpa {
namespace {

void decode_addr(const kestrix_addr& src, kestrix_addr& dest) {
  dest.type = src.type;
  dest.length = src.length;
  dest.ip_address = ntohl(src.ip_address);  // only IPv4 is carried
}

struct Tlv {
  uint16_t type;
  uint16_t len;
};

// Walks the key TLVs. `area` holds only bytes that are both inside the key
// area and received; `left` counts down from the key area's length as a
// signed 16-bit number, which is what ends the walk.
class KeyParse {
 public:
  KeyParse(ReceivedBytes area, uint16_t key_len) : area_(area), left_(static_cast<int16_t>(key_len)) {}

  int16_t left() const { return left_; }
  bool next_is(uint16_t type) const {
    const auto wire = area_.read<uint16_t>(pos_);
    return wire && ntohs(*wire) == type;
  }

  // The TLV at the cursor, or nothing (after its log line) when its header
  // lies past the key area or past the received bytes.
  std::optional<Tlv> header() const {
    const auto tlv = area_.read<kestrix_tlv_msg>(pos_);
    if (!tlv) {
      cpa_log(LOG_ERR, "Key TLV at key byte %zu has no room for its header, key parse ended", pos_);
      return std::nullopt;
    }
    return Tlv{ntohs(tlv->type), ntohs(tlv->len)};
  }

  // Copies the TLV's key into `key` and steps past it. A key that would not
  // fit a stored key or runs past the key area (or the received bytes) ends
  // the parse instead: false, after one log line; earlier keys stay.
  bool store(const Tlv& tlv, kestrix_key_val_t& key) {
    const ReceivedBytes data = area_.slice(pos_ + sizeof(kestrix_tlv_msg), tlv.len);
    if (tlv.len > kMaxKeyBytes || data.size() != tlv.len) {
      cpa_log(LOG_ERR, "Key TLV type %d len %d at key byte %zu does not fit, key parse ended", tlv.type,
              tlv.len, pos_);
      return false;
    }
    key.type = tlv.type;
    key.len = tlv.len;
    if (tlv.len) std::memcpy(key.data, data.data(), tlv.len);
    skip(tlv);
    return true;
  }

  void skip(const Tlv& tlv) {
    const int step = static_cast<int>(sizeof(kestrix_tlv_msg)) + tlv.len;
    pos_ += step;
    left_ = static_cast<int16_t>(left_ - step);
  }

 private:
  ReceivedBytes area_;
  size_t pos_ = 0;
  int16_t left_;
};

// The key area ended right after the ESP cipher key: true when an ESP MAC key
// should have followed.
bool esp_mac_key_missing(const kestrix_ce_cipher_list_t& cipher, int16_t left) {
  if (cipher.ce_cipher.esp_mac == KESTRIX_CE_NO_MAC) return false;
  cpa_log(LOG_ERR, "**** ceal_key_len is %d  ****** %d\n", left, 0);
  cpa_log(LOG_ERR, "**** ceal_key_len is %d  ****** %d\n", left, 1);
  return true;
}

// `api` as native 32-bit words, eight to a line, then the bytes left over.
void dump_words(ReceivedBytes api) {
  const auto word = [&api](size_t at) { return api.read<uint32_t>(at).value_or(0); };
  size_t pos = 0;
  for (; api.size() - pos >= 32; pos += 32)
    cpa_log(LOG_DEBUG, "0x%08x 0x%08x 0x%08x 0x%08x 0x%08x 0x%08x 0x%08x 0x%08x", word(pos), word(pos + 4),
            word(pos + 8), word(pos + 12), word(pos + 16), word(pos + 20), word(pos + 24), word(pos + 28));
  for (; api.size() - pos >= 4; pos += 4) cpa_log(LOG_DEBUG, "0x%08x ", word(pos));
  for (; pos < api.size(); ++pos) cpa_log(LOG_DEBUG, "0x%02x ", api.data()[pos]);
}

// The request as native 32-bit words from the first byte of `ceal_api`, as
// far as message_length and the received bytes both reach, but never into
// the key area: one line counts the key bytes left out.
void dump_request(ReceivedBytes msg, uint16_t message_length) {
  const ReceivedBytes whole = msg.slice(kCealBodyOffset, message_length);
  const ReceivedBytes api = whole.slice(0, kCealKeyAreaOffset - kCealBodyOffset);
  dump_words(api);
  cpa_log(LOG_DEBUG, "request dump left out %zu key bytes", whole.size() - api.size());
}

void log_esp_mac_missing(const kestrix_ce_cipher_info& c, ReceivedBytes msg, uint16_t message_length) {
  cpa_log(LOG_DEBUG,
          "\noutbound [%d], esp_used [%d],\nesp_cipher [%d], esp_cipher_key_length [%d],\nesp_mac [%d],    "
          "esp_spi [%x],\nah_used [%d],    ah_mac [%d],    ah_spi [%x],\n",
          c.outbound, c.esp_used, c.esp_cipher, c.esp_cipher_key_length, c.esp_mac, c.esp_spi, c.ah_used,
          c.ah_mac, c.ah_spi);
  if (message_length) dump_request(msg, message_length);
}

}  // namespace

void kestrix_ceal_decode_cipher_info(const kestrix_ce_cipher_info& src, kestrix_ce_cipher_info& dest) {
  dest.outbound = ntohl(src.outbound);
  dest.esp_used = ntohl(src.esp_used);
  dest.esp_cipher = ntohl(src.esp_cipher);
  dest.esp_cipher_key_length = ntohl(src.esp_cipher_key_length);
  dest.esp_mac = ntohl(src.esp_mac);
  dest.esp_spi = ntohl(src.esp_spi);
  dest.ah_used = ntohl(src.ah_used);
  dest.ah_mac = ntohl(src.ah_mac);
  dest.ah_spi = ntohl(src.ah_spi);
  dest.ippcp_used = ntohl(src.ippcp_used);
  dest.cpi = ntohs(src.cpi);
  dest.antireplay_window_size = ntohl(src.antireplay_window_size);
  decode_addr(src.source, dest.source);
  decode_addr(src.dest, dest.dest);
  char source[16], destination[16];
  cpa_log(LOG_DEBUG, "decode ce info src ip [%s] dst ip[%s] dir %d",
          kestrix_num2ip4(dest.source.ip_address, source), kestrix_num2ip4(dest.dest.ip_address, destination),
          dest.outbound);
  dest.preserve_header = ntohl(src.preserve_header);
  dest.tunnel_id = ntohl(src.tunnel_id);
  dest.mode = ntohl(src.mode);
  dest.inner_format = ntohl(src.inner_format);
  dest.outer_format = ntohl(src.outer_format);
  dest.ipv4_df_setting = ntohl(src.ipv4_df_setting);
  dest.ipv6_flow_label = ntohl(src.ipv6_flow_label);
  dest.do_antireplay_check = ntohl(src.do_antireplay_check);
  dest.extended_sequence_number = ntohl(src.extended_sequence_number);
  dest.ipsec_inline_tagging_enabled = ntohl(src.ipsec_inline_tagging_enabled);
  dest.udp_encaps = ntohl(src.udp_encaps);
  dest.udp_source_port = ntohs(src.udp_source_port);
  dest.udp_dest_port = ntohs(src.udp_dest_port);
  decode_addr(src.orig_remote_ip_addr, dest.orig_remote_ip_addr);
  dest.ctcp_encaps = ntohl(src.ctcp_encaps);
  dest.standby = ntohl(src.standby);
  dest.peer_handle = ntohl(src.peer_handle);
  dest.soft_time_lifetime = kestrix_bswap64(src.soft_time_lifetime);
  dest.hard_time_lifetime = kestrix_bswap64(src.hard_time_lifetime);
  dest.soft_volume_lifetime = kestrix_bswap64(src.soft_volume_lifetime);
  dest.hard_volume_lifetime = kestrix_bswap64(src.hard_volume_lifetime);
  dest.negotiated_lifetime = kestrix_bswap64(src.negotiated_lifetime);
  dest.sa_handle = ntohl(src.sa_handle);
  dest.prefrag_setting = ntohl(src.prefrag_setting);
  dest.initial_mtu = ntohs(src.initial_mtu);
  dest.plaintext_mtu = ntohs(src.plaintext_mtu);
  dest.cmd_handle = ntohl(src.cmd_handle);
  dest.qos_group = ntohs(src.qos_group);
  dest.qos_preclassify = src.qos_preclassify;
  dest.HA_ipsec_update_interval = ntohl(src.HA_ipsec_update_interval);
  dest.transform_negotiated_flags = ntohl(src.transform_negotiated_flags);
  dest.support_dummy_packet = ntohl(src.support_dummy_packet);
}

// Below 277 the unsigned difference would wrap into a key area that is not
// there: such a request is taken as one without keys.
uint16_t ceal_key_len(uint16_t message_length) {
  return message_length < kCealCommandSize ? 0 : static_cast<uint16_t>(message_length - kCealCommandSize);
}

// A key of unknown type is stepped over by its length, so that a newer kind
// of key does not hide the ones after it.
bool kestrix_ceal_fetch_keyinfo(ReceivedBytes key_area, kestrix_ce_cipher_list_t& cipher,
                                uint16_t ceal_key_len) {
  cpa_log(LOG_DEBUG, "ceal_key_len %d", ceal_key_len);
  if (ceal_key_len == 0) return false;
  KeyParse keys(key_area.slice(0, ceal_key_len), ceal_key_len);
  do {
    const auto tlv = keys.header();
    if (!tlv) return false;
    switch (tlv->type) {
      case KESTRIX_CE_CIPHER_INFO_TYPE_ESP_KEY:
        if (!keys.store(*tlv, cipher.esp_key_info)) return false;
        if (keys.left() <= 0) return esp_mac_key_missing(cipher, keys.left());
        if (keys.next_is(KESTRIX_CE_CIPHER_INFO_TYPE_ESP_MAC)) {
          const auto mac = keys.header();
          if (!mac || !keys.store(*mac, cipher.esp_mac_key_info)) return false;
        }
        break;
      case KESTRIX_CE_CIPHER_INFO_TYPE_ESP_MAC:
        if (!keys.store(*tlv, cipher.esp_mac_key_info)) return false;
        break;
      case KESTRIX_CE_CIPHER_INFO_TYPE_AH:
        if (!keys.store(*tlv, cipher.ah_key_info)) return false;
        break;
      default:
        cpa_log(LOG_ERR, "Error: ceal_key_len %d\n", keys.left());
        keys.skip(*tlv);
    }
  } while (keys.left() > 0);
  return false;
}

// The record is stored and the RP told CRYPTO_NO_ERR whatever the key area
// held: a bad key area is only logged.
// Past kMaxWaitingCipherRecords (after the overdue ones went) the request
// is refused, and nothing is stored.
int ceal_create_key_by_keys(Agent& agent, ReceivedBytes msg, std::vector<uint8_t>& response) {
  const int64_t now_s = agent.sys.clock.monotonic_now().tv_sec;
  release_unclaimed(agent.cipher_info_list, now_s, agent.next_cipher_sweep_s);
  if (agent.cipher_info_list.size() >= kMaxWaitingCipherRecords) {
    cpa_log(LOG_ERR, "CREATE_KEY: %zu cipher records wait for their SA already, request refused",
            agent.cipher_info_list.size());
    ceal_answer_handle(msg, response, CRYPTO_ERR_RESOURCES);
    return 0;
  }
  auto record = new_record<kestrix_ce_cipher_list_t>();
  if (!record) {
    cpa_log(LOG_ERR, "malloc: Resource unavailable for cipher_node in CREATE_KEY");
    return 1;
  }
  // A body cut short by the datagram's end reads as zeros where nothing arrived.
  const auto req = msg.read_padded<kestrix_ce_key_create_keys_req>(kCealBodyOffset);
  record->ipsec_index = static_cast<int32_t>(ntohl(static_cast<uint32_t>(req->ipsec_index)));
  record->ipsec_sa = ntohl(req->ipsec_sa);
  kestrix_ceal_decode_cipher_info(req->ce_cipher, record->ce_cipher);

  const uint16_t message_length = ntohs(msg.read_padded<kestrix_cp_dp_msg_t>(0)->message_length);
  const uint16_t key_len = ceal_key_len(message_length);
  cpa_log(LOG_DEBUG, "Length of the keys %d\n", key_len);
  if (kestrix_ceal_fetch_keyinfo(msg.slice(kCealKeyAreaOffset), *record, key_len))
    log_esp_mac_missing(record->ce_cipher, msg, message_length);

  // It waits there until its SA claims it or it is overdue.
  record->waiting_since = now_s;
  cpa_log(LOG_DEBUG, " \ninsert cipher node - [0x%x]", log_addr(record.get()));
  insert_node_cipher_info(agent.cipher_info_list, std::move(record));
  ceal_answer_handle(msg, response, CRYPTO_NO_ERR);
  return 0;
}

}  // namespace cpa
