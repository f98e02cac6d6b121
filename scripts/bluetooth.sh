#!/bin/bash
# Runs a command in a virtual machine that has two Bluetooth controllers.
set -euo pipefail

usage() {
  cat <<'TEXT'
usage: bluetooth.sh [options] [COMMAND [ARGUMENT...]]

  --accel kvm|tcg    how the processor is emulated (kvm where it works)
  --seconds N        the longest that all of it may take (900)
  --memory MIB       what the virtual machine has (1280)
  --keep DIR         what COMMAND leaves in $BLUETOOTH_OUTPUT is put there
  --prepare          fetch the kernel, run nothing

Boots Debian's kernel in QEMU. It shows this machine's files; what is written
stays in its memory. COMMAND runs there as root, in the current directory, and
has two controllers that reach each other: hci0 and hci1, with the addresses in
$BLUETOOTH_ADDRESS0 and $BLUETOOTH_ADDRESS1, powered and paired. Without COMMAND
there is a shell.

The exit status is COMMAND's; 125 when it could not be run, 124 when the time was
over. Needs no root. The first run fetches the kernel's package.
TEXT
}

fail() {
  echo "bluetooth: $*" >&2
  exit 125
}

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
kernel_dir=$(realpath -m "$scripts/../build/bluetooth")
accel='' seconds=900 memory=1280 keep='' is_prepare_only=''
while [ $# -gt 0 ]; do
  case $1 in
    --accel | --seconds | --memory | --keep)
      [ $# -ge 2 ] || fail "$1 needs a value"
      declare "${1#--}=$2"
      shift ;;
    --prepare) is_prepare_only=yes ;;
    --help) usage; exit 0 ;;
    --) shift; break ;;
    -*) usage >&2; exit 125 ;;
    *) break ;;
  esac
  shift
done
export PATH=$PATH:/usr/sbin:/sbin
for program in qemu-system-x86_64 busybox cpio btvirt btmgmt modprobe; do
  command -v "$program" >/dev/null || fail "no $program; run scripts/setup.sh bluetooth"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/vantrel-bluetooth.XXXXXX") || fail "no temporary directory"
machine=''
clean_up() {
  if [ -n "$machine" ]; then
    kill "$machine" 2>/dev/null || true # it restores the terminal as it ends
    wait "$machine" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# The package is only unpacked: to install it would build an initramfs of this
# machine's and change its boot loader, and would need root.
fetch_kernel() {
  local package
  package=$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p')
  [ -n "$package" ] || fail "no kernel's package is known; apt-get update?"
  echo "bluetooth: fetching $package" >&2
  mkdir "$work/kernel"
  (cd "$work/kernel" && apt-get -qq -o APT::Sandbox::User="" download "$package") ||
    fail "the kernel's package cannot be fetched"
  dpkg-deb --fsys-tarfile "$work/kernel"/*.deb | tar -x -C "$work/kernel" --wildcards \
    './boot/vmlinuz-*' './lib/modules/*/modules.*' \
    './lib/modules/*/kernel/'{arch,crypto,fs,lib,net}/'*' \
    './lib/modules/*/kernel/drivers/'{bluetooth,char,net,virtio}/'*'
  rm "$work/kernel"/*.deb
  depmod -b "$work/kernel" "$(ls "$work/kernel/lib/modules")"
  mkdir -p "$(dirname "$kernel_dir")"
  # Another run may have been faster; its kernel is as good.
  mv -T "$work/kernel" "$kernel_dir" 2>/dev/null || [ -d "$kernel_dir/boot" ] ||
    fail "cannot make $kernel_dir"
}
[ -d "$kernel_dir/boot" ] || fetch_kernel
[ -z "$is_prepare_only" ] || exit 0
release=$(ls "$kernel_dir/lib/modules")

# The smallest system that can show this machine's files: a shell and the
# modules for that, in the order in which they must be loaded.
make_initramfs() {
  local root=$work/initramfs module number=100
  mkdir -p "$root"/{bin,modules,dev,proc,new,lower,upper}
  cp "$(command -v busybox)" "$root/bin/busybox"
  # With the libraries that it may need.
  { ldd "$root/bin/busybox" 2>/dev/null || true; } | grep -o '/[^ ]*' |
    xargs -r cp --parents -L -t "$root"
  cp "$scripts/lib/bluetooth_init.sh" "$root/init"
  while read -r module; do
    number=$((number + 1))
    cp "$module" "$root/modules/$number-${module##*/}"
  done < <(modprobe -d "$kernel_dir" -S "$release" --show-depends -a \
    virtio_pci 9pnet_virtio 9p overlay | awk '$1 == "insmod" && !seen[$2]++ { print $2 }')
  (cd "$root" && find . | cpio -o -H newc --quiet --owner 0:0) | gzip -1 >"$work/initramfs.gz"
}

