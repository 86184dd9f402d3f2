// The daemon: the start-up sequence and the event loop of the main thread.
#pragma once

namespace cpa {

// Runs the agent; returns only when start-up fails or the usage was asked for.
int run_agent(int argc, char* argv[]);

}  // namespace cpa
