#include "fakes/fake_xfrm_kernel.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "netlink/nl_message.h"
#include "support/wire_reader.h"
#include "wire/xfrm_platform.h"

namespace cpa::test {
namespace {

constexpr size_t kHdr = NLMSG_HDRLEN;
constexpr std::array<uint8_t, 6> kPolicyTypeMain{};  // XFRMA_POLICY_TYPE: xfrm_userpolicy_type, all zero

ReceivedBytes view(const Message& m) { return {m.data(), m.size()}; }

// The body behind the header, zero where the message ends first.
template <class T>
T body_of(const Message& m) {
  return view(m).read_padded<T>(kHdr).value;
}

Message slice(const Message& m, size_t pos, size_t len = SIZE_MAX) {
  const ReceivedBytes part = view(m).slice(pos, len);
  return {part.data(), part.data() + part.size()};
}

// A message the fake sends, built with the agent's netlink core.
class Built {
 public:
  Built(uint16_t type, uint16_t flags, uint32_t seq, uint32_t pid, const void* body, size_t len) {
    msg_.put_header(type, flags, pid, seq);
    msg_.put_body(body, len);
  }
  template <class T>
  Built& attr(uint16_t type, const T& value) {
    msg_.put_attr(type, value);
    return *this;
  }
  Message take() const { return {msg_.bytes().begin(), msg_.bytes().end()}; }

 private:
  Message buffer_ = Message(65536);
  NlMessage msg_{buffer_};
};

// An event with the template of the tunnel of `reqid`, when there is one.
Built& with_template(Built& event, std::optional<uint32_t> reqid) {
  if (!reqid) return event;
  xfrm_user_tmpl tmpl{};
  tmpl.id.proto = IPPROTO_ESP;
  tmpl.family = AF_INET;
  tmpl.reqid = *reqid;
  tmpl.aalgos = tmpl.ealgos = tmpl.calgos = ~0u;
  return event.attr(XFRMA_TMPL, tmpl);
}

std::string ipv4(uint32_t network_order) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &network_order, text, sizeof text);
}

// Each request the platform takes, with the size of its body.
const std::pair<uint16_t, size_t> kBodies[] = {
    {XFRM_MSG_NEWSA, sizeof(xfrm_usersa_info_64)},         {XFRM_MSG_DELSA, sizeof(xfrm_usersa_id_saddr)},
    {XFRM_MSG_GETSA, sizeof(xfrm_usersa_id_saddr)},        {XFRM_MSG_NEWPOLICY, sizeof(xfrm_userpolicy_info_64)},
    {XFRM_MSG_UPDPOLICY, sizeof(xfrm_userpolicy_info_64)}, {XFRM_MSG_DELPOLICY, sizeof(xfrm_userpolicy_id)},
    {XFRM_MSG_GETPOLICY, sizeof(xfrm_userpolicy_id)},
};

// What breaks the platform's framing, or an empty string; the fields are the byte-exact unit tests' to check.
std::string check_request(const Message& m) {
  const auto header = view(m).read<nlmsghdr>(0);
  if (!header || header->nlmsg_len != m.size()) return "nlmsg_len differs from the bytes sent";
  if (header->nlmsg_flags != kNlmFlagsRequestAck) return "flags not NLM_F_REQUEST|NLM_F_ACK";
  const auto known = std::find_if(std::begin(kBodies), std::end(kBodies),
                                  [&](const auto& b) { return b.first == header->nlmsg_type; });
  if (known == std::end(kBodies)) return "unexpected message type " + std::to_string(header->nlmsg_type);
  if (m.size() < kHdr + known->second) return "body shorter than " + std::to_string(known->second);
  const NlAttrs attrs = nl_attrs_after(view(m), known->second);
  if (attrs.walk_end() == NlWalkEnd::kExact) return "";
  return "attributes malformed (or unpadded) from byte " + std::to_string(attrs.walk_end_offset());
}

// An acknowledgement quotes the request's header; a refusal all of it.
Message error_answer(const Message& request, int err, uint32_t pid) {
  Message payload(4);
  const int32_t code = -err;
  std::memcpy(payload.data(), &code, sizeof code);
  const Message quoted = slice(request, 0, err ? SIZE_MAX : kHdr);
  payload.insert(payload.end(), quoted.begin(), quoted.end());
  return nl_message(NLMSG_ERROR, err ? 0 : NLM_F_CAPPED, u32_at(request, 8), pid, payload);
}

}  // namespace


