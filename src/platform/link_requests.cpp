#include "platform/link_requests.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace cpa {
namespace {

constexpr char kXfrmInterfaceKind[] = "xfrm";

// A link message being built: header, ifinfomsg, then attributes, each at
// the 4-byte-aligned end, nests closed once their content is in.
class LinkMessage {
 public:
  LinkMessage(uint16_t type, uint16_t flags) : bytes_(NLMSG_LENGTH(sizeof(ifinfomsg))) {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header.nlmsg_seq = 1;
    std::memcpy(bytes_.data(), &header, sizeof header);
    ifinfomsg info{};
    info.ifi_family = AF_UNSPEC;
    std::memcpy(bytes_.data() + NLMSG_HDRLEN, &info, sizeof info);
  }

  void put(uint16_t type, const void* data, size_t len) {
    const size_t at = begin_nest(type);
    bytes_.resize(at + RTA_LENGTH(len));
    std::memcpy(bytes_.data() + at + RTA_LENGTH(0), data, len);
    end_nest(at);
  }
  void put_string(uint16_t type, const char* text) { put(type, text, std::strlen(text) + 1); }

  size_t begin_nest(uint16_t type) {
    bytes_.resize(NLMSG_ALIGN(bytes_.size()));
    const size_t at = bytes_.size();
    const rtattr header{static_cast<uint16_t>(RTA_LENGTH(0)), type};
    bytes_.resize(at + sizeof header);
    std::memcpy(bytes_.data() + at, &header, sizeof header);
    return at;
  }
  void end_nest(size_t at) {
    const auto rta_len = static_cast<uint16_t>(bytes_.size() - at);
    std::memcpy(bytes_.data() + at + offsetof(rtattr, rta_len), &rta_len, sizeof rta_len);
  }

  std::vector<uint8_t> take() {
    bytes_.resize(NLMSG_ALIGN(bytes_.size()));
    const auto len = static_cast<uint32_t>(bytes_.size());
    std::memcpy(bytes_.data() + offsetof(nlmsghdr, nlmsg_len), &len, sizeof len);
    return std::move(bytes_);
  }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace

std::vector<uint8_t> new_xfrm_interface_request(const char* ifname, uint32_t if_id) {
  LinkMessage msg(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  msg.put_string(IFLA_IFNAME, ifname);
  const size_t linkinfo = msg.begin_nest(IFLA_LINKINFO);
  msg.put_string(IFLA_INFO_KIND, kXfrmInterfaceKind);
  const size_t data = msg.begin_nest(IFLA_INFO_DATA);
  msg.put(IFLA_XFRM_IF_ID, &if_id, sizeof if_id);
  msg.end_nest(data);
  msg.end_nest(linkinfo);
  return msg.take();
}

std::vector<uint8_t> delete_link_request(const char* ifname) {
  LinkMessage msg(RTM_DELLINK, 0);
  msg.put_string(IFLA_IFNAME, ifname);
  return msg.take();
}

}  // namespace cpa
