#!/usr/bin/env bash
# Puts stock-Linux stand-ins at the paths where the agent runs the platform's
# commands: the address script, and "/usr/local/fpbin/ip" as a link to the
# system's ip. Safe to run again. Run as root; DESTDIR stages into another root.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=${DESTDIR:-}
install -D -m 0755 "$here/platform/setip_arp.sh" "$root/usr/local/fastpath/etc/scripts/setip_arp.sh"
mkdir -p "$root/usr/local/fpbin"
ln -sfn "$(command -v ip)" "$root/usr/local/fpbin/ip"