Message nl_message(uint16_t type, uint16_t flags, uint32_t seq, uint32_t pid, const Message& payload) {
  return Built(type, flags, seq, pid, payload.data(), payload.size()).take();
}

Message nl_error(uint32_t seq, uint32_t pid, int error) {
  nlmsgerr body{};
  body.error = -error;
  return Built(NLMSG_ERROR, 0, seq, pid, &body, sizeof body).take();
}

Message policy_event(uint16_t type, uint32_t pid, uint32_t index, uint8_t dir, std::optional<uint32_t> reqid) {
  xfrm_userpolicy_info_64 body{};
  body.sel.family = AF_INET;
  body.index = index;
  body.dir = dir;
  Built event(type, 0, 0, pid, &body, sizeof body);
  return with_template(event, reqid).attr(XFRMA_POLICY_TYPE, kPolicyTypeMain).take();
}

Message acquire_event(uint32_t reqid) {
  xfrm_user_acquire_64 body{};
  body.id.proto = IPPROTO_ESP;
  body.sel.family = AF_INET;
  body.policy.dir = kXfrmPolicyOut;
  Built event(XFRM_MSG_ACQUIRE, 0, 0, 0, &body, sizeof body);
  return with_template(event, reqid).take();
}

std::string describe_policy(const Message& m) {
  const uint16_t type = u16_at(m, 4);
  const bool add = type == XFRM_MSG_NEWPOLICY || type == XFRM_MSG_UPDPOLICY;
  const auto info = body_of<xfrm_userpolicy_info_64>(m);
  const auto id = body_of<xfrm_userpolicy_id>(m);
  const xfrm_selector& s = info.sel;  // where both bodies start
  const NlAttrs attrs = nl_attrs_after(view(m), add ? sizeof info : sizeof id);
  char text[200];
  std::snprintf(text, sizeof text, "%u dir%u %s%u %s/%u:%u>%s/%u:%u p%u svti%u", type, add ? info.dir : id.dir,
                add ? "act" : "idx", add ? info.action : id.index, ipv4(s.saddr.a4).c_str(), s.prefixlen_s,
                ntohs(s.sport), ipv4(s.daddr.a4).c_str(), s.prefixlen_d, ntohs(s.dport), s.proto,
                attrs.read<uint32_t>(XFRMA_SVTI_IFINDEX).value_or(0));
  const auto tmpl = attrs.read<xfrm_user_tmpl>(XFRMA_TMPL);
  if (!add || !tmpl) return text;
  return text + (" idx" + std::to_string(info.index)) + " tmpl" + std::to_string(tmpl->id.proto) + "/m" +
         std::to_string(tmpl->mode) + "/r" + std::to_string(tmpl->reqid);
}

std::string describe_sa(const Message& m) {
  const auto sa = body_of<xfrm_usersa_info_64>(m);
  std::string line = ipv4(sa.id.daddr.a4);
  char text[120];
  std::snprintf(text, sizeof text, " spi=0x%x p%u reqid=%u m%u r%u life=", ntohl(sa.id.spi), sa.id.proto, sa.reqid,
                sa.mode, sa.replay_window);
  line += text + std::to_string(sa.lft.soft_add_expires_seconds) + "/" +
          std::to_string(sa.lft.hard_add_expires_seconds);
  for (const NlAttr& a : nl_attrs_after(view(m), sizeof sa)) {
    if (a.type == XFRMA_SVTI_IFINDEX) {
      line += " svti" + std::to_string(a.payload.read<uint32_t>(0).value_or(0));
      continue;
    }
    const auto algo = a.payload.read_padded<xfrm_algo>(0).value;
    line += " " + std::to_string(a.type) + "=" + std::string(algo.alg_name, strnlen(algo.alg_name, 64)) + ":" +
            std::to_string(algo.alg_key_len) + ":";
    const size_t key = a.type == XFRMA_ALG_AEAD ? sizeof(xfrm_algo_aead) : sizeof(xfrm_algo);
    for (size_t i = key; i < a.payload.size(); ++i) {
      std::snprintf(text, sizeof text, "%02x", a.payload.data()[i]);
      line += text;
    }
  }
  return line;
}


struct FakeXfrmKernel::Outcome {
  std::vector<Message> answers;
  std::vector<Message> policy_events;
};

FakeXfrmKernel::FakeXfrmKernel(uint32_t agent_pid, std::function<void(const std::string&)> observer)
    : agent_pid_(agent_pid), observer_(std::move(observer)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  thread_ = std::thread([this] { serve(); });
}

