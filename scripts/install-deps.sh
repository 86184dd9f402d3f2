#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs, and only those missing.
#   install-deps.sh build   what building and running the agent needs
#   install-deps.sh test    that, plus what the test suites need
set -euo pipefail

build_packages=(cmake ninja-build g++ iproute2 python3)
# systemd and groff-base check the installed unit and manuals.
test_packages=(googletest libgtest-dev libgmock-dev clang libclang-rt-14-dev g++-multilib tshark
               systemd groff-base)

case "${1:-build}" in
  build) wanted=("${build_packages[@]}") ;;
  test) wanted=("${build_packages[@]}" "${test_packages[@]}") ;;
  *) echo "usage: $0 build|test" >&2; exit 2 ;;
esac

missing=()
for pkg in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # tshark would otherwise ask whether to install dumpcap setuid.
  echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
