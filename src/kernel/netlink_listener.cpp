#include "kernel/netlink_listener.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "base/log.h"
#include "kernel/kernel_dialect.h"
#include "kernel/netlink_transport.h"
#include "netlink/nl_message.h"
#include "wire/xfrm_platform.h"

namespace cpa {
namespace {

constexpr size_t kHeaderSize = sizeof(nlmsghdr);

int log_only(const NetlinkListenerContext&, ReceivedBytes) { return 0; }

int new_policy(const NetlinkListenerContext& ctx, ReceivedBytes msg) {
  ctx.counters.n_notify_new_policy_req++;
  return kestrix_nlink_proc_policy(ctx, msg);
}

int acquire(const NetlinkListenerContext& ctx, ReceivedBytes msg) {
  ctx.counters.n_notify_acquire_msg++;
  return kestrix_nlink_proc_acquire(ctx, msg);
}

struct EventEntry {
  uint16_t type;
  const char* label;
  int (*action)(const NetlinkListenerContext&, ReceivedBytes);  // its result is not looked at
};

const EventEntry kEvents[] = {
    {XFRM_MSG_NEWSA, "XFRM_MSG_NEWSA:", log_only},
    {XFRM_MSG_DELSA, "XFRM_MSG_DELSA:", log_only},
    {XFRM_MSG_NEWPOLICY, "XFRM_MSG_NEWPOLICY::", new_policy},
    {XFRM_MSG_DELPOLICY, "XFRM_MSG_DELPOLICY:", log_only},
    {XFRM_MSG_ACQUIRE, "XFRM_MSG_ACQUIRE:", acquire},
    {XFRM_MSG_EXPIRE, "XFRM_MSG_EXPIRE:", log_only},
    {XFRM_MSG_UPDPOLICY, "XFRM_MSG_UPDPOLICY:", log_only},
    {XFRM_MSG_UPDSA, "XFRM_MSG_UPDSA:", log_only},
    {XFRM_MSG_POLEXPIRE, "XFRM_MSG_POLEXPIRE:", log_only},
    {XFRM_MSG_FLUSHSA, "XFRM_MSG_FLUSHSA:", log_only},
    {XFRM_MSG_FLUSHPOLICY, "XFRM_MSG_FLUSHPOLICY:", log_only},
    {XFRM_MSG_NEWAE, "XFRM_MSG_NEWAE:", log_only},
    {XFRM_MSG_REPORT, "XFRM_MSG_REPORT:", log_only},
};

uint16_t type_of(ReceivedBytes msg) { return msg.read_padded<nlmsghdr>(0)->nlmsg_type; }

// The tunnel named by the request id of the template among the attributes
// behind a body of `body_size` bytes; nothing (logged) when there is none.
std::optional<uint32_t> tunnel_of_template(const NetlinkListenerContext& ctx, ReceivedBytes msg, size_t body_size,
                                           const char* no_tunnel) {
  // A template too short to hold its request id names no tunnel either.
  constexpr size_t kReqidAt = offsetof(xfrm_user_tmpl, reqid);
  const auto tmpl = nl_attrs_after(msg, body_size).find(XFRMA_TMPL, kReqidAt + sizeof(uint32_t));
  const auto reqid = tmpl ? tmpl->read<uint32_t>(kReqidAt) : std::nullopt;
  if (!reqid) {
    cpa_log(LOG_ERR, "ERROR: requested rta not found: %s", "XFRMA_TMPL");
    return std::nullopt;
  }
  uint32_t index = 0;
  if (ctx.tunnels.kestrix_sadb_lookup_by_reqid(&index, *reqid) != 0) {
    cpa_log(LOG_ERR, "%s", no_tunnel);
    return std::nullopt;
  }
  return index;
}

}  // namespace

int kestrix_nlink_proc_policy(const NetlinkListenerContext& ctx, ReceivedBytes msg) {
  // Only new policies reach this from the listener; deletions and expiries
  // are read the same way from their own bodies.
  const uint16_t type = type_of(msg);
  const PolicyEventBody* body = nullptr;
  for (const PolicyEventBody& b : dialect_of(ctx.nlink).policy_events())
    if (b.type == type) body = &b;
  if (!body) {
    cpa_log(LOG_ERR, "Wrong message, not a policy");
    return 1;
  }
  const auto tunnel = tunnel_of_template(ctx, msg, body->size, " netlink process message error ");
  if (!tunnel) return 1;
  const uint32_t k_index = msg.read_padded<uint32_t>(kHeaderSize + body->index_at).value;
  const uint8_t dir = msg.read_padded<uint8_t>(kHeaderSize + body->dir_at).value;
  return ctx.events.kestrix_policy_index_update(*tunnel, k_index, dir);
}

int kestrix_nlink_proc_acquire(const NetlinkListenerContext& ctx, ReceivedBytes msg) {
  if (type_of(msg) != XFRM_MSG_ACQUIRE) {
    cpa_log(LOG_ERR, "Wrong msg, not acquire!");
    return 1;
  }
  const KernelDialect& dialect = dialect_of(ctx.nlink);
  const auto tunnel = tunnel_of_template(ctx, msg, dialect.acquire_size(),
                                         "Process an acquire notification ERROR");
  if (!tunnel) return 1;
  const xfrm_user_acquire_64 acq = dialect.acquire(msg.slice(kHeaderSize));
  return ctx.events.kestrix_notify_rp(&acq, *tunnel);
}

int kestrix_nlink_process_msg(const NetlinkListenerContext& ctx, ReceivedBytes msg) {
  const nlmsghdr nh = msg.read_padded<nlmsghdr>(0).value;
  for (const EventEntry& event : kEvents) {
    if (event.type == nh.nlmsg_type) {
      cpa_log(LOG_DEBUG, "%s", event.label);
      event.action(ctx, msg);
      return 0;
    }
  }
  cpa_log(LOG_DEBUG, "msg type %d\n", nh.nlmsg_type);
  if (nh.nlmsg_type < NLMSG_NOOP || nh.nlmsg_type > NLMSG_DONE)
    cpa_log(LOG_ERR, "Unknown message: %08d 0x%08x 0x%08x\n", nh.nlmsg_len, nh.nlmsg_type,
            nh.nlmsg_flags);
  return 0;
}

bool kestrix_nlink_handle_datagram(const NetlinkListenerContext& ctx, ReceivedBytes datagram) {
  const auto nh = datagram.read<nlmsghdr>(0);
  if (!nh || nh->nlmsg_len < kHeaderSize || nh->nlmsg_len > datagram.size()) {
    cpa_log(LOG_ERR, "ERROR: NLMSG_OK failed!");
    return false;
  }
  // The kernel's own events (port id 0) and the echoes of the agent's
  // requests are handled; events caused by other processes' requests are not.
  if (nh->nlmsg_pid == 0 || nh->nlmsg_pid == ctx.nlink.port_id())
    kestrix_nlink_process_msg(ctx, datagram.slice(0, nh->nlmsg_len));
  return true;
}

int kestrix_nlink_listener(const NetlinkListenerContext& ctx, int nl_fd) {
  // The main thread's only: off its stack, and large enough for any event whole.
  static std::array<uint8_t, kEventBufSize> datagram;
  for (;;) {
    const ssize_t n = recvfrom(nl_fd, datagram.data(), datagram.size(), MSG_DONTWAIT, nullptr, nullptr);
    if (n == 0) {
      cpa_log(LOG_ERR, "netlink receive EOF! ");
      return 1;
    }
    if (n < 0) {
      const int err = errno;
      if (err == EAGAIN) return 0;  // nothing (more) queued: back to the main loop
      if (err == EINTR || err == ENOMEM || err == ENOBUFS) {
        cpa_log(LOG_ERR, "Got errno: %d\n", err);
        continue;
      }
      cpa_log(LOG_ERR, "netlink receive error %s (%d)\n", std::strerror(err), err);
      return 1;
    }
    if (kestrix_nlink_handle_datagram(ctx, ReceivedBytes(datagram.data(), static_cast<size_t>(n)))) return 0;
    ctx.counters.n_event_drop++;
  }
}

}  // namespace cpa
