#include "kernel/netlink_transport.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
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

NetlinkTransport::NetlinkTransport(NetDeviceSysCalls& devices, ctr32& timeouts, const KernelDialect& dialect,
                                   std::chrono::milliseconds deadline)
    : devices_(devices),
      dialect_(dialect),
      timeouts_(timeouts),
      deadline_(deadline),
      port_id_(static_cast<uint32_t>(getpid())) {}

void NetlinkTransport::attach(ScopedFd nlsock_fd) {
  nlsock_fd_ = std::move(nlsock_fd);
  const auto usec = std::chrono::duration_cast<std::chrono::microseconds>(deadline_).count();
  const timeval timeout{static_cast<time_t>(usec / 1000000), static_cast<suseconds_t>(usec % 1000000)};
  if (nlsock_fd_.valid() && setsockopt(nlsock_fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0)
    cpa_log(LOG_ERR, "setsockopt() SO_RCVTIMEO error, reason: %s", std::strerror(errno));
}

int NetlinkTransport::kestrix_nlink_send(uint8_t* buf, size_t len, uint8_t* answer,
                                         size_t recvsize) {
  const uint32_t seq = g_seq_++;
  std::memcpy(buf + offsetof(nlmsghdr, nlmsg_seq), &seq, sizeof seq);
  if (!nlsock_fd_.valid()) {
    cpa_log(LOG_ERR, "Cannot send, N/L socket fd is invalid!");
    return -EBADF;
  }
  if (const int error = send_request(buf, len)) return error;
  const auto deadline = std::chrono::steady_clock::now() + deadline_;
  for (;;) {
    const ssize_t n = receive_answer(answer, recvsize, deadline, seq);
    if (n < 0) return static_cast<int>(n);
    const ReceivedBytes got(answer, static_cast<size_t>(n));
    switch (check_answer(got, seq)) {
      case Answer::kLate:
        continue;  // an answer to an earlier request that gave up waiting
      case Answer::kMalformed:
        return -EBADMSG;
      case Answer::kForeign:
        return -EPROTO;
      case Answer::kMine:
        return answer_status(got);
    }
  }
}

int NetlinkTransport::send_request(const uint8_t* buf, size_t len) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = sendto(nlsock_fd_.get(), buf, len, MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
  if (sent <= 0) {
    const int err = errno;
    cpa_log(LOG_ERR, "netlink send error %s (%d)\n", std::strerror(err), err);
    return err ? -err : -EIO;
  }
  const uint32_t nlmsg_len = message_length(buf);
  cpa_log(LOG_DEBUG, "*** SENT sendlen [%d], nlmsg_len [%d],NLMSG_OK? [%d]\n", static_cast<int>(sent),
          static_cast<int>(nlmsg_len), header_fits(nlmsg_len, static_cast<size_t>(sent)) ? 1 : 0);
  return 0;
}

// Waits for a datagram until `deadline` (each receive times out after the
// whole deadline, so a late answer arriving near its end can stretch the
// wait once more); only a signal makes it try again. A failure is a negative
// errno (EIO for the end of the stream, ETIMEDOUT when the deadline passed,
// logged and counted).
ssize_t NetlinkTransport::receive_answer(uint8_t* answer, size_t recvsize,
                                         std::chrono::steady_clock::time_point deadline, uint32_t seq) {
  for (;;) {
    if (std::chrono::steady_clock::now() >= deadline) return timed_out(seq);
    errno = 0;  // an end of file sets none
    const ssize_t n = recvfrom(nlsock_fd_.get(), answer, recvsize, 0, nullptr, nullptr);
    if (n > 0) return n;
    const int err = errno;
    if (n < 0 && (err == EAGAIN || err == EWOULDBLOCK)) return timed_out(seq);
    cpa_log(LOG_ERR, "netlink receive error %s (%d)\n", std::strerror(err), err);
    if (n < 0 && err == EINTR) continue;
    return err ? -err : -EIO;
  }
}

ssize_t NetlinkTransport::timed_out(uint32_t seq) {
  timeouts_++;
  cpa_log(LOG_ERR, "No netlink answer to request %u within %d ms", seq, static_cast<int>(deadline_.count()));
  return -ETIMEDOUT;
}

NetlinkTransport::Answer NetlinkTransport::check_answer(ReceivedBytes got, uint32_t seq) {
  const nlmsghdr nh = got.read_padded<nlmsghdr>(0).value;
  const bool ok = header_fits(nh.nlmsg_len, got.size());
  cpa_log(LOG_DEBUG, "*** RECV recvlen [%d], nlmsg_len [%d],NLMSG_OK? [%d]",
          static_cast<int>(got.size()), static_cast<int>(nh.nlmsg_len), ok ? 1 : 0);
  if (!ok) {
    cpa_log(LOG_ERR, "ERROR: NLMSG_OK failed!");
    return Answer::kMalformed;
  }
  if (nh.nlmsg_seq < seq) return Answer::kLate;
  if (nh.nlmsg_seq > seq || nh.nlmsg_pid != port_id_) {
    cpa_log(LOG_ERR, "ERROR: (nh->nlmsg_seq[%d] > seq[%d]!)or (nh->nlmsg_pid != getpid())",
            static_cast<int>(nh.nlmsg_seq), static_cast<int>(seq));
    return Answer::kForeign;
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
    return -EBADMSG;
  }
  const int err = -*error;
  if (err == 0) {
    cpa_log(LOG_DEBUG, "NETLINK SEND SUCCESS");
    return 0;
  }
  cpa_log(LOG_ERR, "RTNETLINK answers: %s (%d)\n", std::strerror(err), err);
  return -err;
}

int NetlinkTransport::send(NlMessage& request, net_buf& answer) {
  if (!request.complete()) {
    cpa_log(LOG_ERR, "ERROR: Invalid attr len!");
    return -EMSGSIZE;
  }
  answer.fill(0);
  return kestrix_nlink_send(request.data(), request.size(), answer.data(), answer.size());
}

void count_outcome(cpa_netlink_ctr_t* ctr, int result) {
  if (!ctr) return;
  if (result == 0)
    ctr->resp_ok++;
  else
    ctr->resp_err++;
}

}  // namespace cpa
