// The request side of NETLINK_XFRM: the request socket, the sequence numbers,
// the one request buffer that every message builder fills in turn, the
// synchronous request/answer exchange, and the attribute helpers.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/counters.h"
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
  explicit NetlinkTransport(NetDeviceSysCalls& devices,
                            const KernelDialect& dialect = platform_dialect());
  NetlinkTransport(const NetlinkTransport&) = delete;
  NetlinkTransport& operator=(const NetlinkTransport&) = delete;

  // Hands over the request socket (a NETLINK_XFRM socket bound to no group).
  void attach(ScopedFd nlsock_fd) { nlsock_fd_ = std::move(nlsock_fd); }
  int nlsock_fd() const { return nlsock_fd_.get(); }

  // The message bodies of the kernel the requests are built for.
  const KernelDialect& dialect() const { return dialect_; }

  // The one request buffer; each builder clears and fills it.
  net_buf& req() { return req_; }
  // The number the next request will carry.
  uint32_t g_seq() const { return g_seq_; }
  // The port id the kernel gives the request socket: the process id.
  uint32_t port_id() const { return port_id_; }

  // Sends the request in `buf` (a whole message, header first; `nlmsg_seq`
  // is written here) and waits for the kernel's answer, left in `answer`. Returns 0 when
  // the kernel accepted the request (or answered a get with the object), 1
  // otherwise; a refusal leaves the kernel's error number in errno.
  int kestrix_nlink_send(uint8_t* buf, size_t len, uint8_t* answer, size_t recvsize);

  // Clears the request buffer and starts a request: header and fixed body.
  void begin_request(uint16_t type, uint32_t pid, const void* body, size_t body_len);
  // Appends an attribute to the request in the buffer (see add_nl_attr).
  int append_attr(uint16_t atype, const void* data, size_t len);
  // Sends the request in the buffer; the kernel's answer is left in `answer`.
  int send_req(net_buf& answer);

  // The interface index of tunnel `tunnelid`'s SVTI device; 0 when there is none.
  unsigned get_svtiindex(uint32_t tunnelid);

 private:
  bool send_request(const uint8_t* buf, size_t len);
  ssize_t receive_answer(uint8_t* answer, size_t recvsize);
  enum class Answer { kLate, kMine, kRefused };
  Answer check_answer(ReceivedBytes got, uint32_t seq);
  int answer_status(ReceivedBytes got);

  NetDeviceSysCalls& devices_;
  const KernelDialect& dialect_;
  ScopedFd nlsock_fd_;
  uint32_t g_seq_ = 1;
  uint32_t port_id_;
  net_buf req_{};
};

// Counts a request's outcome in `ctr` (0: accepted), when there is a triple.
void count_outcome(cpa_netlink_ctr_t* ctr, int result);

// Appends attribute `atype` with the `alen` bytes at `attrdata` to the
// message at `nlh` (a buffer of `buflen` bytes), at the 4-byte-aligned end of
// the message. Returns 0, or 1 (message unchanged) when it would not fit.
int add_nl_attr(uint8_t* nlh, uint16_t atype, size_t buflen, const void* attrdata, size_t alen);

// The payload of the first attribute of type `rta_type` among the attributes
// in `attrs`; nothing when the walk ends (or meets a malformed length) first.
std::optional<ReceivedBytes> kestrix_rtattr_get(uint16_t rta_type, ReceivedBytes attrs);

}  // namespace cpa
