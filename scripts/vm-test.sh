#!/usr/bin/env bash
# The real-kernel test: boots the stock kernel in a virtual machine
# (scripts/vm-run.sh) and runs the two-host scenario tests/vm/two_hosts.py
# inside. Arguments go to the scenario (--demo shows the kernel's tables).
# Skips, with exit status 0, only where qemu cannot start at all.
set -uo pipefail
cd "$(dirname "$0")/.."
if ! bash scripts/vm-run.sh --install-only; then
  echo "skipped: qemu and the stock kernel could not be installed"
  exit 0
fi
bash scripts/vm-run.sh /usr/bin/python3 tests/vm/two_hosts.py "$@"
status=$?
if ((status == 126)); then
  echo "skipped: qemu cannot start here"
  exit 0
fi
exit "$status"
