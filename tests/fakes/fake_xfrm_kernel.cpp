#include "fakes/fake_xfrm_kernel.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "netlink/nl_message.h"
#include "support/wire_reader.h"

namespace cpa::test {
namespace {

// The platform's layouts, written out here independently of the agent's
// structs, so that a mistake in those cannot hide behind the fake.
namespace at {
constexpr size_t kHdr = 16;  // nlmsghdr: len 0, type 4, flags 6, seq 8, pid 12
constexpr size_t kSelSize = 56, kSelFamily = 40;
// xfrm_usersa_info_64
constexpr size_t kSaSize = 224, kSaDaddr = 56, kSaSpi = 72, kSaProto = 76, kSaLifeSoftAdd = 128, kSaReqid = 212,
                 kSaFamily = 216, kSaMode = 218;
// xfrm_usersa_id followed by a source address
constexpr size_t kSaIdSize = 40, kSaIdSpi = 16, kSaIdFamily = 20, kSaIdProto = 22;
// xfrm_userpolicy_info_64
constexpr size_t kPolSize = 192, kPolIndex = 180, kPolDir = 184, kPolAction = 185;
// xfrm_userpolicy_id
constexpr size_t kPolIdSize = 64, kPolIdIndex = 56, kPolIdDir = 60;
// xfrm_user_tmpl
constexpr size_t kTmplSize = 64, kTmplProto = 20, kTmplFamily = 24, kTmplReqid = 44, kTmplMode = 48,
                 kTmplAalgos = 52;
// xfrm_algo and xfrm_algo_aead: name 0, key bits 64, (icv bits 68)
constexpr size_t kAlgoSize = 68, kAeadSize = 72, kAlgoKeyBits = 64, kAeadIcvBits = 68;
// xfrm_user_acquire_64
constexpr size_t kAcqSize = 304, kAcqProto = 20, kAcqSel = 40, kAcqPolicy = 96;
}  // namespace at

constexpr uint16_t kNewSa = 16, kDelSa = 17, kGetSa = 18, kNewPolicy = 19, kDelPolicy = 20,
                   kGetPolicy = 21, kAcquire = 23, kUpdPolicy = 25;
constexpr uint16_t kAttrAuth = 1, kAttrCrypt = 2, kAttrTmpl = 5, kAttrPolicyType = 16,
                   kAttrAead = 18, kAttrSvti = 34;

template <class T>
void put(Message& m, size_t pos, T v) {
  if (m.size() < pos + sizeof v) m.resize(pos + sizeof v);
  std::memcpy(m.data() + pos, &v, sizeof v);
}

Message slice(const Message& m, size_t pos, size_t len) {
  return Message(m.begin() + pos, m.begin() + pos + len);
}

// A message the fake sends, built with the agent's netlink core.
class Built {
 public:
  Built(uint16_t type, uint16_t flags, uint32_t seq, uint32_t pid, const Message& body) {
    msg_.put_header(type, flags, pid, seq);
    msg_.put_body(body.data(), body.size());
  }
  Built& attr(uint16_t type, const Message& data) {
    msg_.put_attr(type, data.data(), data.size());
    return *this;
  }
  Message take() const { return {msg_.bytes().begin(), msg_.bytes().end()}; }

