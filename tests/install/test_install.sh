#!/usr/bin/env bash
# Installs a configured build tree into a scratch DESTDIR and checks what lands
# there: exactly the expected files, a unit systemd accepts, manuals groff reads
# without a warning, and a Debian package holding the same files.
#   test_install.sh [build dir]    (default: build)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "install check: $*" >&2; exit 1; }

prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
sysconf=$(sed -n 's/^CPA_INSTALL_SYSCONFDIR:PATH=//p' "$build/CMakeCache.txt")
expected=$(printf '%s\n' \
  "$prefix/sbin/ipsec_cpa" "$prefix/bin/cpa-rp" "$prefix/lib/systemd/system/ipsec_cpa.service" \
  "$prefix/share/man/man8/ipsec_cpa.8" "$prefix/share/man/man1/cpa-rp.1" \
  "$prefix/share/ipsec_cpa/ipsec_cpa.lua" \
  "$sysconf/rsyslog.d/ipsec_cpa.conf" "$sysconf/logrotate.d/ipsec_cpa" "$sysconf/default/ipsec_cpa" \
  $(cd tools && printf "$prefix/lib/cpa-rp/%s\n" cpa_rp/*.py) |
  sort)

root="$scratch/root"
DESTDIR="$root" cmake --install "$build" >/dev/null
installed=$(cd "$root" && find . -type f | sed 's|^\.||' | sort)
[ "$installed" = "$expected" ] || fail "installed files differ:"$'\n'"$(diff <(echo "$expected") <(echo "$installed"))"
for program in "$prefix/sbin/ipsec_cpa" "$prefix/bin/cpa-rp"; do
  [ -x "$root$program" ] || fail "$program is not executable"
done
"$root$prefix/bin/cpa-rp" --help >/dev/null || fail "the installed cpa-rp does not find its package"
grep -qx "ExecStart=$prefix/sbin/ipsec_cpa \$IPSEC_CPA_OPTS" "$root$prefix/lib/systemd/system/ipsec_cpa.service" ||
  fail "the unit does not start $prefix/sbin/ipsec_cpa"

# The unit as it would be seen once installed: its programs and manual are
# looked for in the scratch tree.
unit="$scratch/ipsec_cpa.service"
sed "s|^ExecStart=$prefix/|ExecStart=$root$prefix/|" "$root$prefix/lib/systemd/system/ipsec_cpa.service" >"$unit"
verify=$(MANPATH="$root$prefix/share/man" systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $verify"
[ -z "$verify" ] || fail "systemd-analyze verify: $verify"

exposure=$(systemd-analyze security --offline=true "$unit" 2>/dev/null | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
echo "install check: systemd-analyze security exposure $exposure"
awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.5) }' || fail "exposure ${exposure:-unknown} is above 2.5"
grep -qx 'IPSEC_CPA_OPTS="-d 6 -r 64"' "$root$sysconf/default/ipsec_cpa" ||
  fail "the installed options do not pass -d 6 -r 64"

for page in man/ipsec_cpa.8 man/cpa-rp.1; do
  warnings=$(groff -man -ww -z "$page" 2>&1)
  [ -z "$warnings" ] || fail "$page: $warnings"
done

(cd "$build" && cpack -G DEB -B "$scratch/package" >/dev/null)
packaged=$(dpkg-deb -c "$scratch"/package/*.deb | awk '$1 !~ /^d/ {print $6}' | sed 's|^\.||' | sort)
[ "$packaged" = "$expected" ] || fail "packaged files differ:"$'\n'"$(diff <(echo "$expected") <(echo "$packaged"))"
conffiles=$(dpkg-deb --ctrl-tarfile "$scratch"/package/*.deb | tar -xOf - ./conffiles | sort)
[ "$conffiles" = "$(grep "^$sysconf/" <<<"$expected")" ] || fail "conffiles: $conffiles"
echo "install check: $(wc -l <<<"$expected") files installed and packaged"
