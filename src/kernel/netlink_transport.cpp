#include "kernel/netlink_transport.h"

#include <linux/netlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "wire/xfrm_platform.h"

namespace cpa {
namespace {

constexpr size_t kHeaderSize = sizeof(nlmsghdr);

uint32_t message_length(const uint8_t* msg) {
  uint32_t len;
  std::memcpy(&len, msg + offsetof(nlmsghdr, nlmsg_len), sizeof len);
  return len;
}

// NLMSG_OK over bytes: the header is there and its length fits what is there.
bool header_fits(uint32_t nlmsg_len, size_t available) {
  return available >= kHeaderSize && nlmsg_len >= kHeaderSize && nlmsg_len <= available;
}

}  // namespace

NetlinkTransport::NetlinkTransport(NetDeviceSysCalls& devices, const KernelDialect& dialect)
    : devices_(devices), dialect_(dialect), port_id_(static_cast<uint32_t>(getpid())) {}

int NetlinkTransport::kestrix_nlink_send(uint8_t* buf, size_t len, uint8_t* answer,
                                         size_t recvsize) {
  const uint32_t seq = g_seq_++;
  std::memcpy(buf + offsetof(nlmsghdr, nlmsg_seq), &seq, sizeof seq);
  if (!nlsock_fd_.valid()) {
    cpa_log(LOG_ERR, "Cannot send, N/L socket fd is invalid!");
    return 1;
  }
  if (!send_request(buf, len)) return 1;
  for (;;) {
    const ssize_t n = receive_answer(answer, recvsize);
    if (n < 0) return 1;
    const ReceivedBytes got(answer, static_cast<size_t>(n));
    switch (check_answer(got, seq)) {
      case Answer::kLate:
        continue;  // an answer to an earlier request that gave up waiting
      case Answer::kRefused:
        return 1;
      case Answer::kMine:
        return answer_status(got);
    }
  }
}

bool NetlinkTransport::send_request(const uint8_t* buf, size_t len) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = sendto(nlsock_fd_.get(), buf, len, MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  if (sent <= 0) {
    const int err = errno;
    cpa_log(LOG_ERR, "netlink send error %s (%d)\n", std::strerror(err), err);
    return false;
  }
  const uint32_t nlmsg_len = message_length(buf);
  cpa_log(LOG_DEBUG, "*** SENT sendlen [%d], nlmsg_len [%d],NLMSG_OK? [%d]\n", static_cast<int>(sent),
          static_cast<int>(nlmsg_len), header_fits(nlmsg_len, static_cast<size_t>(sent)) ? 1 : 0);
  return true;
}

// Blocks until a datagram arrives; only a signal makes it try again.
ssize_t NetlinkTransport::receive_answer(uint8_t* answer, size_t recvsize) {
  for (;;) {
    errno = 0;  // an end of file sets none
    const ssize_t n = recvfrom(nlsock_fd_.get(), answer, recvsize, 0, nullptr, nullptr);
    if (n > 0) return n;
    const int err = errno;
    cpa_log(LOG_ERR, "netlink receive error %s (%d)\n", std::strerror(err), err);
    if (n < 0 && err == EINTR) continue;
    return -1;
  }
}

NetlinkTransport::Answer NetlinkTransport::check_answer(ReceivedBytes got, uint32_t seq) {
  const nlmsghdr nh = got.read_padded<nlmsghdr>(0).value;
  const bool ok = header_fits(nh.nlmsg_len, got.size());
  cpa_log(LOG_DEBUG, "*** RECV recvlen [%d], nlmsg_len [%d],NLMSG_OK? [%d]",
          static_cast<int>(got.size()), static_cast<int>(nh.nlmsg_len), ok ? 1 : 0);
  if (!ok) {
    cpa_log(LOG_ERR, "ERROR: NLMSG_OK failed!");
    return Answer::kRefused;
  }
  if (nh.nlmsg_seq < seq) return Answer::kLate;
  if (nh.nlmsg_seq > seq || nh.nlmsg_pid != port_id_) {
    cpa_log(LOG_ERR, "ERROR: (nh->nlmsg_seq[%d] > seq[%d]!)or (nh->nlmsg_pid != getpid())",
            static_cast<int>(nh.nlmsg_seq), static_cast<int>(seq));
    return Answer::kRefused;
  }
  return Answer::kMine;
}

int NetlinkTransport::answer_status(ReceivedBytes got) {
  const nlmsghdr nh = *got.read<nlmsghdr>(0);
  if (nh.nlmsg_type != NLMSG_ERROR) return 0;  // a get's object, left in the answer
  // An error message too short for its error code cannot say the request
  // succeeded; it is refused like any other malformed answer.
  const auto error = got.slice(0, nh.nlmsg_len).read<int32_t>(offsetof(nlmsgerr, error) + kHeaderSize);
  if (!error) {
    cpa_log(LOG_ERR, "ERROR: NLMSG_OK failed!");
    return 1;
  }
  const int err = -*error;
  if (err == 0) {
    cpa_log(LOG_DEBUG, "NETLINK SEND SUCCESS");
    errno = 0;
    return 0;
  }
  cpa_log(LOG_ERR, "RTNETLINK answers: %s (%d)\n", std::strerror(err), err);
  errno = err;  // after logging, which may itself touch errno
  return 1;
}

void NetlinkTransport::begin_request(uint16_t type, uint32_t pid, const void* body, size_t body_len) {
  req_.fill(0);
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(kHeaderSize + body_len);
  header.nlmsg_type = type;
  header.nlmsg_flags = kNlmFlagsRequestAck;
  header.nlmsg_pid = pid;
  std::memcpy(req_.data(), &header, sizeof header);
  std::memcpy(req_.data() + kHeaderSize, body, body_len);
}

int NetlinkTransport::append_attr(uint16_t atype, const void* data, size_t len) {
  return add_nl_attr(req_.data(), atype, req_.size(), data, len);
}

int NetlinkTransport::send_req(net_buf& answer) {
  answer.fill(0);
  return kestrix_nlink_send(req_.data(), message_length(req_.data()), answer.data(), answer.size());
}

void count_outcome(cpa_netlink_ctr_t* ctr, int result) {
  if (!ctr) return;
  if (result == 0)
    ctr->resp_ok++;
  else
    ctr->resp_err++;
}

unsigned NetlinkTransport::get_svtiindex(uint32_t tunnelid) {
  char name[128] = {};
  std::snprintf(name, sizeof name - 1, "svti%d", static_cast<int>(tunnelid));
  // What if_nametoindex does, through the device seam.
  SysCallFd s(devices_, devices_.socket(AF_INET, SOCK_DGRAM, 0));
  if (!s.valid()) return 0;
  ifreq ifr{};
  std::memcpy(ifr.ifr_name, name, std::min(std::strlen(name), sizeof ifr.ifr_name - 1));
  return devices_.ioctl(s.get(), SIOCGIFINDEX, &ifr).rc < 0 ? 0 : static_cast<unsigned>(ifr.ifr_ifindex);
}

int add_nl_attr(uint8_t* nlh, uint16_t atype, size_t buflen, const void* attrdata, size_t alen) {
  const size_t start = nl_align(message_length(nlh));
  const size_t rta_len = alen + sizeof(rtattr);
  if (start + nl_align(static_cast<uint32_t>(rta_len)) > buflen || rta_len > UINT16_MAX) {
    cpa_log(LOG_ERR, "ERROR: Invalid attr len!");
    return 1;
  }
  const rtattr header{static_cast<uint16_t>(rta_len), atype};
  std::memcpy(nlh + start, &header, sizeof header);
  if (alen) std::memcpy(nlh + start + sizeof header, attrdata, alen);
  const uint32_t new_len = static_cast<uint32_t>(start + nl_align(static_cast<uint32_t>(rta_len)));
  std::memcpy(nlh + offsetof(nlmsghdr, nlmsg_len), &new_len, sizeof new_len);
  return 0;
}

std::optional<ReceivedBytes> kestrix_rtattr_get(uint16_t rta_type, ReceivedBytes attrs) {
  size_t offset = 0;
  for (;;) {
    const auto rta = attrs.read<rtattr>(offset);
    if (!rta || rta->rta_len < sizeof(rtattr) || !attrs.holds(offset, rta->rta_len)) return std::nullopt;
    if (rta->rta_type == rta_type)
      return attrs.slice(offset + sizeof(rtattr), rta->rta_len - sizeof(rtattr));
    offset += nl_align(rta->rta_len);
  }
}

}  // namespace cpa
