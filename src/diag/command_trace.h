// The command trace: a start line and an end line with the status and the
// elapsed seconds for every PAL and CEAL command.
#pragma once

#include <time.h>

#include <cstdint>

#include "platform/system_ports.h"

namespace cpa {

// Command names as the trace prints them, indexed by command number.
extern const char* const pal_cmd_str[26];
extern const char* const ceal_cmd_str[5];

class CommandTrace {
 public:
  explicit CommandTrace(Clock& clock) : clock_(clock) {}

  // time_flag 0 marks the start of a command, 1 its end.
  void pal_cmd_print(int cmd_id, uint32_t callback_handle, uint32_t sadb_handle, int time_flag,
                     int status);
  void ceal_cmd_print(int cmd_id, int time_flag, int status);

  // Runs `work` (returning a status) between the start and end lines of a PAL command.
  template <class Work>
  auto traced(int cmd_id, uint32_t callback_handle, uint32_t sadb_handle, Work work) {
    pal_cmd_print(cmd_id, callback_handle, sadb_handle, 0, 0);
    const auto status = work();
    pal_cmd_print(cmd_id, callback_handle, sadb_handle, 1, status);
    return status;
  }

 private:
  double seconds_since_start();

  Clock& clock_;
  // One start time shared by the PAL and CEAL traces: a start without an
  // end simply leaves it for the next command to overwrite.
  timespec g_tstart{};
};

}  // namespace cpa