FakeXfrmKernel::~FakeXfrmKernel() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake();
  thread_.join();
}

void FakeXfrmKernel::wake() {
  const uint64_t one = 1;
  (void)!write(wake_.get(), &one, sizeof one);
}

ScopedFd FakeXfrmKernel::request_socket() { return monitor_socket(0); }

ScopedFd FakeXfrmKernel::monitor_socket(uint32_t groups) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
  std::lock_guard<std::mutex> lock(mutex_);
  connections_.push_back({ScopedFd(ends[1]), true, groups});
  wake();
  return ScopedFd(ends[0]);
}

bool FakeXfrmKernel::listen_at(const std::string& path) {
  ScopedFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (!fd.valid() || path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size());
  unlink(path.c_str());
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd.get(), 8) != 0)
    return false;
  std::lock_guard<std::mutex> lock(mutex_);
  listener_ = std::move(fd);
  wake();
  return true;
}

void FakeXfrmKernel::refuse_next(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  scripts_.push_back({error, {}});
}

void FakeXfrmKernel::answer_next(std::vector<Message> datagrams) {
  std::lock_guard<std::mutex> lock(mutex_);
  scripts_.push_back({0, std::move(datagrams)});
}

void FakeXfrmKernel::multicast(uint32_t groups, const Message& message) {
  std::lock_guard<std::mutex> lock(mutex_);
  multicast_locked(groups, message);
}

