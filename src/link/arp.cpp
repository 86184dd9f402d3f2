#include "link/arp.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "netlink/nl_message.h"

namespace cpa {
namespace {

constexpr size_t kHeaderSize = NLMSG_ALIGN(sizeof(nlmsghdr));

// Whether a link message's IFLA_IFNAME is ethgrp0.
bool names_arp_interface(ReceivedBytes msg) {
  const auto name = nl_attrs_after(msg, NLMSG_ALIGN(sizeof(ifinfomsg))).find(IFLA_IFNAME);
  const size_t want = std::strlen(kArpInterface);
  return name && name->size() > want && std::memcmp(name->data(), kArpInterface, want) == 0 &&
         name->data()[want] == 0;
}

}  // namespace

void ArpPort::watch_interface() {
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_LINK;
  std::array<uint8_t, 64> buf{};
  NlMessage query(buf);
  query.put_header(RTM_GETLINK, NLM_F_REQUEST);
  query.put_body(ifinfomsg{});
  query.put_attr_strz(IFLA_IFNAME, kArpInterface);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (bind(events_.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) < 0 ||
      sendto(events_.get(), query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0)
    cpa_log(LOG_ERR, "Error watching for %s, reason %s\n", kArpInterface, std::strerror(errno));
}

void ArpPort::on_link_events() {
  alignas(nlmsghdr) uint8_t buf[8192];
  const ssize_t n = recv(events_.get(), buf, sizeof buf, MSG_DONTWAIT);
  if (n <= 0) {
    // An overrun loses events: ask again rather than miss ethgrp0.
    if (n < 0 && errno == ENOBUFS) watch_interface();
    return;
  }
  ReceivedBytes rest(buf, static_cast<size_t>(n));
  for (;;) {
    const auto header = rest.read<nlmsghdr>(0);
    if (!header || header->nlmsg_len < kHeaderSize || header->nlmsg_len > rest.size()) return;
    on_link_message(rest.slice(0, header->nlmsg_len));
    const size_t next = NLMSG_ALIGN(header->nlmsg_len);
    if (next >= rest.size()) return;
    rest = rest.slice(next, rest.size() - next);
  }
}

void ArpPort::on_link_message(ReceivedBytes msg) {
  const nlmsghdr header = *msg.read<nlmsghdr>(0);
  if (header.nlmsg_type == NLMSG_ERROR) {  // the start-up query's answer: no ethgrp0 yet
    const auto err = msg.read<nlmsgerr>(kHeaderSize);
    if (err && err->error < 0)
      cpa_log(LOG_ERR, "Error getting Interface index ! reason %s\n", std::strerror(-err->error));
    return;
  }
  const auto link = msg.read<ifinfomsg>(kHeaderSize);
  if (header.nlmsg_type != RTM_NEWLINK || !link || link->ifi_index == ifindex_ || !names_arp_interface(msg)) return;
  bind_to(link->ifi_index);
}

void ArpPort::bind_to(int ifindex) {
  sockaddr_ll link{};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_ARP);
  link.sll_ifindex = ifindex;
  if (bind(frames_.get(), reinterpret_cast<sockaddr*>(&link), sizeof link) < 0) {
    cpa_log(LOG_ERR, "Error binding socket to interface reason %s\n", std::strerror(errno));
    return;
  }
  cpa_log(LOG_INFO, "ARP BIND is OK");
  ifindex_ = ifindex;
}

}  // namespace cpa
