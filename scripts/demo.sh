#!/usr/bin/env bash
# Builds the agent and shows its main job: in a throw-away network namespace,
# a small RP client drives one tunnel's whole life over UDP against the fake
# platform kernel and prints every answer, the kernel's tables and messages and
# the state dump; then everything is stopped. Run as root.
#   demo.sh --linux   instead: two hosts on a stock kernel in a virtual machine,
#                     each with its agent in linux mode driven by its RP, and an
#                     ESP tunnel carrying traffic between the sites behind them
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh build
bash scripts/build.sh agent
if [ "${1:-}" = "--linux" ]; then
  shift
  exec bash scripts/vm-run.sh /usr/bin/python3 tests/vm/two_hosts.py --demo "$@"
fi
exec "$(command -v /usr/bin/python3 || command -v python3)" scripts/demo_rp.py
