// A log sink for fuzzing: every line is formatted (so that its arguments are
// read) and dropped, so that millions of runs use no memory for logs.
#pragma once

#include <cstdio>

#include "diag/log.h"

namespace cpa::test {

class DiscardingLog final : public LogSink {
 public:
  DiscardingLog() : previous_(set_log_sink(this)) {}
  ~DiscardingLog() override { set_log_sink(previous_); }
  void write(int, const char* format, va_list args) override {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
  }

 private:
  LogSink* previous_;
};

}  // namespace cpa::test
