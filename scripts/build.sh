#!/usr/bin/env bash
# Configures and builds one flavour of the tree.
#   build.sh plain   build/        the agent (build/ipsec_cpa; build/ipsec_cpa_test with the
#                                  test seams), unit tests, load driver,
#                                  the 32-bit check of the kernel message layouts
#   build.sh asan    build-asan/   the same under AddressSanitizer + UndefinedBehaviorSanitizer
#   build.sh fuzz    build-fuzz/   libFuzzer targets (clang)
#   build.sh agent   build/        the agent, its test build and the fake platform kernel server
#                                  (no test dependencies), for the demonstration
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

case "${1:-plain}" in
  plain) cmake -S . -B build -G Ninja -DCPA_TESTS=ON -DCPA_BENCH=ON -DCPA_REQUIRE_LAYOUT_CHECK_32=ON >/dev/null
         ninja -C build -j"$jobs" ;;
  agent) cmake -S . -B build -G Ninja -DCPA_TESTS=OFF -DCPA_BENCH=OFF >/dev/null
         ninja -C build -j"$jobs" ipsec_cpa ipsec_cpa_test fake_xfrm_kernel_server ;;
  asan)  cmake -S . -B build-asan -G Ninja -DCPA_SANITIZE=ON -DCPA_BENCH=OFF >/dev/null
         ninja -C build-asan -j"$jobs" ;;
  fuzz)  CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCPA_FUZZ=ON >/dev/null
         ninja -C build-fuzz -j"$jobs" ;;
  *) echo "usage: $0 plain|agent|asan|fuzz" >&2; exit 2 ;;
esac
