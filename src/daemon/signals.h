// Signal handling: the handler only records the signal; SIGINT's dump runs on
// the main thread, which the handler wakes through a self-pipe.
#pragma once

#include <atomic>

namespace cpa {

// Installs kestrix_sighdlr for SIGINT and then SIGUSR1.
void kestrix_reg_sighdlr();

// Where SIGUSR1 records the counter-report request (null: ignored).
void bind_display_flag(std::atomic<int>* g_display_ctr);

// The descriptor that becomes readable when a signal wants the main thread.
int signal_wake_fd();

// Drains the wake-up descriptor; true when a SIGINT is waiting to be served.
bool take_state_dump_request();

}  // namespace cpa
