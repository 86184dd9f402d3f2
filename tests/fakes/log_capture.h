// Records the agent's log lines (priority and formatted text) while it is alive.
#pragma once

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "diag/unit_test_mode.h"

namespace cpa::test {

struct LogLine {
  int priority;
  std::string text;
  bool operator==(const LogLine&) const = default;
  friend void PrintTo(const LogLine& l, std::ostream* os) { *os << l.priority << " \"" << l.text << "\""; }
};

class LogCapture final : public LogSink {
 public:
  LogCapture() : previous_(set_log_sink(this)) {}
  ~LogCapture() override { set_log_sink(previous_); }
  void write(int priority, const char* format, va_list args) override {
    char text[8192];
    std::vsnprintf(text, sizeof text, format, args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({priority, text});
  }

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // The texts of every line, or of those of `priority`.
  std::vector<std::string> texts(int priority = -1) const {
    std::vector<std::string> out;
    for (const auto& line : lines())
      if (priority < 0 || line.priority == priority) out.push_back(line.text);
    return out;
  }
  // Every line as "<priority> <text>", for comparing with a file of test data.
  std::string transcript() const {
    std::string out;
    for (const auto& line : lines()) out += std::to_string(line.priority) + " " + line.text + "\n";
    return out;
  }
  bool has(int priority, std::string_view text) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), LogLine{priority, std::string(text)}) != all.end();
  }
  int count(std::string_view text) const {
    const auto all = texts();
    return static_cast<int>(std::count(all.begin(), all.end(), text));
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  LogSink* previous_;
};

// Records what unit-test mode prints on the console while it is alive.
class ConsoleCapture final : public UtConsole {
 public:
  ConsoleCapture() : previous_(set_ut_console(this)) {}
  ~ConsoleCapture() override { set_ut_console(previous_); }
  void write(const char* format, va_list args) override {
    char line[512];
    std::vsnprintf(line, sizeof line, format, args);
    text += line;
  }
  std::string text;

 private:
  UtConsole* previous_;
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace cpa::test
