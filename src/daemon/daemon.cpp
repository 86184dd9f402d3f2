#include "daemon/daemon.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/agent.h"
#include "daemon/options.h"
#include "daemon/signals.h"
#include "base/log.h"
#include "diag/state_dump.h"
#include "kernel/kernel_backend.h"
#include "kernel/netlink_listener.h"
#include "kernel/netlink_socket.h"
#include "link/arp.h"
#include "link/arp_handler.h"
#include "link/keepalive.h"
#include "link/rp_allow_list.h"
#include "pal/pal_dispatcher.h"
#include "pal/tunnel_policy_events.h"
#include "pal/rp_link.h"
#include "platform/command_queue.h"
#include "platform/scoped_fd.h"

namespace cpa {
namespace {

constexpr size_t kReceiveBufferSize = 2048;
constexpr int kRequestSocketBuffer = 0x200000;
// An ARP command may take this long before it is killed; at most this many wait.
constexpr int kArpCommandTimeLimitMs = 10000;
constexpr size_t kArpCommandsWaiting = 64;
struct DaemonSockets {
  ScopedFd g_sd;        // UDP requests
  ScopedFd g_arp_sd;    // ARP on ethgrp0, once it exists
  ScopedFd link_fd;     // link events: when ethgrp0 appears
  ScopedFd nlsock_fd;   // netlink requests, until handed to the agent
  ScopedFd nlmon_fd;    // netlink policy events
};

ScopedFd open_or_exit(int domain, int type, int protocol) {
  ScopedFd fd(socket(domain, type | SOCK_CLOEXEC, protocol));
  if (!fd.valid()) {
    cpa_log(LOG_ERR, " Failed socket() call, reason: %s", std::strerror(errno));
    std::exit(0);
  }
  return fd;
}

ScopedFd netlink_or_exit(uint32_t groups) {
  ScopedFd fd = kestrix_nlink_socket_create(groups);
  if (!fd.valid()) std::exit(0);
  return fd;
}

void bind_request_socket(int g_sd) {
  cpa_log(LOG_INFO, "try to bind...");
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(kPalPort);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  share_port_with_own_user(g_sd);
  if (setsockopt(g_sd, SOL_SOCKET, SO_RCVBUF, &kRequestSocketBuffer, sizeof kRequestSocketBuffer) < 0)
    cpa_log(LOG_ERR, "setsockopt() SO_RCVBUF error, reason: %s", std::strerror(errno));
  cpa_log(LOG_DEBUG, "Set the receive buffer size to 2 MB");
  if (bind(g_sd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
    cpa_log(LOG_ERR, "bind() error reason: %s", std::strerror(errno));
    close(g_sd);
    std::_Exit(1);  // non-zero, so that the service manager restarts the agent
  }
  cpa_log(LOG_INFO, "UDP server - bind() is OK");
  cpa_log(LOG_DEBUG, "Using IP %s and port %d", inet_ntoa(local.sin_addr), kPalPort);
  cpa_log(LOG_INFO, "UDP server - Listening...");
}

DaemonSockets open_sockets() {
  DaemonSockets s;
  s.g_sd = open_or_exit(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  cpa_log(LOG_INFO, "socket() is OK");
  s.g_arp_sd = open_or_exit(AF_PACKET, SOCK_DGRAM, 0);  // hears nothing until bound
  cpa_log(LOG_INFO, "ARP socket() is OK");
  s.link_fd = open_or_exit(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  return s;
}

void start_keepalive_or_exit(Keepalive& keepalive) {
  const int rc = keepalive.start();
  cpa_log(LOG_DEBUG, "pthread_create returns %d\n", rc);
  if (rc != 0) {
    cpa_log(LOG_DEBUG, "pthread_create error %d\n", rc);
    std::exit(1);
  }
}

// Unit-test mode starts from empty kernel tables and without the test tunnel.
void clear_unit_test_leftovers(CommandRunner& commands) {
  commands.run("ip xfrm policy flush");
  commands.run("ip xfrm state flush");
  commands.run("ip tunnel del svti2");
}

// The request socket's receiving end: the RP link and who may use it.
struct RpReceiver {
  RpLink& link;
  RpSourceFilter& filter;
};

// The ARP side: the socket, what a frame makes the agent do, and the
// commands that follows.
struct ArpSide {
  ArpPort& port;
  ArpHandler& handler;
  CommandQueue& commands;
};

class EventLoop {
 public:
  EventLoop(Agent& agent, RpReceiver rp, ArpSide arp, const DaemonSockets& sockets)
      : agent_(agent),
        rp_(rp),
        arp_(arp),
        sockets_(sockets),
        policy_events_(agent.tunnels, agent.sys.rp),
        listener_{agent.nlink, agent.tunnels, policy_events_, agent.counters.netlink_dbg_ctrs} {}

  [[noreturn]] void serve_forever() {
    for (;;) {
      fd_set readable;
      const int nfds = build_read_set(readable);
      const int timeout_ms = arp_.commands.timeout_ms();
      timeval timeout{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
      const int ready = select(nfds, &readable, nullptr, nullptr, timeout_ms < 0 ? nullptr : &timeout);
      if (ready < 0 && errno != EINTR) cpa_log(LOG_ERR, "select() error, reason: %s", std::strerror(errno));
      for (int fd = 0; ready > 0 && fd < nfds; ++fd)
        if (FD_ISSET(fd, &readable)) serve(fd);
      arp_.commands.advance();
    }
  }

 private:
  // The descriptors worth waiting on now; answers select()'s nfds.
  int build_read_set(fd_set& readable) const {
    FD_ZERO(&readable);
    int top = -1;
    for (const int fd : {sockets_.g_sd.get(), sockets_.nlmon_fd.get(), arp_.port.link_events_fd(),
                         arp_.port.frames_fd(), arp_.commands.wake_fd(), signal_wake_fd()}) {
      if (fd < 0) continue;
      FD_SET(fd, &readable);
      top = std::max(top, fd);
    }
    return top + 1;
  }

  void serve(int fd) {
    if (fd == arp_.port.link_events_fd()) {
      arp_.port.on_link_events();
    } else if (fd == arp_.port.frames_fd()) {
      const ssize_t n = recv(fd, buffer_, sizeof buffer_, MSG_DONTWAIT);
      if (n > 0) {
        cpa_log(LOG_DEBUG, "got something on ARP sd, len [%d]", static_cast<int>(n));
        arp_.handler.kestrix_pal_proc_arp(ReceivedBytes(buffer_, static_cast<size_t>(n)));
      }
    } else if (fd == sockets_.g_sd.get()) {
      sockaddr_in source{};
      socklen_t source_length = sizeof source;
      const ssize_t n = rp_.link.kestrix_pal_recvfrom(buffer_, sizeof buffer_, &source, &source_length, rp_.filter);
      if (n <= 0) return;
      kestrix_pal_process_msg(agent_, ReceivedBytes(buffer_, static_cast<size_t>(n)));
      explicit_bzero(buffer_, static_cast<size_t>(n));  // a key request's keys
    } else if (fd == sockets_.nlmon_fd.get()) {
      cpa_log(LOG_DEBUG, "got notification from netlink");
      kestrix_nlink_listener(listener_, fd);
    } else if (fd == signal_wake_fd() && take_state_dump_request()) {
      cpa_log(LOG_DEBUG, "Signalled! ");
      kestrix_dump_all_tunnels(agent_.tunnels);
    }
  }

  Agent& agent_;
  RpReceiver rp_;
  ArpSide arp_;
  const DaemonSockets& sockets_;
  TunnelPolicyEvents policy_events_;
  NetlinkListenerContext listener_;
  uint8_t buffer_[kReceiveBufferSize];  // the one receive buffer of the UDP and ARP paths
};

}  // namespace

int run_agent(int argc, char* argv[]) {
  // No core image or ptrace peek of another user may read the keys it holds.
  prctl(PR_SET_DUMPABLE, 0);
  open_agent_syslog();
  kestrix_reg_sighdlr();
  const std::optional<Options> opts = parse_options(argc, argv, stdout);
  // The option messages must reach a redirected stdout before the daemon settles.
  std::fflush(stdout);
  if (!opts) return 0;
  if (opts->filter_log) setlogmask(LOG_UPTO(opts->log_severity));
  cpa_log(LOG_INFO, "THIS IS THE START POINT");
  cpa_log(LOG_DEBUG, "Coming up fresh with PID: %d", getpid());
  cpa_log(LOG_DEBUG, "Replay window size is %d\n", opts->settings.g_replay_window_size);
  cpa_log(LOG_INFO, "Kernel flavour: %s", flavour_name(opts->settings.kernel_flavour));

  DaemonSockets sockets = open_sockets();
  ArpPort arp(std::move(sockets.g_arp_sd), std::move(sockets.link_fd));
  arp.watch_interface();
  sockets.nlsock_fd = netlink_or_exit(0);
  const uint32_t groups = kernel_backend(opts->settings.kernel_flavour).monitor_groups;
  cpa_log(LOG_DEBUG, "nl_grps 0x%x", groups);
  sockets.nlmon_fd = netlink_or_exit(groups);
  cpa_log(LOG_DEBUG, "ike_proxy netink fd %d", sockets.nlmon_fd.get());
  bind_request_socket(sockets.g_sd.get());

  SystemClock clock;
  ShellCommandRunner commands;
  RpLink rp(sockets.g_sd.get());
  KernelNetDeviceSysCalls devices;
  Agent agent(opts->settings, AgentSeams{clock, commands, rp, devices});
  RpSourceFilter filter(opts->rp_allow_list, agent.counters.misc_dbg_ctrs.k_rp_filter_drop, clock);
  filter.warn_if_open();
  agent.fastpath.kestrix_stats_sharedmem_init();
  agent.nlink.attach(std::move(sockets.nlsock_fd));
  agent.tunnels.init_sadb();
  bind_display_flag(&agent.shared.g_display_ctr);

  Keepalive keepalive(agent.shared, agent.counters, commands, filter);
  start_keepalive_or_exit(keepalive);
  if (agent.settings.g_unit_test_on) clear_unit_test_leftovers(commands);
  CommandQueue arp_commands(clock, kArpCommandTimeLimitMs, kArpCommandsWaiting, agent.counters.misc_dbg_ctrs.k_arp_err);
  ArpHandler arp_handler(ArpSeams{devices, arp_commands, arp_commands}, agent.counters.misc_dbg_ctrs);
  EventLoop(agent, RpReceiver{rp, filter}, ArpSide{arp, arp_handler, arp_commands}, sockets).serve_forever();
}

}  // namespace cpa
