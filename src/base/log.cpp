#include "base/log.h"

#include <atomic>

namespace cpa {
namespace {

class SyslogSink final : public LogSink {
 public:
  void write(int priority, const char* format, va_list args) override {
    vsyslog(priority, format, args);
  }
};

// Never destroyed: the keepalive thread may end the process with exit()
// while the main thread still logs, and a sink torn down by exit()'s
// destructors would be called half destroyed.
LogSink* const g_syslog_sink = new SyslogSink;
std::atomic<LogSink*> g_sink{g_syslog_sink};

}  // namespace

void cpa_log(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  g_sink.load(std::memory_order_acquire)->write(priority, format, args);
  va_end(args);
}

LogSink* set_log_sink(LogSink* sink) {
  return g_sink.exchange(sink ? sink : g_syslog_sink, std::memory_order_acq_rel);
}

void open_agent_syslog() { openlog("ipsec_cpa", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL0); }

}  // namespace cpa
