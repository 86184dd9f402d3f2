#include "kernel/linux_sa_counters.h"

#include <linux/netlink.h>
#include <linux/xfrm.h>

#include "kernel/kernel_dialect.h"
#include "netlink/nl_message.h"

namespace cpa {
namespace {

constexpr size_t kBodyAt = NLMSG_HDRLEN;

}  // namespace

std::optional<KernelSaCounters> linux_sa_counters_of(ReceivedBytes msg) {
  const auto header = msg.read<nlmsghdr>(0);
  if (!header || header->nlmsg_type != ::XFRM_MSG_NEWSA) return std::nullopt;
  const ReceivedBytes within = msg.slice(0, header->nlmsg_len);
  const auto sa = within.read<::xfrm_usersa_info>(kBodyAt);
  if (!sa) return std::nullopt;
  KernelSaCounters c;
  c.bytes = sa->curlft.bytes;
  c.packets = sa->curlft.packets;
  c.replay_failures = sa->stats.replay;
  c.integrity_failures = sa->stats.integrity_failed;
  const NlAttrs attrs = nl_attrs_after(msg, sizeof(::xfrm_usersa_info));
  // The attributes carry the same lifetime, and the sequence numbers.
  if (const auto cur = attrs.read<::xfrm_lifetime_cur>(::XFRMA_LTIME_VAL)) {
    c.bytes = cur->bytes;
    c.packets = cur->packets;
  }
  if (const auto state = attrs.read<::xfrm_replay_state>(::XFRMA_REPLAY_VAL)) {
    c.oseq = state->oseq;
    c.seq = state->seq;
  }
  return c;
}

std::optional<KernelSaCounters> kestrix_linux_sa_counters(NetlinkTransport& nl,
                                                          const kestrix_addr& dst, uint32_t spi,
                                                          uint8_t proto) {
  XfrmRequest request(nl);
  linux_dialect().build_sa_getordel(request, 0, dst, spi, proto);
  net_buf answer;
  if (nl.send(request.msg, answer) != 0) return std::nullopt;
  return linux_sa_counters_of(ReceivedBytes(answer.data(), answer.size()));
}

}  // namespace cpa
