// The shell commands the ARP handler asks for, run off the main loop: one at
// a time in the order asked, each with the environment set when it was asked
// and a time limit after which its process group is killed. The loop waits
// on wake_fd() and the timeout, and calls advance() after every wake.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "base/counters.h"
#include "platform/scoped_fd.h"
#include "platform/system_ports.h"

namespace cpa {

class CommandQueue final : public CommandRunner, public Environment {
 public:
  // Past `max_waiting` commands a new one is dropped and counted in `dropped`.
  CommandQueue(Clock& clock, int time_limit_ms, size_t max_waiting, ctr32& dropped)
      : clock_(clock), time_limit_ms_(time_limit_ms), max_waiting_(max_waiting), dropped_(dropped) {}
  CommandQueue(const CommandQueue&) = delete;
  CommandQueue& operator=(const CommandQueue&) = delete;
  ~CommandQueue() override;

  // Queues `command`; 0, or -1 when the queue is full.
  int run(const char* command) override;
  // Sets a variable for the commands queued from now on.
  void set(const char* name, const char* value) override;

  // Reaps a finished command, kills an overdue one, starts the next.
  void advance();
  int wake_fd() const { return pidfd_.get(); }  // readable when the running command ends; -1 when none
  // How long the loop may sleep before advance() is due; -1 for as long as it likes.
  int timeout_ms();
  bool idle() const { return pid_ <= 0 && waiting_.empty(); }

 private:
  struct Queued {
    std::string command;
    std::vector<std::string> environment;  // "NAME=value", the whole environment
  };
  bool reap();
  void start_next();

  Clock& clock_;
  const int time_limit_ms_;
  const size_t max_waiting_;
  ctr32& dropped_;
  std::map<std::string, std::string> variables_;
  std::deque<Queued> waiting_;
  pid_t pid_ = 0;  // the running command's shell
  ScopedFd pidfd_;
  timespec deadline_{};
  bool killed_ = false;
};

}  // namespace cpa
