// Records the agent's log lines (priority and text) while it is alive.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "diag/log.h"

namespace cpa::test {

struct LogLine {
  int priority;
  std::string text;
  bool operator==(const LogLine&) const = default;
};

class LogCapture final : public LogSink {
 public:
  LogCapture();
  ~LogCapture() override;
  void write(int priority, const char* format, va_list args) override;

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  bool has(int priority, std::string_view text) const;
  bool has_text(std::string_view text) const;
  int count(std::string_view text) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  LogSink* previous_;
};

}  // namespace cpa::test
