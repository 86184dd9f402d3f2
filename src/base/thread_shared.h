// What the main thread and the keepalive thread share, and who touches what:
//   pal_pkt_recvd  set by the main thread after every PAL or CEAL datagram,
//                  tested and cleared by the keepalive thread; both under
//                  g_keepalive_ctr_lock, the only lock in the agent.
//   g_display_ctr  set by the SIGUSR1 handler, cleared by the keepalive thread
//                  once it has written the counter report.
//   counters       DebugCounters (relaxed atomics): raised by the main thread
//                  (misc ARP counters too) and by the keepalive thread
//                  (keepalive counters); read by the keepalive thread for the report.
#pragma once

#include <atomic>
#include <mutex>

namespace cpa {

class ThreadShared {
 public:
  void mark_rp_activity() {
    std::lock_guard<std::mutex> lock(g_keepalive_ctr_lock);
    pal_pkt_recvd = 1;
  }
  // True when the RP was active since the last call; clears the mark.
  bool take_rp_activity() {
    std::lock_guard<std::mutex> lock(g_keepalive_ctr_lock);
    const bool seen = pal_pkt_recvd != 0;
    pal_pkt_recvd = 0;
    return seen;
  }

  std::atomic<int> g_display_ctr{0};
  static_assert(std::atomic<int>::is_always_lock_free, "set from a signal handler");

 private:
  std::mutex g_keepalive_ctr_lock;
  int pal_pkt_recvd = 0;
};

}  // namespace cpa
