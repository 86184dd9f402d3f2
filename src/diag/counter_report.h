// The counter report: every PAL, CEAL, netlink, keepalive and ARP counter
// written as a text table to a fixed file.
#pragma once

#include "base/counters.h"
#include "platform/system_ports.h"

namespace cpa {

inline constexpr const char* kCounterReportPath = "/usr/admin/log/.cpa_ctrs";

// Writes the report to `path` (created or truncated). When the file cannot be
// opened, leaves the marker "/usr/admin/log/.cpa_err" through the shell instead.
void Pal_Ceal_dbg_counter_display(const DebugCounters& ctrs, CommandRunner& commands,
                                  const char* path = kCounterReportPath);

}  // namespace cpa
