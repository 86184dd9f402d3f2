// The request side of NETLINK_XFRM: the request socket, the sequence numbers,
// and the synchronous request/answer exchange. Requests are built with the
// netlink core on the sender's buffer.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/counters.h"
#include "netlink/nl_message.h"
#include "platform/scoped_fd.h"
#include "platform/system_ports.h"
#include "wire/received_bytes.h"

namespace cpa {

class KernelDialect;
const KernelDialect& platform_dialect();

inline constexpr size_t kNetBufSize = 4096;
using net_buf = std::array<uint8_t, kNetBufSize>;

class NetlinkTransport {
 public:
  // `timeouts` counts the requests whose answer missed `deadline`.
  NetlinkTransport(NetDeviceSysCalls& devices, ctr32& timeouts,
                   const KernelDialect& dialect = platform_dialect(),
                   std::chrono::milliseconds deadline = kNetlinkAnswerDeadline);
  NetlinkTransport(const NetlinkTransport&) = delete;
  NetlinkTransport& operator=(const NetlinkTransport&) = delete;

  // Hands over the request socket (a NETLINK_XFRM socket bound to no group).
  // Its receive time-out is the answer deadline, so that waiting for an
  // answer costs one blocking receive and no poll.
  void attach(ScopedFd nlsock_fd);
  int nlsock_fd() const { return nlsock_fd_.get(); }

  // The message bodies of the kernel the requests are built for.
  const KernelDialect& dialect() const { return dialect_; }

  // The number the next request will carry.
  uint32_t g_seq() const { return g_seq_; }
  // The port id the kernel gives the request socket: the process id.
  uint32_t port_id() const { return port_id_; }
  // The devices the requests' SAs and policies are tied to.
  NetDeviceSysCalls& devices() const { return devices_; }

  // Sends the request in `buf` (a whole message, header first; `nlmsg_seq`
  // is written here) and waits for the kernel's answer, left in `answer`.
  // Returns 0 when the kernel accepted the request (or answered a get with
  // the object), else a negative errno: the kernel's refusal, the socket's
  // failure (EBADF without a socket, EIO when it ends), ETIMEDOUT when no
  // answer came within the deadline, or EBADMSG / EPROTO for an answer that is
  // malformed or not the request's. Answers to earlier requests that timed out
  // are skipped.
  int kestrix_nlink_send(uint8_t* buf, size_t len, uint8_t* answer, size_t recvsize);

  // Sends `request`, which must be complete (else -EMSGSIZE, nothing sent);
  // the kernel's answer is left in `answer`.
  int send(NlMessage& request, net_buf& answer);

 private:
  int send_request(const uint8_t* buf, size_t len);
  ssize_t receive_answer(uint8_t* answer, size_t recvsize,
                         std::chrono::steady_clock::time_point deadline, uint32_t seq);
  ssize_t timed_out(uint32_t seq);  // logs and counts a missed deadline: -ETIMEDOUT
  enum class Answer { kLate, kMine, kMalformed, kForeign };
  Answer check_answer(ReceivedBytes got, uint32_t seq);
  int answer_status(ReceivedBytes got);

  NetDeviceSysCalls& devices_;
  const KernelDialect& dialect_;
  ctr32& timeouts_;
  const std::chrono::milliseconds deadline_;
  ScopedFd nlsock_fd_;
  uint32_t g_seq_ = 1;
  uint32_t port_id_;
};

// Counts a request's outcome in `ctr` (0: accepted), when there is a triple.
void count_outcome(cpa_netlink_ctr_t* ctr, int result);

}  // namespace cpa
