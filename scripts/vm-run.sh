#!/usr/bin/env bash
# Runs one command as root inside a throw-away virtual machine with Debian's
# stock kernel (which has ESP, xfrm interfaces and the crypto modules this
# host's kernel lacks), streams its output and exits with its status.
#   vm-run.sh [--install-only] <command> [args...]
# The guest's root is this host's tree, read-only over 9p, with tmpfs over the
# places that need writing; the repository is at its own path. Exit status:
# the command's; 124 when the timeout (CPA_VM_TIMEOUT, default 280 s) ends it;
# 125 when the guest dies without an answer (panic, boot failure); 126 when
# qemu cannot start at all.
set -euo pipefail
caller_dir=$PWD  # the command runs there, inside as outside
cd "$(dirname "$0")/.."
repo=$PWD
cache=$repo/build-vm
timeout_s=${CPA_VM_TIMEOUT:-280}

install_packages() {
  local wanted=(qemu-system-x86 linux-image-amd64 busybox-static cpio kmod) missing=() pkg
  for pkg in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  ((${#missing[@]})) || return 0
  echo "installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  # The guest boots from our own initramfs: skip building Debian's, and its boot loader hooks.
  export INITRD=No
  apt-get -o DPkg::Lock::Timeout=900 update -qq
  apt-get -o DPkg::Lock::Timeout=900 install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# The newest stock kernel whose modules are installed.
guest_kernel() {
  local image
  image=$(ls -1 /boot/vmlinuz-*-amd64 2>/dev/null | sort -V | tail -n 1)
  [ -n "$image" ] || return 1
  echo "${image#/boot/vmlinuz-}"
}

# A tiny initramfs: busybox, the virtio/9p modules, and an init that mounts the
# host's root and switches onto it (so the kernel's own modprobe is found).
build_initramfs() {
  local version=$1 out=$cache/initramfs-$version.cpio.gz
  [ -s "$out" ] && { echo "$out"; return; }
  local dir=$cache/initramfs-$version.d
  rm -rf "$dir" && mkdir -p "$dir"/{bin,dev,proc,sys,newroot,mods}
  cp /bin/busybox "$dir/bin/busybox"
  local file
  # modprobe lists each module after the ones it needs; keep the first of duplicates.
  modprobe -S "$version" --show-depends -a virtio_pci 9pnet_virtio 9p | awk '$1 == "insmod" && !seen[$2]++ {print $2}' |
    while read -r file; do
      cp "$file" "$dir/mods/"
      basename "$file" >>"$dir/mods/order"
    done
  cat >"$dir/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
for m in $(cat /mods/order); do insmod "/mods/$m"; done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 hostroot /newroot || poweroff -f
mount --move /dev /newroot/dev
umount /proc /sys
exec switch_root /newroot /bin/sh /cpa-stage2
EOF
  # The second stage is read from the repository at boot, so editing it needs no rebuild.
  sed -i "s|/cpa-stage2|$repo/scripts/vm-guest-init.sh|" "$dir/init"
  chmod +x "$dir/init"
  (cd "$dir" && find . | cpio -o -H newc --quiet | gzip -1) >"$out.tmp"
  mv "$out.tmp" "$out"
  rm -rf "$dir"
  echo "$out"
}

install_packages
[ "${1:-}" = "--install-only" ] && exit 0
(($#)) || { echo "usage: $0 <command> [args...]" >&2; exit 2; }
command -v qemu-system-x86_64 >/dev/null || { echo "qemu-system-x86_64 not found" >&2; exit 126; }
version=$(guest_kernel) || { echo "no stock kernel under /boot" >&2; exit 126; }
mkdir -p "$cache"
initramfs=$(build_initramfs "$version")

# The command and its status travel through a small writable share.
share=$(mktemp -d "$cache/run.XXXXXX")
trap 'rm -rf "$share"' EXIT
printf '%q ' "$@" >"$share/command"
echo "$caller_dir" >"$share/cwd"
echo "$repo" >"$share/repo"
for name in ${!CPA_@}; do printf 'export %s=%q\n' "$name" "${!name}"; done >"$share/env"

# Emulation on busy cores is slow: no_timer_check keeps the kernel from panicking
# when the emulated timer misses its boot check, and cryptomgr.notests skips the
# self-test of each algorithm, which made the first ESP SA take seconds.
set +e
timeout --foreground -k 5 "$timeout_s" qemu-system-x86_64 \
  -accel tcg -cpu max -smp 2 -m 2048 -nodefaults -display none -no-reboot \
  -kernel "/boot/vmlinuz-$version" -initrd "$initramfs" \
  -append "console=ttyS0 quiet loglevel=3 panic=-1 oops=panic no_timer_check cryptomgr.notests=1 rdinit=/init" \
  -virtfs "local,path=/,mount_tag=hostroot,security_model=passthrough,readonly=on,multidevs=remap" \
  -virtfs "local,path=$share,mount_tag=cpashare,security_model=passthrough,multidevs=remap" \
  -virtfs "local,path=$repo,mount_tag=cparepo,security_model=passthrough,readonly=on,multidevs=remap" \
  -serial stdio </dev/null
qemu_status=$?
set -e
if [ -s "$share/status" ]; then
  exit "$(cat "$share/status")"
fi
case $qemu_status in
  124|137) echo "vm-run: timed out after ${timeout_s}s" >&2; exit 124 ;;
  0) echo "vm-run: the guest stopped without an answer (panic or boot failure)" >&2; exit 125 ;;
  *) echo "vm-run: qemu failed with status $qemu_status" >&2
     [ -e "$share/booted" ] && exit 125 || exit 126 ;;
esac
