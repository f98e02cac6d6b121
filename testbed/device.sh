#!/bin/bash
# device.sh DIR COMMAND...: makes the namespaces it runs in a device, then
# becomes COMMAND on it.
#
# To be called in a network and a mount namespace of its own. DIR is an empty
# directory's parent: DIR/root becomes the device's root, and of DIR/build.prop,
# DIR/packages.list and DIR/resolv.conf those that exist become the device's.
# Nothing has to be undone: all of it ends with the last process inside.
set -euo pipefail
dir=$1
shift
root=$dir/root
export PATH=$PATH:/usr/sbin:/sbin

# A new root that shows the machine's files and can still be added to.
mkdir -p "$root"
mount --make-rprivate /
mount -t tmpfs -o mode=755 device "$root"
for entry in /* /.[!.]*; do
  name=${entry#/}
  case $name in system | data | run) continue ;; esac
  if [ -L "$entry" ]; then
    cp -P "$entry" "$root/"
  elif [ -d "$entry" ]; then
    mkdir "$root/$name"
    mount --rbind "$entry" "$root/$name"
  fi
done
# The lock of the packet-filter tools stands in /run; the device has its own.
mkdir -p "$root/run" "$root/system/bin" "$root/data/system"
mount -t tmpfs -o mode=755 run "$root/run"

# A symbolic link would not do: the tool decides by its own name what it is.
wrapper=$root/system/bin/iptables-wrapper-1.0
printf '#!/bin/sh\nexec iptables-legacy "$@"\n' >"$wrapper"
chmod 755 "$wrapper"
[ ! -e "$dir/build.prop" ] || cp "$dir/build.prop" "$root/system/"
[ ! -e "$dir/packages.list" ] || cp "$dir/packages.list" "$root/data/system/"
if [ -e "$dir/resolv.conf" ]; then
  # Where /etc/resolv.conf leads; a target in /run is gone with the old /run.
  resolv=$(readlink -m /etc/resolv.conf)
  case $resolv in
    /run/*) install -D -m 644 "$dir/resolv.conf" "$root$resolv" ;;
    *) mount --bind "$dir/resolv.conf" "$root$resolv" ;;
  esac
fi

# The route that puts local traffic on lo, where the rules take it.
ip link set lo up
ip link add ifb0 type ifb 2>/dev/null || ip link add ifb0 type dummy 2>/dev/null ||
  ip link add ifb0 type veth peer name ifb0-peer
ip link set ifb0 up
ip addr add 192.168.167.239/32 dev ifb0
ip route add local default dev lo src 192.168.167.239

exec chroot "$root" "$@"
