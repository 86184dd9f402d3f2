#!/usr/bin/env bash
# Builds the agent and shows its main job: in a throw-away network namespace,
# a small RP client drives one tunnel's SADB life over UDP and prints every
# response and the agent's syslog lines; then everything is stopped. Run as root.
#   demo.sh --linux [--with-agent]   instead: two hosts with an ESP tunnel between
#                                    their sites on a stock kernel, in a virtual machine
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh build
bash scripts/build.sh agent
if [ "${1:-}" = "--linux" ]; then
  shift
  exec bash scripts/vm-run.sh /usr/bin/python3 tests/vm/two_hosts.py --demo "$@"
fi
exec "$(command -v /usr/bin/python3 || command -v python3)" scripts/demo_rp.py
