#include "daemon/signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace cpa {
namespace {

volatile sig_atomic_t g_state_dump_requested = 0;
std::atomic<std::atomic<int>*> g_display_flag{nullptr};
int g_wake_pipe[2] = {-1, -1};

void kestrix_sighdlr(int sig) {
  const int saved_errno = errno;
  if (sig == SIGINT) {
    g_state_dump_requested = 1;
    const char byte = 1;
    if (write(g_wake_pipe[1], &byte, 1) < 0) {
      // The pipe is full: a wake-up is pending already.
    }
  } else if (sig == SIGUSR1) {
    if (std::atomic<int>* flag = g_display_flag.load()) flag->store(1);
  }
  errno = saved_errno;
}

}  // namespace

void kestrix_reg_sighdlr() {
  if (g_wake_pipe[0] < 0 && pipe2(g_wake_pipe, O_NONBLOCK | O_CLOEXEC) < 0)
    cpa_log(LOG_ERR, "signal: %s  ", std::strerror(errno));
  struct sigaction action{};
  action.sa_handler = kestrix_sighdlr;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  if (sigaction(SIGINT, &action, nullptr) < 0) cpa_log(LOG_ERR, "signal: %s  ", std::strerror(errno));
  if (sigaction(SIGUSR1, &action, nullptr) < 0)
    cpa_log(LOG_ERR, "signal: %s  ", std::strerror(errno));
}

void bind_display_flag(std::atomic<int>* g_display_ctr) { g_display_flag.store(g_display_ctr); }

int signal_wake_fd() { return g_wake_pipe[0]; }

bool take_state_dump_request() {
  char drain[64];
  while (read(g_wake_pipe[0], drain, sizeof drain) > 0) {
  }
  const bool requested = g_state_dump_requested != 0;
  g_state_dump_requested = 0;
  return requested;
}

}  // namespace cpa