# What is to be run, as the machine inside reads it.
write_job() {
  mkdir "$work/job" "$work/job/output"
  {
    printf 'kernel_dir=%q\n' "$kernel_dir"
    printf 'directory=%q\n' "$PWD"
    printf 'export TERM=%q PATH=%q\n' "${TERM:-dumb}" "$PATH"
    [ -z "${VANTREL_BIN_DIR:-}" ] ||
      printf 'export VANTREL_BIN_DIR=%q\n' "$(realpath "$VANTREL_BIN_DIR")"
    printf 'command=('
    printf ' %q' "$@"
    printf ' )\n'
  } >"$work/job/job.sh"
  cp "$scripts/lib/bluetooth_machine.sh" "$work/job/machine.sh"
}

# A file name with a comma would be taken for options.
case $work$PWD in *,*) fail "a comma in a path: $work, $PWD" ;; esac
boot() { # ACCEL
  local processors=2 clock=()
  # An emulated processor's time passes with its instructions, 2 ns each, and
  # with the host's while it waits. So on a busy host all of it is slow, and no
  # deadline inside passes sooner. That takes a single processor.
  [ "$1" = kvm ] || { processors=1; clock=(-icount "shift=1,sleep=on" -rtc "clock=vm"); }
  local share=local,security_model=none,multidevs=remap
  timeout --foreground -k 5 "$seconds" qemu-system-x86_64 \
    -accel "$1" -cpu max -smp "$processors" "${clock[@]}" -m "$memory" \
    -nodefaults -no-reboot -display none \
    -kernel "$kernel_dir"/boot/vmlinuz-* -initrd "$work/initramfs.gz" \
    -append "console=ttyS0 quiet loglevel=3 panic=-1" \
    -chardev stdio,id=console,signal=off -serial chardev:console \
    -virtfs "$share,mount_tag=files,path=/,readonly=on" \
    -virtfs "$share,mount_tag=job,path=$work/job" <&0 &
  machine=$!
}
is_running() { kill -0 "$machine" 2>/dev/null; }

# KVM may be offered and still not work. A machine that has it is up in a second
# or two; on a busy one it gets longer, and where that is too short the other way
# is only slower.
boot_with_kvm() {
  [ -w /dev/kvm ] || return 1
  boot kvm
  local tries
  for ((tries = 0; tries < 300; tries++)); do
    [ ! -e "$work/job/is_up" ] || return 0
    is_running || break
    sleep 0.1
  done
  kill "$machine" 2>/dev/null || true
  wait "$machine" 2>/dev/null || true
  return 1
}

make_initramfs
[ $# -gt 0 ] || set -- bash
write_job "$@"
if [ -n "$accel" ]; then
  boot "$accel"
else
  boot_with_kvm 2>/dev/null || boot tcg
fi
result=0
wait "$machine" || result=$?
machine=''
[ -z "$keep" ] || { mkdir -p "$keep" && cp -a "$work/job/output/." "$keep/"; }
[ "$result" -ne 124 ] || { echo "bluetooth: not done within $seconds s" >&2; exit 124; }
[ -s "$work/job/status" ] || fail "the virtual machine ended before the command did"
exit "$(<"$work/job/status")"
