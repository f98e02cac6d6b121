#!/bin/bash
# scripts/sysroot.sh arm64|armhf: the root of that architecture in build/sysroot/,
# from Debian's archive. The cross compiler takes libraries from it, QEMU runs in it
# what was built. Its packages are only unpacked, none of their scripts has run. An
# existing root stays, unless its list of packages is another one.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1-}
packages=(
  # what the programs and their tests link to
  libc6-dev libprotobuf-dev libcli11-dev nlohmann-json3-dev libbluetooth-dev
  libsystemd-dev libtomlplusplus-dev libasio-dev libncurses-dev libgtest-dev libgmock-dev
  # the device's libraries, and the C++ library that they come with
  android-liblog-dev android-libcutils-dev android-libutils-dev
  libc++-dev libc++abi-dev
  # a machine that runs end-to-end tests
  busybox-static dash bash coreutils findutils grep sed gawk util-linux mount procps
  kmod iproute2 iptables net-tools curl python3-pytest
)
case $arch in
  arm64) packages+=(linux-image-arm64) ;;
  armhf) packages+=(linux-image-armmp) ;;
  *)
    echo "usage: sysroot.sh arm64|armhf" >&2
    exit 2 ;;
esac
scripts/setup.sh cross

root=build/sysroot/$arch
[ "$(cat "$root/packages" 2>/dev/null)" != "${packages[*]}" ] || exit 0
rm -rf "$root" "$root.new"
mkdir -p build/sysroot
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
echo "sysroot: unpacking Debian's $release for $arch into $root" >&2
(IFS=,; mmdebstrap --quiet --variant=extract --architectures="$arch" \
  --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr --include="${packages[*]}" \
  "$release" "$root.new" "deb http://deb.debian.org/debian $release main") >&2
# A library's link to the root of the machine would lead out of this one.
while IFS= read -r link; do
  ln -sfr "$root.new$(readlink "$link")" "$link"
done < <(find "$root.new/usr/lib" -name '*.so*' -type l -lname '/*')
echo "${packages[*]}" >"$root.new/packages"
mv "$root.new" "$root"
