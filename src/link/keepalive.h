// The keepalive thread: learns the RP from its first keepalive, then sends a
// keepalive every second, checks every three seconds that the RP showed a
// sign of life, and writes the counter report when it was asked for.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>

#include "base/thread_shared.h"
#include "diag/counter_report.h"
#include "base/counters.h"
#include "link/rp_allow_list.h"
#include "platform/scoped_fd.h"
#include "platform/system_ports.h"

namespace cpa {

inline constexpr uint16_t kKeepalivePort = 23458;
inline constexpr int kKeepaliveIntervalSeconds = 1;
inline constexpr int kKeepaliveRetrySeconds = 3;

struct KeepaliveConfig {
  uint16_t local_port = kKeepalivePort;  // bound by the keepalive socket
  uint16_t rp_port = kKeepalivePort;     // where keepalives are sent
  const char* report_path = kCounterReportPath;
};

class Keepalive {
 public:
  Keepalive(ThreadShared& shared, DebugCounters& counters, CommandRunner& commands,
            RpSourceFilter& filter, KeepaliveConfig config = {})
      : shared_(shared), counters_(counters), commands_(commands), filter_(filter), config_(config) {}

  // Starts the thread (body keepalive_timer_loop, argument 1); pthread_create's result.
  int start();

  // The thread body; never returns. Set-up failures end the process with status 1.
  [[noreturn]] void keepalive_timer_loop(int thread_number);

  int keepalive_timers_init();
  int keepalive_socket_init();
  int keepalive_start_timers();
  void kestrix_send_keepalive();
  void kestrix_process_aging();

  // One readable event of each descriptor, as the loop serves them.
  void serve_interval_timer();
  void serve_retry_timer();
  void serve_socket();

  bool running() const { return first_ka_pkt_recvd != 0; }
  int interval_fd() const { return keepalive_interval_fd.get(); }
  int retry_fd() const { return keepalive_retry_fd.get(); }
  int socket_fd() const { return keepalive_sd.get(); }

 private:
  static uint64_t read_expirations(int fd, const char* error_format);
  void on_keepalive_from(const sockaddr_in& source);

  ThreadShared& shared_;
  DebugCounters& counters_;
  CommandRunner& commands_;
  RpSourceFilter& filter_;
  KeepaliveConfig config_;

  ScopedFd keepalive_sd;
  ScopedFd keepalive_interval_fd;
  ScopedFd keepalive_retry_fd;
  int first_ka_pkt_recvd = 0;
  int keepalive_pkt_rcvd = 0;
  sockaddr_in ka_cpaddr{};  // family 0 until the first keepalive
  socklen_t ka_cpaddrlen = sizeof(sockaddr_in);
  int k_int_debug_ctr = 0;
  int k_int_retry_ctr = 0;
};

}  // namespace cpa