 private:
  Message buffer_ = Message(65536);
  NlMessage msg_{buffer_};
};

Message template_for(uint32_t reqid) {
  Message tmpl(at::kTmplSize, 0);
  put<uint8_t>(tmpl, at::kTmplProto, 50);
  put<uint16_t>(tmpl, at::kTmplFamily, 2);
  put<uint32_t>(tmpl, at::kTmplReqid, reqid);
  for (size_t i = 0; i < 3; ++i) put<uint32_t>(tmpl, at::kTmplAalgos + 4 * i, 0xFFFFFFFF);
  return tmpl;
}

struct Attr {
  uint16_t type;
  size_t pos;  // payload
  size_t len;
};

// ---- Layout checks: each returns what is wrong, or an empty string. --------

// The attributes from `from` on, walked by the agent's core; the fake's
// own offsets check what they hold.
std::string walk_attrs(const Message& m, size_t from, std::vector<Attr>& out) {
  const NlAttrs attrs(ReceivedBytes(m.data(), m.size()).slice(NLMSG_ALIGN(from)));
  for (const NlAttr& a : attrs)
    out.push_back({a.type, static_cast<size_t>(a.payload.data() - m.data()), a.payload.size()});
  if (attrs.walk_end() == NlWalkEnd::kExact) return "";
  return "attributes malformed (or unpadded) from byte " + std::to_string(from + attrs.walk_end_offset());
}

std::string check_algo(const Message& m, const Attr& a, size_t header) {
  if (a.len < header) return "algorithm attribute of " + std::to_string(a.len) + " bytes";
  if (!std::memchr(m.data() + a.pos, 0, 64)) return "algorithm name not terminated";
  const uint32_t bits = host_at<uint32_t>(m, a.pos + at::kAlgoKeyBits);
  if (bits % 8 != 0 || a.len != header + bits / 8)
    return "algorithm key of " + std::to_string(bits) + " bits in " + std::to_string(a.len) + " bytes";
  if (header == at::kAeadSize && host_at<uint32_t>(m, a.pos + at::kAeadIcvBits) % 32 != 0)
    return "AEAD ICV length not a multiple of 32 bits";
  return "";
}

std::string check_template(const Message& m, const Attr& a) {
  if (a.len != at::kTmplSize) return "template of " + std::to_string(a.len) + " bytes";
  const uint8_t proto = host_at<uint8_t>(m, a.pos + at::kTmplProto);
  if (host_at<uint16_t>(m, a.pos + at::kTmplFamily) != 2) return "template family not AF_INET";
  if (proto != 50 && proto != 51) return "template protocol " + std::to_string(proto);
  if (host_at<uint8_t>(m, a.pos + at::kTmplMode) > 1) return "template mode above 1";
  return "";
}

std::string check_attr(const Message& m, const Attr& a) {
  switch (a.type) {
    case kAttrSvti:
      return a.len == 4 ? "" : "XFRMA_SVTI_IFINDEX of " + std::to_string(a.len) + " bytes";
    case kAttrTmpl:
      return check_template(m, a);
    case kAttrAuth:
    case kAttrCrypt:
      return check_algo(m, a, at::kAlgoSize);
    case kAttrAead:
      return check_algo(m, a, at::kAeadSize);
    default:
      return "unexpected attribute type " + std::to_string(a.type);
  }
}

// The attribute types in order, as one string ("34 2 1"), for the order checks.
std::string type_list(const std::vector<Attr>& attrs) {
  std::string out;
  for (const Attr& a : attrs) out += (out.empty() ? "" : " ") + std::to_string(a.type);
  return out;
}

// The SVTI index first, then at most one cipher (plain or AEAD), then at
// most two authentication algorithms (ESP's, AH's).
bool sa_attribute_order_ok(const std::vector<Attr>& attrs) {
  size_t i = 0;
  if (attrs.empty() || attrs[i++].type != kAttrSvti) return false;
  if (i < attrs.size() && (attrs[i].type == kAttrCrypt || attrs[i].type == kAttrAead)) ++i;
  const size_t auth_from = i;
  while (i < attrs.size() && attrs[i].type == kAttrAuth) ++i;
  return i == attrs.size() && i - auth_from <= 2;
}

std::string check_sa_add(const Message& m, const std::vector<Attr>& attrs) {
  if (!sa_attribute_order_ok(attrs)) return "SA attributes in order [" + type_list(attrs) + "]";
  const size_t body = at::kHdr;
  if (host_at<uint16_t>(m, body + at::kSaFamily) != 2) return "SA family not AF_INET";
  if (host_at<uint16_t>(m, body + at::kSelFamily) != 2) return "SA selector family not AF_INET";
  if (host_at<uint8_t>(m, body + at::kSaMode) > 1) return "SA mode above 1";
  return "";
}

std::string check_sa_id(const Message& m, const std::vector<Attr>& attrs) {
  if (!attrs.empty()) return "SA get/delete with attributes [" + type_list(attrs) + "]";
  if (host_at<uint16_t>(m, at::kHdr + at::kSaIdFamily) != 2) return "SA id family not AF_INET";
  return "";
}

std::string check_policy_add(const Message& m, const std::vector<Attr>& attrs) {
  if (type_list(attrs) != "34 5") return "policy attributes in order [" + type_list(attrs) + "]";
  const size_t body = at::kHdr;
  if (host_at<uint16_t>(m, body + at::kSelFamily) != 2) return "policy selector family not AF_INET";
  if (host_at<uint8_t>(m, body + at::kPolDir) > 2) return "policy direction above 2";
  if (host_at<uint8_t>(m, body + at::kPolAction) > 1) return "policy action above 1";
  return "";
}

std::string check_policy_id(const Message& m, const std::vector<Attr>& attrs) {
  if (type_list(attrs) != "34") return "policy id attributes [" + type_list(attrs) + "]";
  if (host_at<uint8_t>(m, at::kHdr + at::kPolIdDir) > 2) return "policy direction above 2";
  return "";
}

struct Shape {
  uint16_t type;
  size_t body;
  std::string (*check)(const Message&, const std::vector<Attr>&);
};

const Shape kShapes[] = {
    {kNewSa, at::kSaSize, check_sa_add},          {kDelSa, at::kSaIdSize, check_sa_id},
    {kGetSa, at::kSaIdSize, check_sa_id},         {kNewPolicy, at::kPolSize, check_policy_add},
    {kUpdPolicy, at::kPolSize, check_policy_add}, {kDelPolicy, at::kPolIdSize, check_policy_id},
    {kGetPolicy, at::kPolIdSize, check_policy_id},
};

std::string check_request(const Message& m, std::vector<Attr>& attrs) {
  if (m.size() < at::kHdr) return "request of " + std::to_string(m.size()) + " bytes";
  if (host_at<uint32_t>(m, 0) != m.size()) return "nlmsg_len differs from the bytes sent";
  if (host_at<uint16_t>(m, 6) != (NLM_F_REQUEST | NLM_F_ACK)) return "flags not NLM_F_REQUEST|NLM_F_ACK";
  const uint16_t type = host_at<uint16_t>(m, 4);
  const Shape* shape = nullptr;
  for (const Shape& s : kShapes)
    if (s.type == type) shape = &s;
  if (!shape) return "unexpected message type " + std::to_string(type);
  if (m.size() < at::kHdr + shape->body) return "body shorter than " + std::to_string(shape->body);
  std::string wrong = walk_attrs(m, at::kHdr + shape->body, attrs);
  for (const Attr& a : attrs)
    if (wrong.empty()) wrong = check_attr(m, a);
  return wrong.empty() ? shape->check(m, attrs) : wrong;
}

const Attr* find_attr(const std::vector<Attr>& attrs, uint16_t type) {
  for (const Attr& a : attrs)
    if (a.type == type) return &a;
  return nullptr;
}

}  // namespace

// ---- Messages the kernel sends ---------------------------------------------

Message nl_message(uint16_t type, uint16_t flags, uint32_t seq, uint32_t pid, const Message& payload) {
  return Built(type, flags, seq, pid, payload).take();
}

Message nl_error(uint32_t seq, uint32_t pid, int error) {
  Message payload(4 + at::kHdr, 0);
  put<int32_t>(payload, 0, -error);
  return nl_message(NLMSG_ERROR, 0, seq, pid, payload);
}

Message policy_event(uint16_t type, uint32_t pid, uint32_t index, uint8_t dir,
                     std::optional<uint32_t> reqid) {
  Message body(at::kPolSize, 0);
  put<uint16_t>(body, at::kSelFamily, 2);
  put<uint32_t>(body, at::kPolIndex, index);
  put<uint8_t>(body, at::kPolDir, dir);
  Built event(type, 0, 0, pid, body);
  if (reqid) event.attr(kAttrTmpl, template_for(*reqid));
  return event.attr(kAttrPolicyType, Message(6, 0)).take();
}

Message acquire_event(std::optional<uint32_t> reqid) {
  Message body(at::kAcqSize, 0);
  put<uint8_t>(body, at::kAcqProto, 50);
  put<uint16_t>(body, at::kAcqSel + at::kSelFamily, 2);
  put<uint8_t>(body, at::kAcqPolicy + at::kPolDir, 1);
  Built event(kAcquire, 0, 0, 0, body);
  if (reqid) event.attr(kAttrTmpl, template_for(*reqid));
  return event.take();
}

std::string describe_policy(const Message& m) {
  const uint16_t type = host_at<uint16_t>(m, 4);
  const bool add = type == kNewPolicy || type == kUpdPolicy;
  std::vector<Attr> attrs;
  walk_attrs(m, at::kHdr + (add ? at::kPolSize : at::kPolIdSize), attrs);
  const Attr* svti = find_attr(attrs, kAttrSvti);
  const Attr* tmpl = find_attr(attrs, kAttrTmpl);
  const size_t s = at::kHdr;  // the selector: addresses and ports in network order
  const auto addr = [&](size_t a) {
    return std::to_string(m[a]) + "." + std::to_string(m[a + 1]) + "." + std::to_string(m[a + 2]) + "." +
           std::to_string(m[a + 3]);
  };
  char text[200];
  std::snprintf(text, sizeof text, "%u dir%u %s%u %s/%u:%u>%s/%u:%u p%u svti%u", type,
                m[s + (add ? at::kPolDir : at::kPolIdDir)], add ? "act" : "idx",
                add ? m[s + at::kPolAction] : host_at<uint32_t>(m, s + at::kPolIdIndex), addr(s + 16).c_str(),
                m[s + 43], be16_at(m, s + 36), addr(s).c_str(), m[s + 42], be16_at(m, s + 32), m[s + 44],
                svti ? host_at<uint32_t>(m, svti->pos) : 0);
  if (!add || !tmpl) return text;
  return text + (" idx" + std::to_string(host_at<uint32_t>(m, s + at::kPolIndex))) + " tmpl" +
         std::to_string(m[tmpl->pos + at::kTmplProto]) + "/m" + std::to_string(m[tmpl->pos + at::kTmplMode]) +
         "/r" + std::to_string(host_at<uint32_t>(m, tmpl->pos + at::kTmplReqid));
}

std::string describe_sa(const Message& m) {
  const size_t b = at::kHdr;
  char text[160];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u spi=0x%x p%u reqid=%u m%u r%u life=%llu/%llu", m[b + at::kSaDaddr],
                m[b + at::kSaDaddr + 1], m[b + at::kSaDaddr + 2], m[b + at::kSaDaddr + 3],
                be32_at(m, b + at::kSaSpi), m[b + at::kSaProto], host_at<uint32_t>(m, b + at::kSaReqid),
                m[b + at::kSaMode], m[b + at::kSaMode + 1],
                static_cast<unsigned long long>(host_at<uint64_t>(m, b + at::kSaLifeSoftAdd)),
                static_cast<unsigned long long>(host_at<uint64_t>(m, b + at::kSaLifeSoftAdd + 8)));
  std::string line = text;
  std::vector<Attr> attrs;
  walk_attrs(m, b + at::kSaSize, attrs);
  for (const Attr& a : attrs) {
    if (a.type == kAttrSvti) {
      line += " svti" + std::to_string(host_at<uint32_t>(m, a.pos));
      continue;
    }
    const size_t header = a.type == kAttrAead ? at::kAeadSize : at::kAlgoSize;
    line += " " + std::to_string(a.type) + "=" + reinterpret_cast<const char*>(m.data() + a.pos) + ":" +
            std::to_string(host_at<uint32_t>(m, a.pos + at::kAlgoKeyBits)) + ":";
    for (size_t i = a.pos + header; i < a.pos + a.len; ++i) {
      std::snprintf(text, sizeof text, "%02x", m[i]);
      line += text;
    }
  }
  return line;
}

