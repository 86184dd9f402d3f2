#include "fakes/log_capture.h"

#include <algorithm>
#include <cstdio>

namespace cpa::test {

LogCapture::LogCapture() : previous_(set_log_sink(this)) {}
LogCapture::~LogCapture() { set_log_sink(previous_); }

void LogCapture::write(int priority, const char* format, va_list args) {
  char text[8192];
  std::vsnprintf(text, sizeof text, format, args);
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({priority, text});
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> out;
  for (const auto& line : lines()) out.push_back(line.text);
  return out;
}

bool LogCapture::has(int priority, std::string_view text) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(),
                     [&](const LogLine& l) { return l.priority == priority && l.text == text; });
}

bool LogCapture::has_text(std::string_view text) const { return count(text) > 0; }

int LogCapture::count(std::string_view text) const {
  const auto all = lines();
  return static_cast<int>(
      std::count_if(all.begin(), all.end(), [&](const LogLine& l) { return l.text == text; }));
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace cpa::test