void FakeXfrmKernel::multicast_locked(uint32_t groups, const Message& message) {
  for (Connection& conn : connections_)
    if (conn.bound && (conn.groups & groups))
      (void)!send(conn.fd.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void FakeXfrmKernel::violation(const std::string& what) {
  violations_.push_back(what);
  if (observer_) observer_("violation: " + what);
}

void FakeXfrmKernel::serve() {
  std::vector<uint8_t> buffer(65536);
  for (;;) {
    std::vector<pollfd> fds;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      fds.push_back({wake_.get(), POLLIN, 0});
      if (listener_.valid()) fds.push_back({listener_.get(), POLLIN, 0});
      for (const Connection& conn : connections_) fds.push_back({conn.fd.get(), POLLIN, 0});
    }
    if (poll(fds.data(), fds.size(), -1) < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    uint64_t drained;
    (void)!read(wake_.get(), &drained, sizeof drained);
    if (listener_.valid()) {
      ScopedFd accepted(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (accepted.valid()) connections_.push_back({std::move(accepted), false, 0});
    }
    for (const pollfd& p : fds) {
      if (!(p.revents & (POLLIN | POLLHUP))) continue;
      auto conn = std::find_if(connections_.begin(), connections_.end(),
                               [&](const Connection& c) { return c.fd.get() == p.fd; });
      if (conn == connections_.end()) continue;
      const ssize_t n = recv(p.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
        connections_.erase(conn);
      else if (n > 0)
        take_datagram(*conn, Message(buffer.begin(), buffer.begin() + n));
    }
  }
}

void FakeXfrmKernel::take_datagram(Connection& conn, const Message& datagram) {
  if (!conn.bound) return bind_connection(conn, datagram);
  if (conn.groups != 0) return violation("a monitor socket sent " + std::to_string(datagram.size()) + " bytes");
  requests_.push_back(datagram);
  const Outcome outcome = answer(datagram);
  for (const Message& a : outcome.answers)
    (void)!send(conn.fd.get(), a.data(), a.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  for (const Message& event : outcome.policy_events) multicast_locked(kXfrmGroupPolicy, event);
}

// The first packet of an accepted agent socket is the address it binds.
void FakeXfrmKernel::bind_connection(Connection& conn, const Message& datagram) {
  const auto addr = view(datagram).read<sockaddr_nl>(0);
  if (!addr || datagram.size() != sizeof *addr || addr->nl_family != AF_NETLINK)
    return violation("bind packet of " + std::to_string(datagram.size()) + " bytes");
  conn.bound = true;
  conn.groups = addr->nl_groups;
  ucred peer{};
  socklen_t len = sizeof peer;
  if (conn.groups == 0 && getsockopt(conn.fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0)
    agent_pid_ = static_cast<uint32_t>(peer.pid);
  char text[64];
  std::snprintf(text, sizeof text, "bound groups=0x%x pid=%u", conn.groups, addr->nl_pid);
  if (observer_) observer_(text);
}

FakeXfrmKernel::Outcome FakeXfrmKernel::answer(const Message& request) {
  Script script;
  if (!scripts_.empty()) {
    script = std::move(scripts_.front());
    scripts_.pop_front();
  }
  if (!script.raw.empty()) return {script.raw, {}};
  if (script.error) return {{error_answer(request, script.error, agent_pid_)}, {}};
  const std::string wrong = check_request(request);
  if (!wrong.empty()) {
    violation(wrong);
    return {{error_answer(request, EINVAL, agent_pid_)}, {}};
  }
  const uint16_t type = u16_at(request, 4);
  return type <= XFRM_MSG_GETSA ? serve_sa(type, request) : serve_policy(type, request);
}

FakeXfrmKernel::Outcome FakeXfrmKernel::serve_sa(uint16_t type, const Message& request) {
  const auto info = body_of<xfrm_usersa_info_64>(request);
  const auto id = body_of<xfrm_usersa_id>(request);
  const bool add = type == XFRM_MSG_NEWSA;
  FakeSa sa{add ? info.id.daddr.a4 : id.daddr.a4, add ? info.id.spi : id.spi, add ? info.id.proto : id.proto,
            info.reqid, request};
  const auto key = std::make_tuple(sa.daddr, sa.spi, sa.proto);
  const auto found = sas_.find(key);
  int error = 0;
  if (add && sa.proto != IPPROTO_ESP && sa.proto != IPPROTO_AH)
    error = EINVAL;
  else if (add && found != sas_.end())
    error = EEXIST;
  else if (add)
    sas_[key] = sa;
  else if (found == sas_.end())
    error = ESRCH;
  else if (type == XFRM_MSG_GETSA)
    return {{nl_message(XFRM_MSG_NEWSA, 0, u32_at(request, 8), agent_pid_,
                        slice(found->second.request, kHdr, sizeof info))}, {}};
  else
    sas_.erase(found);
  return {{error_answer(request, error, agent_pid_)}, {}};
}

FakeXfrmKernel::Outcome FakeXfrmKernel::serve_policy(uint16_t type, const Message& request) {
  const uint32_t seq = u32_at(request, 8);
  const bool add = type == XFRM_MSG_NEWPOLICY || type == XFRM_MSG_UPDPOLICY;
  const auto info = body_of<xfrm_userpolicy_info_64>(request);
  const auto id = body_of<xfrm_userpolicy_id>(request);
  const NlAttrs attrs = nl_attrs_after(view(request), add ? sizeof info : sizeof id);
  FakePolicy p{slice(request, kHdr, sizeof(xfrm_selector)), add ? info.dir : id.dir, add ? 0 : id.index,
               attrs.read<uint32_t>(XFRMA_SVTI_IFINDEX).value_or(0), request};
  auto found = std::find_if(policies_.begin(), policies_.end(), [&](const FakePolicy& q) {
    return p.index ? q.index == p.index : (q.selector == p.selector && q.dir == p.dir && q.svti == p.svti);
  });
  if (!add && found == policies_.end()) return {{error_answer(request, ENOENT, agent_pid_)}, {}};
  if (type == XFRM_MSG_GETPOLICY)
    return {{nl_message(XFRM_MSG_NEWPOLICY, 0, seq, agent_pid_, slice(found->request, kHdr))}, {}};
  if (!add) {
    Message deleted = slice(request, kHdr, sizeof id);
    std::memcpy(deleted.data() + offsetof(xfrm_userpolicy_id, index), &found->index, sizeof found->index);
    policies_.erase(found);
    const Message event = nl_message(XFRM_MSG_DELPOLICY, 0, seq, agent_pid_, deleted);
    return {{error_answer(request, 0, agent_pid_)}, {event}};
  }
  if (found != policies_.end() && type == XFRM_MSG_NEWPOLICY)
    return {{error_answer(request, EEXIST, agent_pid_)}, {}};
  p.index = found != policies_.end() ? found->index : next_index_ | p.dir;
  std::memcpy(p.request.data() + kHdr + offsetof(xfrm_userpolicy_info_64, index), &p.index, sizeof p.index);
  const Message event = Built(type, 0, seq, agent_pid_, p.request.data() + kHdr, p.request.size() - kHdr)
                            .attr(XFRMA_POLICY_TYPE, kPolicyTypeMain)
                            .take();
  if (found != policies_.end()) {
    *found = p;
  } else {
    policies_.push_back(p);
    next_index_ += 8;
  }
  return {{error_answer(request, 0, agent_pid_)}, {event}};
}

}  // namespace cpa::test
