// A fake of the platform kernel's NETLINK_XFRM, for tests: on a thread of its own it serves the agent's
// request socket, refuses requests whose framing (length, flags, body size, attributes) breaks the
// platform's, keeps tables of SAs and policies, answers as a kernel does or as a test scripts it, and
// multicasts the kernel's events to the monitor sockets subscribed to their group. Those hold only a few
// datagrams (the unix datagram queue): the rest is dropped, as a kernel does with an overrun socket.
//
// Unit tests take the agent's ends of socketpairs from request_socket() and monitor_socket(); the
// end-to-end server accepts the real agent on a unix seqpacket socket (listen_at), where each
// connection's first packet is the sockaddr_nl the agent binds it with.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/scoped_fd.h"

namespace cpa::test {

using Message = std::vector<uint8_t>;

struct FakeSa {
  uint32_t daddr = 0, spi = 0;  // as sent (network order)
  uint8_t proto = 0;
  uint32_t reqid = 0;
  Message request;  // the whole add, attributes included
};

struct FakePolicy {
  Message selector;  // the 56 bytes as requested
  uint8_t dir = 0;
  uint32_t index = 0;  // the fake kernel's choice
  uint32_t svti = 0;
  Message request;  // the add or update, index filled in
};

// A netlink message: header, then `payload` (body and attributes).
Message nl_message(uint16_t type, uint16_t flags, uint32_t seq, uint32_t pid, const Message& payload);
// An acknowledgement (error 0) or refusal of request `seq`, quoting a zero header.
Message nl_error(uint32_t seq, uint32_t pid, int error);
// A policy event (new, updated, ...) with a 192-byte body; the template
// carries `reqid`, and there is no template when it is not given.
Message policy_event(uint16_t type, uint32_t pid, uint32_t index, uint8_t dir,
                     std::optional<uint32_t> reqid);
// An acquire from the kernel (port id 0) for the tunnel with request id `reqid`.
Message acquire_event(uint32_t reqid);
// A policy add or get/delete request in one line:
// "type dir action|index src/prefix:port>dst/prefix:port proto svti [index template]".
std::string describe_policy(const Message& m);
// An SA add in one line: "destination spi=0x..
// p<proto> reqid=<n> m<mode> r<replay window> life=<soft>/<hard> svti<index>",
// then each algorithm as " <attr>=<name>:<key bits>:<key hex>".
std::string describe_sa(const Message& m);

class FakeXfrmKernel {
 public:
  // `observer` is told of every bind and violation, on the serving thread.
  explicit FakeXfrmKernel(uint32_t agent_pid = static_cast<uint32_t>(getpid()),
                          std::function<void(const std::string&)> observer = {});
  ~FakeXfrmKernel();
  FakeXfrmKernel(const FakeXfrmKernel&) = delete;
  FakeXfrmKernel& operator=(const FakeXfrmKernel&) = delete;

  // The agent's end of a new request socket.
  ScopedFd request_socket();
  // The agent's end of a new monitor socket subscribed to `groups`.
  ScopedFd monitor_socket(uint32_t groups);
  // Accepts agents on a unix seqpacket socket at `path`. False when it cannot.
  bool listen_at(const std::string& path);

  // The next request is refused with `error`, tables untouched (0: served as usual).
  void refuse_next(int error);
  // The next request is answered with these datagrams, tables untouched.
  void answer_next(std::vector<Message> datagrams);
  // Sends `message` to every monitor subscribed to one of `groups`.
  void multicast(uint32_t groups, const Message& message);

  std::vector<Message> requests() const { return locked(requests_); }
  // What broke the platform's framing (each such request was refused with EINVAL).
  std::vector<std::string> violations() const { return locked(violations_); }
  std::vector<FakeSa> sas() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<FakeSa> all;
    for (const auto& [id, sa] : sas_) all.push_back(sa);
    return all;
  }
  std::vector<FakePolicy> policies() const { return locked(policies_); }

 private:
  struct Connection {
    ScopedFd fd;
    bool bound;
    uint32_t groups;
  };
  struct Outcome;
  struct Script {
    int error = 0;
    std::vector<Message> raw;
  };

  template <class T>
  T locked(const T& table) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return table;
  }
  void serve();
  void wake();
  void take_datagram(Connection& conn, const Message& datagram);
  void bind_connection(Connection& conn, const Message& datagram);
  Outcome answer(const Message& request);
  Outcome serve_sa(uint16_t type, const Message& request);
  Outcome serve_policy(uint16_t type, const Message& request);
  void multicast_locked(uint32_t groups, const Message& message);
  void violation(const std::string& what);

  mutable std::mutex mutex_;
  uint32_t agent_pid_;
  uint32_t next_index_ = 8;  // policy indexes: a multiple of 8 plus the direction
  std::vector<Connection> connections_;
  ScopedFd listener_;
  std::deque<Script> scripts_;
  std::vector<Message> requests_;
  std::vector<std::string> violations_;
  // By destination, SPI and protocol, so that a full table answers as fast as an empty one.
  std::map<std::tuple<uint32_t, uint32_t, uint8_t>, FakeSa> sas_;
  std::vector<FakePolicy> policies_;
  const std::function<void(const std::string&)> observer_;
  ScopedFd wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace cpa::test
