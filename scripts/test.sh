#!/usr/bin/env bash
# Installs what the tests need, builds every flavour and runs every test:
# unit tests plain and under ASan+UBSan, the end-to-end suite against both
# agent binaries, the installation, the two-host test on a stock kernel in a
# virtual machine, and each fuzz target for a bounded time. Run as root.
# CPA_FUZZ_SECONDS sets the time per fuzz target (default: 60 s for the
# datagram dispatch target, which reaches every handler, 20 s for the others).
set -euo pipefail
cd "$(dirname "$0")/.."
python=$(command -v /usr/bin/python3 || command -v python3)

step() { printf '\n=== %s\n' "$*"; }

step "dependencies"
bash scripts/install-deps.sh test

step "layers: no include from a lower layer to a higher one"
bash scripts/check-layers.sh

step "build: plain, asan, fuzz"
bash scripts/build.sh plain
bash scripts/build.sh asan
bash scripts/build.sh fuzz

step "unit tests (plain)"
./build/unit_tests --gtest_brief=1
step "unit tests (ASan+UBSan)"
ASAN_OPTIONS=detect_leaks=1 ./build-asan/unit_tests --gtest_brief=1

step "the RP package (tools/cpa_rp)"
"$python" -m unittest discover -s tests/tools -p 'test_*.py'

step "end-to-end (plain agent, test build)"
(cd tests/e2e && CPA_BINARY="$PWD/../../build/ipsec_cpa_test" "$python" -m unittest discover -s . -p 'test_*.py')
step "end-to-end (ASan+UBSan agent, test build)"
(cd tests/e2e && CPA_BINARY="$PWD/../../build-asan/ipsec_cpa_test" "$python" -m unittest discover -s . -p 'test_*.py')

step "install: scratch DESTDIR, service unit, manuals, Debian package"
bash tests/install/test_install.sh build

step "real kernel: two hosts in a virtual machine"
bash scripts/vm-test.sh

for fuzzer in build-fuzz/*_fuzzer; do
  default_seconds=20
  [[ $fuzzer == */datagram_dispatch_fuzzer ]] && default_seconds=60
  fuzz_seconds=${CPA_FUZZ_SECONDS:-$default_seconds}
  step "fuzz: $(basename "$fuzzer") for ${fuzz_seconds}s"
  corpus="build-fuzz/corpus/$(basename "$fuzzer")"
  mkdir -p "$corpus"
  log="build-fuzz/$(basename "$fuzzer").log"
  seeds="tests/fuzz/seeds/$(basename "$fuzzer")"  # read, never written
  [ -d "$seeds" ] || seeds=""
  if ! "$fuzzer" -max_total_time="$fuzz_seconds" -max_len=4096 "$corpus" $seeds >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz target $(basename "$fuzzer") failed" >&2
    exit 1
  fi
  tail -n 1 "$log"
done

step "all tests passed"
