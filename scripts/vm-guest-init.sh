#!/bin/sh
# Inside the virtual machine started by vm-run.sh, as PID 1 on the host's tree
# (read-only over 9p): makes the few writable places, loads the kernel modules
# the tests need, runs the command found in the share and leaves its exit status
# there. Leaving PID 1 panics the guest, which vm-run.sh reports as a failure.
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t tmpfs -o mode=1777 tmpfs /tmp
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -p /dev/pts /dev/shm /run/cpa-share
mount -t devpts devpts /dev/pts
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mount -t 9p -o trans=virtio,version=9p2000.L cpashare /run/cpa-share
share=/run/cpa-share
: >"$share/booted"
# The repository may sit under a place the tmpfs above just covered (a clone
# in /tmp): it comes again on its own share, at its own path.
repo=$(cat "$share/repo")
mkdir -p "$repo" 2>/dev/null
mount -t 9p -o trans=virtio,version=9p2000.L,ro cparepo "$repo"

# The crypto algorithms are not pulled in by the first ESP SA on their own.
for m in esp4 xfrm_user xfrm_interface veth af_packet \
         cbc aes_generic sha1_generic sha256_generic hmac authenc echainiv seqiv; do
  modprobe -q "$m" 2>/dev/null
done
ip link set lo up

. "$share/env"
cd "$(cat "$share/cwd")" || exit 1
eval "$(cat "$share/command")"
echo $? >"$share/status.tmp"
mv "$share/status.tmp" "$share/status"
sync
busybox poweroff -f
