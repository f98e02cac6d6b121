#!/bin/busybox sh
# shellcheck shell=dash
# The first program of the virtual machine, in its own small memory file system:
# makes the host's files its root, writable in memory, and goes on in there.
busybox=/bin/busybox
fail() {
  echo "bluetooth: the virtual machine: $*"
  $busybox poweroff -f
}
$busybox mount -t devtmpfs dev /dev 2>/dev/null
for module in /modules/*; do
  $busybox insmod "$module" || fail "no $module"
done
# What is read once is not asked for again: the host's files hardly change.
$busybox mount -t 9p -o ro,trans=virtio,version=9p2000.L,cache=loose,msize=524288 files /lower ||
  fail "the host's files cannot be seen"
$busybox mount -t tmpfs memory /upper
$busybox mkdir /upper/files /upper/work
$busybox mount -t overlay -o lowerdir=/lower,upperdir=/upper/files,workdir=/upper/work files /new ||
  fail "the host's files cannot be shown as writable"
$busybox mount -t proc proc /new/proc
$busybox mount -t sysfs sys /new/sys
$busybox mount --move /dev /new/dev
$busybox mount -t tmpfs -o mode=755 run /new/run
$busybox mkdir /new/run/job
$busybox mount -t 9p -o trans=virtio,version=9p2000.L,cache=none,msize=524288 job /new/run/job ||
  fail "the job cannot be seen"
: >/new/run/job/is_up
exec $busybox switch_root /new /bin/bash /run/job/machine.sh </dev/console >/dev/console 2>&1