// ---- The fake kernel ---------------------------------------------------------

struct FakeXfrmKernel::Outcome {
  std::vector<Message> answers;
  std::vector<std::pair<uint32_t, Message>> events;  // group mask, message
};

namespace {

Message error_answer(const Message& request, int err, uint32_t pid) {
  Message payload;
  put<int32_t>(payload, 0, -err);
  // An acknowledgement quotes the request's header; a refusal all of it.
  const size_t quoted = err ? request.size() : std::min(request.size(), at::kHdr);
  payload.insert(payload.end(), request.begin(), request.begin() + quoted);
  return nl_message(NLMSG_ERROR, err ? 0 : NLM_F_CAPPED, host_at<uint32_t>(request, 8), pid, payload);
}

}  // namespace

FakeXfrmKernel::FakeXfrmKernel(uint32_t agent_pid)
    : agent_pid_(agent_pid), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
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

void FakeXfrmKernel::reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  next_index_ = 8;
  scripts_.clear();
  requests_.clear();
  violations_.clear();
  sas_.clear();
  policies_.clear();
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

void FakeXfrmKernel::note(const std::string& what) {
  if (observer_) observer_(what);
}

void FakeXfrmKernel::violation(const std::string& what) {
  violations_.push_back(what);
  note("violation: " + what);
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
  note("request type=" + std::to_string(host_at<uint16_t>(datagram, 4)) + " len=" + std::to_string(datagram.size()));
  const Outcome outcome = answer(datagram);
  for (const Message& a : outcome.answers)
    (void)!send(conn.fd.get(), a.data(), a.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  for (const auto& [groups, event] : outcome.events) multicast_locked(groups, event);
}

// The first packet of an accepted agent socket is the address it binds.
void FakeXfrmKernel::bind_connection(Connection& conn, const Message& datagram) {
  if (datagram.size() != sizeof(sockaddr_nl) || host_at<uint16_t>(datagram, 0) != AF_NETLINK)
    return violation("bind packet of " + std::to_string(datagram.size()) + " bytes");
  conn.bound = true;
  conn.groups = host_at<uint32_t>(datagram, offsetof(sockaddr_nl, nl_groups));
  ucred peer{};
  socklen_t len = sizeof peer;
  if (conn.groups == 0 && getsockopt(conn.fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0)
    agent_pid_ = static_cast<uint32_t>(peer.pid);
  char text[64];
  std::snprintf(text, sizeof text, "bound groups=0x%x pid=%u", conn.groups,
                host_at<uint32_t>(datagram, offsetof(sockaddr_nl, nl_pid)));
  note(text);
}

FakeXfrmKernel::Outcome FakeXfrmKernel::answer(const Message& request) {
  if (scripts_.empty()) return serve_request(request);
  const Script script = std::move(scripts_.front());
  scripts_.pop_front();
  if (!script.raw.empty()) return {script.raw, {}};
  if (script.error) return {{error_answer(request, script.error, agent_pid_)}, {}};
  return serve_request(request);
}

FakeXfrmKernel::Outcome FakeXfrmKernel::serve_request(const Message& request) {
  std::vector<Attr> attrs;
  const std::string wrong = check_request(request, attrs);
  if (!wrong.empty()) {
    violation(wrong);
    return {{error_answer(request, EINVAL, agent_pid_)}, {}};
  }
  const uint16_t type = host_at<uint16_t>(request, 4);
  return type <= kGetSa ? serve_sa(type, request) : serve_policy(type, request);
}

FakeXfrmKernel::Outcome FakeXfrmKernel::serve_sa(uint16_t type, const Message& request) {
  const bool add = type == kNewSa;
  const uint32_t daddr = host_at<uint32_t>(request, at::kHdr + (add ? at::kSaDaddr : 0));
  const uint32_t spi = host_at<uint32_t>(request, at::kHdr + (add ? at::kSaSpi : at::kSaIdSpi));
  const uint8_t proto = host_at<uint8_t>(request, at::kHdr + (add ? at::kSaProto : at::kSaIdProto));
  const auto id = std::make_tuple(daddr, spi, proto);
  const auto found = sas_.find(id);
  int error = 0;
  if (add && proto != 50 && proto != 51)
    error = EINVAL;
  else if (add && found != sas_.end())
    error = EEXIST;
  else if (add)
    sas_[id] = {daddr, spi, proto, host_at<uint32_t>(request, at::kHdr + at::kSaReqid),
                slice(request, at::kHdr, at::kSaSize), request};
  else if (found == sas_.end())
    error = ESRCH;
  else if (type == kGetSa)
    return {{nl_message(kNewSa, 0, host_at<uint32_t>(request, 8), agent_pid_, found->second.body)}, {}};
  else
    sas_.erase(found);
  return {{error_answer(request, error, agent_pid_)}, {}};
}

FakeXfrmKernel::Outcome FakeXfrmKernel::serve_policy(uint16_t type, const Message& request) {
  const uint32_t seq = host_at<uint32_t>(request, 8);
  const bool add = type == kNewPolicy || type == kUpdPolicy;
  std::vector<Attr> attrs;
  walk_attrs(request, at::kHdr + (add ? at::kPolSize : at::kPolIdSize), attrs);
  const Message selector = slice(request, at::kHdr, at::kSelSize);
  const uint8_t dir = host_at<uint8_t>(request, at::kHdr + (add ? at::kPolDir : at::kPolIdDir));
  const uint32_t index = add ? 0 : host_at<uint32_t>(request, at::kHdr + at::kPolIdIndex);
  const uint32_t svti = host_at<uint32_t>(request, find_attr(attrs, kAttrSvti)->pos);
  auto found = std::find_if(policies_.begin(), policies_.end(), [&](const FakePolicy& p) {
    return index ? p.index == index : (p.selector == selector && p.dir == dir && p.svti == svti);
  });
  if (add) {
    if (found != policies_.end() && type == kNewPolicy) return {{error_answer(request, EEXIST, agent_pid_)}, {}};
    FakePolicy p{selector, dir, found != policies_.end() ? found->index : (next_index_ | dir), svti,
                 host_at<uint32_t>(request, find_attr(attrs, kAttrTmpl)->pos + at::kTmplReqid), request};
    put<uint32_t>(p.request, at::kHdr + at::kPolIndex, p.index);
    const Message event = Built(type, 0, seq, agent_pid_, slice(p.request, at::kHdr, p.request.size() - at::kHdr))
                              .attr(kAttrPolicyType, Message(6, 0))
                              .take();
    if (found != policies_.end()) {
      *found = p;
    } else {
      policies_.push_back(p);
      next_index_ += 8;
    }
    return {{error_answer(request, 0, agent_pid_)}, {{kGroupPolicy, event}}};
  }
  if (found == policies_.end()) return {{error_answer(request, ENOENT, agent_pid_)}, {}};
  const Message payload = slice(found->request, at::kHdr, found->request.size() - at::kHdr);
  if (type == kGetPolicy) return {{nl_message(kNewPolicy, 0, seq, agent_pid_, payload)}, {}};
  Message id = slice(request, at::kHdr, at::kPolIdSize);
  put<uint32_t>(id, at::kPolIdIndex, found->index);
  policies_.erase(found);
  return {{error_answer(request, 0, agent_pid_)}, {{kGroupPolicy, nl_message(kDelPolicy, 0, seq, agent_pid_, id)}}};
}

}  // namespace cpa::test
