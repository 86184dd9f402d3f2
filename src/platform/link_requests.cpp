#include "platform/link_requests.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>

#include "netlink/nl_message.h"

namespace cpa {
namespace {

constexpr char kXfrmInterfaceKind[] = "xfrm";
// Room for a name, a kind and an interface id, nested.
constexpr size_t kLinkRequestRoom = 256;

using LinkBuffer = std::array<uint8_t, kLinkRequestRoom>;

// Starts a link request: header and an ifinfomsg for any family.
void begin_link(NlMessage& msg, uint16_t type, uint16_t flags) {
  msg.put_header(type, static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags), 0, 1);
  ifinfomsg info{};
  info.ifi_family = AF_UNSPEC;
  msg.put_body(info);
}

// The whole message, or nothing when a part of it did not fit.
std::vector<uint8_t> finished(const NlMessage& msg) {
  if (!msg.complete()) return {};
  return {msg.bytes().begin(), msg.bytes().end()};
}

}  // namespace

std::vector<uint8_t> new_xfrm_interface_request(const char* ifname, uint32_t if_id) {
  LinkBuffer buffer{};
  NlMessage msg(buffer);
  begin_link(msg, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  msg.put_attr_strz(IFLA_IFNAME, ifname);
  const NlNest linkinfo = msg.nest_start(IFLA_LINKINFO);
  msg.put_attr_strz(IFLA_INFO_KIND, kXfrmInterfaceKind);
  const NlNest data = msg.nest_start(IFLA_INFO_DATA);
  msg.put_attr(IFLA_XFRM_IF_ID, if_id);
  msg.nest_end(data);
  msg.nest_end(linkinfo);
  return finished(msg);
}

std::vector<uint8_t> delete_link_request(const char* ifname) {
  LinkBuffer buffer{};
  NlMessage msg(buffer);
  begin_link(msg, RTM_DELLINK, 0);
  msg.put_attr_strz(IFLA_IFNAME, ifname);
  return finished(msg);
}

}  // namespace cpa
