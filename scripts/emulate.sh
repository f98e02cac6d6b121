#!/bin/bash
# scripts/emulate.sh arm64|armhf COMMAND...: runs a command on an emulated machine.
#
# QEMU boots Debian's kernel of that architecture. The machine's root is the one that
# scripts/sysroot.sh makes, and /mnt is this checkout, where COMMAND starts. Both are
# shared read-only; what is written to the root ends with the machine. There is no
# network but the loopback. The exit status is COMMAND's, 125 without a machine.
set -euo pipefail
fail() {
  echo "emulate: $*" >&2
  exit 125
}
[ $# -ge 2 ] || fail "usage: emulate.sh arm64|armhf COMMAND..."
checkout=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
arch=$1
shift
case $arch in
  arm64) machine=(qemu-system-aarch64 -M virt -cpu cortex-a57) ;;
  armhf) machine=(qemu-system-arm -M virt -cpu cortex-a15) ;;
  *) fail "no architecture $arch" ;;
esac
root=$checkout/build/sysroot/$arch
kernel=$(echo "$root"/boot/vmlinuz-*)
[ -f "$kernel" ] || fail "no kernel in $root; run scripts/sysroot.sh $arch"
release=${kernel##*/vmlinuz-}
[ -e "$root/lib/modules/$release/modules.dep" ] || /sbin/depmod -b "$root" "$release"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What the kernel starts with: the drivers of the shared folders, and a program that
# loads them and goes over to the root.
ramfs=$work/ramfs
mkdir -p "$ramfs"/{bin,dev,drivers,lower,memory,root}
cp "$root/bin/busybox" "$ramfs/bin/"
drivers=''
for name in virtio_mmio virtio_pci 9pnet_virtio 9p overlay; do
  while read -r _ file _; do
    cp "$file" "$ramfs/drivers/"
    drivers+=" ${file##*/}" # one that is loaded already is refused, which is well
  done < <(/sbin/modprobe -d "$root" -S "$release" --show-depends "$name" | grep '^insmod ')
done
share='-t 9p -o trans=virtio,version=9p2000.L,cache=loose,msize=262144,ro'
cat >"$ramfs/init" <<INIT
#!/bin/busybox sh
busybox=/bin/busybox
\$busybox mount -t devtmpfs none /dev
for file in$drivers; do \$busybox insmod /drivers/\$file 2>/dev/null; done
\$busybox mount $share root /lower
\$busybox mount -t tmpfs none /memory
\$busybox mkdir /memory/upper /memory/work
\$busybox mount -t overlay -o \
  lowerdir=/lower,upperdir=/memory/upper,workdir=/memory/work none /root
\$busybox cp /session /root/session
exec \$busybox switch_root /root /bin/busybox sh /session
INIT
chmod 755 "$ramfs/init"
printf -v command '%q ' "$@"
cat >"$ramfs/session" <<SESSION
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/tmp
mkdir -p /tmp /mnt
[ -e /bin/sh ] || ln -s dash /bin/sh
touch /etc/resolv.conf
mount -t proc none /proc
mount -t sysfs none /sys
mount -t devtmpfs none /dev
mount -t tmpfs none /tmp
mount -t tmpfs none /run
mount $share checkout /mnt
ip link set lo up
cd /mnt && $command </dev/null
echo "emulate: exit status \$?"
echo o >/proc/sysrq-trigger
sleep 60
SESSION
(cd "$ramfs" && find . | cpio --quiet -o -H newc) | gzip -1 >"$work/ramfs.gz"

folder() { # folder TAG PATH
  machine+=(-fsdev "local,id=$1,path=$2,security_model=none,readonly=on,multidevs=remap"
    -device "virtio-9p-device,fsdev=$1,mount_tag=$1")
}
folder root "$root"
folder checkout "$checkout"
timeout "${VANTREL_EMULATION_SECONDS:-1800}" "${machine[@]}" -smp 2 -m 1024 -nodefaults \
  -no-reboot -nographic -serial stdio -kernel "$kernel" -initrd "$work/ramfs.gz" \
  -append "console=ttyAMA0 loglevel=1 panic=-1" </dev/null | sed -u 's|\r$||' | tee "$work/console" || true
status=$(sed -n 's/^emulate: exit status \([0-9]*\)$/\1/p' "$work/console")
exit "${status:-125}"
