// The one logging seam. The agent's lines go to syslog; tests install a sink
// that records them. Priorities are syslog's (LOG_ERR, LOG_DEBUG, ...).
#pragma once

#include <syslog.h>

#include <cstdarg>

namespace cpa {

class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(int priority, const char* format, va_list args) = 0;
};

void cpa_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Installs `sink` (null restores syslog) and returns the previous one.
LogSink* set_log_sink(LogSink* sink);

// The agent's syslog identity: "ipsec_cpa", LOG_PID|LOG_CONS|LOG_NDELAY, LOG_LOCAL0.
void open_agent_syslog();

}  // namespace cpa
