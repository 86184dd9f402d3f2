// A log sink that drops every line, for long runs that would pile them up.
#pragma once

#include "diag/log.h"

namespace cpa::test {

class NullLog final : public LogSink {
 public:
  NullLog() : previous_(set_log_sink(this)) {}
  ~NullLog() override { set_log_sink(previous_); }
  void write(int, const char*, va_list) override {}

 private:
  LogSink* previous_;
};

}  // namespace cpa::test
