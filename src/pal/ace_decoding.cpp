#include "pal/ace_decoding.h"

#include <arpa/inet.h>

#include <algorithm>

#include "base/log.h"
#include "state/policy_records.h"
#include "wire/byte_order.h"

namespace cpa {
namespace {

void decode_ipv4_selector(const kestrix_crypto_ace_ipv4& in, kestrix_crypto_ace_ipv4& out) {
  out.local_addr = ntohl(in.local_addr);
  out.local_mask = ntohl(in.local_mask);
  out.remote_addr = ntohl(in.remote_addr);
  out.remote_mask = ntohl(in.remote_mask);
  out.protocol = ntohs(in.protocol);
  out.any_port = ntohl(in.any_port);
  kestrix_dp_decode_ace_port(&out.local_port, &in.local_port);
  kestrix_dp_decode_ace_port(&out.remote_port, &in.remote_port);
}

void decode_decrypt(const kestrix_cdh_decrypt_data& in, kestrix_cdh_decrypt_data& out) {
  out.sa = ntohl(in.sa);
  out.post_decrypt_check = kestrix_bswap64(in.post_decrypt_check);
  out.post_decrypt_ivrf = ntohs(in.post_decrypt_ivrf);
  out.reinject = ntohl(in.reinject);
  out.tunnel_id = ntohl(in.tunnel_id);
}

void decode_encrypt(const kestrix_cdh_encrypt_data& in, kestrix_cdh_encrypt_data& out) {
  out.sa = ntohl(in.sa);
  out.post_encrypt_fvrf = ntohs(in.post_encrypt_fvrf);
  out.dummy_generate = ntohl(in.dummy_generate);
}

void decode_notify(const kestrix_cdh_action& in, kestrix_cdh_action& out) {
  out.data.notify_rp_handle = ntohl(in.data.notify_rp_handle);
}

}  // namespace

int kestrix_decode_ace(const kestrix_crypto_ace* in_ace, kestrix_crypto_ace* ace_ptr) {
  if (!in_ace) {
    cpa_log(LOG_DEBUG, "NULL pointer(s) passed");
    return 1;
  }
  if (!ace_ptr) {
    cpa_log(LOG_ERR, "NULL pointer(s) passed");
    return 1;
  }
  ace_ptr->ip_type = ntohl(in_ace->ip_type);
  ace_ptr->type = ntohl(in_ace->type);
  ace_ptr->seqno = ntohs(in_ace->seqno);
  ace_ptr->reverse = ntohl(in_ace->reverse);
  ace_ptr->handle = ntohl(in_ace->handle);
  ace_ptr->hint = ntohl(in_ace->hint);
  // IPv6 selectors are carried but not decoded: the kernel policy code
  // programs IPv4 ACEs only and refuses the others.
  if (ace_ptr->ip_type == crypto_ace_ipv4)
    decode_ipv4_selector(in_ace->selector.ipv4, ace_ptr->selector.ipv4);
  log_ace_summary(
      "ACE: ip_type %d, type %d, seqno %d, reverse %d, handle %d, hint %d, ip4_local_addr 0x%x  "
      "ip4_local_mask %d, ip4_rem_addr 0x%x, ip4_rem_mask %d, protocol %d, any_port %d",
      *ace_ptr);
  return 0;
}

void kestrix_dp_decode_ace_port(kestrix_crypto_ace_port* dst, const kestrix_crypto_ace_port* src) {
  if (!dst || !src) {
    cpa_log(LOG_DEBUG, "Null dst or src");
    return;
  }
  dst->type = ntohl(src->type);
  // A count above the record's capacity is taken as a full list of 10: the
  // bytes after the tenth port belong to the next field, not to this list.
  dst->num_port = std::min<uint8_t>(src->num_port, kAcePortCapacity);
  for (int i = 0; i < dst->num_port; ++i) dst->port[i] = ntohs(src->port[i]);
}

void kestrix_set_action(const kestrix_cdh_action* src_act, kestrix_cdh_action* dst_act) {
  if (!src_act || !dst_act) return;
  dst_act->action = ntohl(src_act->action);
  cpa_log(LOG_DEBUG, "ACTION 0x%x", dst_act->action);
  switch (dst_act->action) {
    case CDH_ACTION_DISCARD_PACKET:
    case CDH_ACTION_FORWARD_PACKET:
      break;
    case CDH_ACTION_DISCARD_PACKET_NOTIFY_RP:
      decode_notify(*src_act, *dst_act);
      break;
    case CDH_ACTION_DECRYPT_PACKET:
      decode_decrypt(src_act->data.decrypt, dst_act->data.decrypt);
      break;
    case CDH_ACTION_ENCRYPT_PACKET:
      decode_encrypt(src_act->data.encrypt, dst_act->data.encrypt);
      break;
    default:
      cpa_log(LOG_ERR, "WRONG CDH_ACTION");
  }
}

int kestrix_action_get(uint32_t act_type, const kestrix_cdh_action* src_act,
                       kestrix_cdh_action* dst_act) {
  if (!src_act || !dst_act) {
    cpa_log(LOG_DEBUG, "Null dst or src act");
    return 1;
  }
  if (act_type != KESTRIX_PAL_IN_ACTION && act_type != KESTRIX_PAL_OUT_ACTION) {
    cpa_log(LOG_ERR, "Wrong action type! ");
    return 1;
  }
  dst_act->action = ntohl(src_act->action);
  if (act_type == KESTRIX_PAL_IN_ACTION) {
    if (dst_act->action != CDH_ACTION_DECRYPT_PACKET) return 1;
    cpa_log(LOG_DEBUG, "CDH_ACTION_DECRYPT_PACKET");
    decode_decrypt(src_act->data.decrypt, dst_act->data.decrypt);
    return 0;
  }
  switch (dst_act->action) {
    case CDH_ACTION_ENCRYPT_PACKET:
      decode_encrypt(src_act->data.encrypt, dst_act->data.encrypt);
      return 0;
    case CDH_ACTION_DISCARD_PACKET_NOTIFY_RP:
      decode_notify(*src_act, *dst_act);
      return 0;
    default:
      return 1;
  }
}

}  // namespace cpa
