#include "daemon/daemon.h"

int main(int argc, char* argv[]) { return cpa::run_agent(argc, argv); }
