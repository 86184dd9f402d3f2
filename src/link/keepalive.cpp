#include "link/keepalive.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "wire/keepalive_msg.h"
#include "wire/received_bytes.h"

namespace cpa {
namespace {

constexpr int kIntervalTicksPerDebugLine = 600;
constexpr int kRetryTicksPerDebugLine = 200;
constexpr size_t kKeepaliveBufferSize = 2048;

void* thread_trampoline(void* self) {
  static_cast<Keepalive*>(self)->keepalive_timer_loop(1);
}

// Arms `fd` for its remaining time plus `period`, repeating every `period`.
bool rearm(int fd, int period, const char* get_error, const char* set_error) {
  itimerspec current{};
  if (timerfd_gettime(fd, &current) < 0) cpa_log(LOG_ERR, get_error, errno);
  itimerspec next{};
  next.it_value = current.it_value;
  next.it_value.tv_sec += period;
  next.it_interval.tv_sec = period;
  if (timerfd_settime(fd, 0, &next, nullptr) < 0) {
    cpa_log(LOG_ERR, set_error, errno);
    return false;
  }
  return true;
}

}  // namespace

int Keepalive::start() {
  pthread_t g_timer_thread;
  const int rc = pthread_create(&g_timer_thread, nullptr, thread_trampoline, this);
  if (rc == 0) pthread_detach(g_timer_thread);
  return rc;
}

int Keepalive::keepalive_timers_init() {
  keepalive_interval_fd.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  cpa_log(LOG_DEBUG, "keepalive_interval_fd timerfd_create returns %d\n", keepalive_interval_fd.get());
  if (!keepalive_interval_fd.valid()) {
    cpa_log(LOG_ERR, "timer_create returns %d\n", keepalive_interval_fd.get());
    return 1;
  }
  keepalive_retry_fd.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  cpa_log(LOG_DEBUG, "keepalive_retry_fd timerfd_create returns %d\n", keepalive_retry_fd.get());
  if (!keepalive_retry_fd.valid()) {
    cpa_log(LOG_ERR, "timer_create returns %d\n", keepalive_retry_fd.get());
    keepalive_interval_fd.reset();
    return 1;
  }
  return 0;
}

int Keepalive::keepalive_socket_init() {
  ScopedFd sd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (!sd.valid()) {
    cpa_log(LOG_ERR, " Failed socket() call, reason: %s", std::strerror(errno));
    return 1;
  }
  cpa_log(LOG_DEBUG, "socket() is OK");
  cpa_log(LOG_DEBUG, "try to bind...");
  share_port_with_own_user(sd.get());
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(config_.local_port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(sd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
    cpa_log(LOG_ERR, "bind() error reason: %s", std::strerror(errno));
    return 1;
  }
  cpa_log(LOG_DEBUG, "UDP server - bind() is OK");
  cpa_log(LOG_DEBUG, "Using IP %s and port %d", inet_ntoa(local.sin_addr), config_.local_port);
  keepalive_sd = std::move(sd);
  return 0;
}

int Keepalive::keepalive_start_timers() {
  if (!rearm(keepalive_interval_fd.get(), kKeepaliveIntervalSeconds, "error in getting clock %d\n",
             "Err on keepalive_interval_fd %d\n"))
    return 1;
  if (!rearm(keepalive_retry_fd.get(), kKeepaliveRetrySeconds, "error in getting retry clock %d\n",
             "Err on keepalive_retry_fd %d\n"))
    return 1;
  return 0;
}

void Keepalive::kestrix_send_keepalive() {
  uint8_t keepalive_send_buf[kKeepaliveBufferSize] = {};
  kestrix_keepalive_msg msg{};
  msg.header.message_type = htons(MSG_KEEP_ALIVE);
  // The length goes out in host order, as the RP has always read it.
  msg.header.message_length = sizeof(kestrix_hello_payload);
  std::memcpy(msg.payload.hostId, "IPSEC_DP", 8);
  std::memcpy(keepalive_send_buf, &msg, sizeof msg);
  if (sendto(keepalive_sd.get(), keepalive_send_buf, sizeof msg, 0,
             reinterpret_cast<const sockaddr*>(&ka_cpaddr), ka_cpaddrlen) < 0) {
    cpa_log(LOG_ERR, "sendto() error, reason: %s", std::strerror(errno));
    return;
  }
  ++counters_.misc_dbg_ctrs.k_keepalive_sent;
}

void Keepalive::kestrix_process_aging() {
  const uint64_t expirations =
      read_expirations(keepalive_retry_fd.get(), "Read error on retry fd: read bytes %d");
  if (expirations == 0) return;
  if (keepalive_pkt_rcvd) {
    keepalive_pkt_rcvd = 0;
    shared_.take_rp_activity();
  } else if (!shared_.take_rp_activity()) {
    const cpa_misc_ctr_t& m = counters_.misc_dbg_ctrs;
    ++counters_.misc_dbg_ctrs.k_cpa_abort;
    cpa_log(LOG_WARNING, "Max Keepalive Retry Reached. sent %d recv %d abort %d\n",
            static_cast<uint32_t>(m.k_keepalive_sent), static_cast<uint32_t>(m.k_keepalive_recv),
            static_cast<uint32_t>(m.k_cpa_abort));
  }
  if (++k_int_retry_ctr == kRetryTicksPerDebugLine) {
    cpa_log(LOG_DEBUG, "Keepalive_retry_timer expires %d", static_cast<int>(expirations));
    k_int_retry_ctr = 0;
  }
}

uint64_t Keepalive::read_expirations(int fd, const char* error_format) {
  uint64_t expirations = 0;
  const ssize_t n = read(fd, &expirations, sizeof expirations);
  if (n != static_cast<ssize_t>(sizeof expirations)) {
    cpa_log(LOG_ERR, error_format, static_cast<int>(n));
    return 0;
  }
  return expirations;
}

void Keepalive::serve_interval_timer() {
  const uint64_t expirations =
      read_expirations(keepalive_interval_fd.get(), "Read error on interval fd: read bytes %d");
  if (expirations == 0) return;
  if (shared_.g_display_ctr.load()) {
    Pal_Ceal_dbg_counter_display(counters_, commands_, config_.report_path);
    shared_.g_display_ctr.store(0);
  }
  kestrix_send_keepalive();
  if (++k_int_debug_ctr == kIntervalTicksPerDebugLine) {
    const cpa_misc_ctr_t& m = counters_.misc_dbg_ctrs;
    cpa_log(LOG_DEBUG, "Keepalive_interval_timer expires %lld sent %d recv %d",
            static_cast<long long>(expirations), static_cast<uint32_t>(m.k_keepalive_sent),
            static_cast<uint32_t>(m.k_keepalive_recv));
    k_int_debug_ctr = 0;
  }
}

void Keepalive::serve_retry_timer() { kestrix_process_aging(); }

void Keepalive::serve_socket() {
  uint8_t keepalive_recv_buf[kKeepaliveBufferSize];
  sockaddr_in source{};
  socklen_t source_length = sizeof source;
  const ssize_t n = recvfrom(keepalive_sd.get(), keepalive_recv_buf, sizeof keepalive_recv_buf, 0,
                             reinterpret_cast<sockaddr*>(&source), &source_length);
  if (n < 0) {
    cpa_log(LOG_ERR, "Error in recvfrom %d errno %d", static_cast<int>(n), errno);
    return;
  }
  if (!filter_.admits(source)) return;
  // A datagram too short for its type reads as type 0 (zero-filled).
  const auto type = ReceivedBytes(keepalive_recv_buf, static_cast<size_t>(n)).read_padded<uint16_t>(0);
  if (ntohs(type.value) != MSG_KEEP_ALIVE) {
    cpa_log(LOG_ERR, "Unknown msgtype for Keepalive thread, msg_type %d", ntohs(type.value));
    return;
  }
  on_keepalive_from(source);
}

void Keepalive::on_keepalive_from(const sockaddr_in& source) {
  if (!first_ka_pkt_recvd) {
    cpa_log(LOG_INFO, "First keepalive msg received");
    first_ka_pkt_recvd = 1;
    keepalive_start_timers();
  }
  if (ka_cpaddr.sin_family == 0) {
    ka_cpaddr.sin_family = AF_INET;
    ka_cpaddr.sin_addr = source.sin_addr;
    ka_cpaddr.sin_port = htons(config_.rp_port);
    ka_cpaddrlen = sizeof ka_cpaddr;
    cpa_log(LOG_DEBUG, "Send Port address set port %d addr 0x%x ka_addrlen %d sizeof %d\n",
            ka_cpaddr.sin_port, ntohl(ka_cpaddr.sin_addr.s_addr), static_cast<int>(ka_cpaddrlen),
            static_cast<int>(sizeof ka_cpaddr));
  }
  keepalive_pkt_rcvd = 1;
  ++counters_.misc_dbg_ctrs.k_keepalive_recv;
}

void Keepalive::keepalive_timer_loop(int thread_number) {
  cpa_log(LOG_INFO, "THIS IS THE START POINT FOR KA THREAD");
  first_ka_pkt_recvd = 0;
  if (keepalive_timers_init() != 0) {
    cpa_log(LOG_ERR, "Timer Initialization failed");
    std::exit(1);
  }
  cpa_log(LOG_INFO, "Keepalive timers Initialized int fd %d retry fd %d", interval_fd(), retry_fd());
  if (keepalive_socket_init() != 0) {
    cpa_log(LOG_ERR, "Socket Initialization failed");
    std::exit(1);
  }
  cpa_log(LOG_INFO, "Keepalive socket Initialized sock_fd %d\n", socket_fd());
  cpa_log(LOG_DEBUG, "Starting thread %d\n", thread_number);
  const int nfds = std::max({interval_fd(), retry_fd(), socket_fd()}) + 1;
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(interval_fd(), &readable);
    FD_SET(retry_fd(), &readable);
    FD_SET(socket_fd(), &readable);
    if (select(nfds, &readable, nullptr, nullptr, nullptr) < 0) continue;  // EINTR: wait again
    for (int fd = 0; fd < nfds; ++fd) {
      if (!FD_ISSET(fd, &readable)) continue;
      if (fd == socket_fd())
        serve_socket();
      else if (first_ka_pkt_recvd && fd == interval_fd())
        serve_interval_timer();
      else if (first_ka_pkt_recvd && fd == retry_fd())
        serve_retry_timer();
    }
  }
}

}  // namespace cpa
