#include "platform/command_queue.h"

#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

extern char** environ;

namespace cpa {
namespace {

// Polled this often when the kernel offers no process descriptor.
constexpr int kPollMs = 10;

long ms_between(const timespec& from, const timespec& to) {
  return (to.tv_sec - from.tv_sec) * 1000L + (to.tv_nsec - from.tv_nsec) / 1000000L;
}

// The process environment with `variables` put over it.
std::vector<std::string> environment_with(const std::map<std::string, std::string>& variables) {
  std::vector<std::string> out;
  for (char** e = environ; *e; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (!eq || !variables.count(std::string(*e, static_cast<size_t>(eq - *e)))) out.emplace_back(*e);
  }
  for (const auto& [name, value] : variables) out.push_back(name + "=" + value);
  return out;
}

// /bin/sh -c `command` in a process group of its own, default signal
// handling and nothing blocked, as system() would run it.
pid_t spawn_shell(const std::string& command, const std::vector<std::string>& environment) {
  std::vector<char*> envp;
  for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()), nullptr};
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attr, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attr, &signals);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, envp.data());
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    cpa_log(LOG_ERR, "Failed to run %s, reason: %s", command.c_str(), std::strerror(rc));
    return 0;
  }
  return pid;
}

}  // namespace

CommandQueue::~CommandQueue() {
  if (pid_ <= 0) return;
  kill(-pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

int CommandQueue::run(const char* command) {
  if (waiting_.size() >= max_waiting_) {
    dropped_++;
    return -1;
  }
  waiting_.push_back({command, environment_with(variables_)});
  return 0;
}

void CommandQueue::set(const char* name, const char* value) { variables_[name] = value; }

void CommandQueue::advance() {
  if (pid_ > 0 && !reap()) return;
  start_next();
}

int CommandQueue::timeout_ms() {
  if (pid_ <= 0) return waiting_.empty() ? -1 : 0;
  if (!pidfd_.valid() || killed_) return kPollMs;
  const long left = ms_between(clock_.monotonic_now(), deadline_);
  return left > 0 ? static_cast<int>(left) : 0;
}

// True when the running command is gone; kills it once it is overdue.
bool CommandQueue::reap() {
  const pid_t gone = waitpid(pid_, nullptr, WNOHANG);
  if (gone == pid_ || (gone < 0 && errno == ECHILD)) {
    pid_ = 0;
    pidfd_.reset();
    return true;
  }
  if (!killed_ && ms_between(clock_.monotonic_now(), deadline_) <= 0) {
    cpa_log(LOG_ERR, "Command timed out after %d ms, killed", time_limit_ms_);
    kill(-pid_, SIGKILL);
    killed_ = true;
  }
  return false;
}

void CommandQueue::start_next() {
  while (pid_ <= 0 && !waiting_.empty()) {
    const Queued next = std::move(waiting_.front());
    waiting_.pop_front();
    pid_ = spawn_shell(next.command, next.environment);
  }
  if (pid_ <= 0) return;
  pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  killed_ = false;
  deadline_ = clock_.monotonic_now();
  deadline_.tv_sec += time_limit_ms_ / 1000;
  deadline_.tv_nsec += (time_limit_ms_ % 1000) * 1000000L;
  if (deadline_.tv_nsec >= 1000000000L) {
    deadline_.tv_sec++;
    deadline_.tv_nsec -= 1000000000L;
  }
}

}  // namespace cpa
