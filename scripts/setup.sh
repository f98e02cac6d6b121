#!/bin/bash
# scripts/setup.sh demo|package|build|test|real|bench|bluetooth|cross|all: installs what
# is missing to build the programs and show them (demo), to make the packages (package),
# to build the programs and their unit tests (build), to run the tests too (test), among
# them those with many real programs (real), to measure too (bench), to run
# scripts/bluetooth.sh too (bluetooth), to build and test for ARM (cross), to run every
# check and make the packages too (all). Asks no question; says nothing when nothing is
# missing. Waits for another apt, 10 minutes at most.
set -euo pipefail

programs=(
  cmake ninja-build g++
  # wire messages, command lines, JSON records, Bluetooth, D-Bus
  libprotobuf-dev protobuf-compiler libcli11-dev nlohmann-json3-dev
  libbluetooth-dev libsystemd-dev
  # rules files
  libtomlplusplus-dev
  # the event loop of the programs beside the daemon; what draws on a terminal
  libasio-dev libncurses-dev
)
demo=(
  "${programs[@]}"
  # a device: namespaces, interfaces, rules
  python3 util-linux mount procps iproute2 iptables net-tools
  # clients and servers
  curl bind9-dnsutils dnsmasq-base apache2-bin
)
package=(
  "${programs[@]}"
  # man pages; what a package depends on
  scdoc dpkg-dev file
)
build=("${programs[@]}" ccache libgtest-dev libgmock-dev libbenchmark-dev)
test=(
  "${demo[@]}" python3-pytest
  # what refuses connections while there is no tunnel
  nftables
  # a clock that jumps; a kernel that refuses
  libfaketime python3-seccomp
  # a message bus, and who plays BlueZ there
  dbus-daemon python3-dbus python3-gi
  # the dissector's test; a terminal for vantrelctl top
  tshark tmux
)
real=(
  # servers; tests start their own
  vsftpd apache2-bin ngtcp2-server openssl python3-aiosmtpd redis-server
  postgresql-common postgresql git rsync openssh-server mosquitto nsd socat
  # clients
  lftp tnftp netcat-openbsd apache2-utils curl wget ngtcp2-client redis-tools
  openssh-client mosquitto-clients dnsperf
)
bench=(
  # plots; two roads to measure beside ours; many name look-ups; QUIC
  git gnuplot-nox haproxy openssh-client openssh-server dnsperf
  ngtcp2-client ngtcp2-server openssl
)
bluetooth=(
  # the virtual machine, its first file system; the controllers' emulator and tools
  qemu-system-x86 busybox cpio
  bluez bluez-test-tools kmod
)
cross=(
  # libraries and machines of other architectures
  g++-aarch64-linux-gnu g++-arm-linux-gnueabihf mmdebstrap
  qemu-user-static qemu-system-arm busybox cpio kmod
)
all=(
  # sanitizers (with readable stacks), fuzz targets
  clang llvm lld
  # what the tests leave out
  gcovr
  # format and linters
  git clang-format clang-tidy cppcheck shellcheck python3-flake8 lua-check
  lintian
  # the package's services, and what they use
  systemd systemd-container dbus logrotate
  # real headers of the device
  android-liblog-dev android-libcutils-dev android-libutils-dev
  # the device's build system, which reads Android.bp
  golang-go golang-android-soong-dev golang-github-google-blueprint-dev
  golang-github-golang-protobuf-1-3-dev
)

# One at a time. What the packages start does not keep the lock.
[ -n "${VANTREL_SETUP_LOCKED-}" ] ||
  VANTREL_SETUP_LOCKED=1 exec flock --close "$0" "$0" "$@"

is_installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

patience=600 # seconds

# Of its own accord apt never waits for the lock on its lists.
update_lists() {
  local tries output
  for ((tries = 0; tries < patience; tries++)); do
    ! output=$(as_root apt-get -qq update 2>&1) || return 0
    [[ $output == *lists/lock* ]] || break
    sleep 1
  done
  echo "$output" >&2
  return 1
}

install_missing() {
  local missing=() package
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "setup: missing: ${missing[*]}; install them as root" >&2
    exit 1
  fi
  echo "setup: installing ${missing[*]}" >&2
  update_lists
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y \
    -o "DPkg::Lock::Timeout=$patience" --no-install-recommends install "${missing[@]}" \
    </dev/null >/dev/null
}

# install_idle PACKAGE...: installs servers, and ends what the new ones started.
install_idle() {
  local package unit new=()
  for package in "$@"; do
    is_installed "$package" || new+=("$package")
  done
  install_missing "$@"
  [ -d /run/systemd/system ] || return 0
  for package in "${new[@]}"; do
    dpkg -L "$package" | sed -nE 's:.*/systemd/system/([^/@]+\.(service|socket))$:\1:p' |
      while read -r unit; do
        as_root systemctl --quiet disable --now "$unit" </dev/null
      done
  done
}

download_to() { # download_to FOLDER PACKAGE
  (cd "$1" && apt-get -qq download "$2" </dev/null)
}

# The tool that judges metrics, out of a package whose server is not to run here.
promtool=build/tools/promtool
unpack_promtool() {
  [ ! -x "$promtool" ] || return 0
  local folder
  folder=$(mktemp -d)
  echo "setup: unpacking promtool" >&2
  download_to "$folder" prometheus 2>/dev/null || {
    update_lists # they may name a package that there is no more
    download_to "$folder" prometheus
  }
  dpkg-deb --fsys-tarfile "$folder"/prometheus_*.deb |
    tar --extract --directory="$folder" ./usr/bin/promtool
  mkdir -p "${promtool%/*}"
  mv "$folder/usr/bin/promtool" "$promtool"
  rm -r "$folder"
}

cd "$(dirname "$0")/.."
case ${1:-} in
  demo) install_missing "${demo[@]}" ;;
  package) install_missing "${package[@]}" ;;
  build) install_missing "${build[@]}" ;;
  test)
    install_missing "${build[@]}" "${test[@]}"
    unpack_promtool ;;
  real)
    install_missing "${build[@]}" "${test[@]}"
    install_idle "${real[@]}" ;;
  bench) install_missing "${build[@]}" "${test[@]}" "${bench[@]}" ;;
  bluetooth)
    install_missing "${build[@]}" "${test[@]}" "${bluetooth[@]}"
    scripts/bluetooth.sh --prepare ;;
  cross) install_missing "${build[@]}" "${cross[@]}" ;;
  all)
    install_idle "${real[@]}"
    install_missing "${package[@]}" "${build[@]}" "${test[@]}" "${bench[@]}" \
      "${bluetooth[@]}" "${cross[@]}" "${all[@]}"
    unpack_promtool
    scripts/bluetooth.sh --prepare
    # The sanitizers' runtime is a package per compiler version.
    install_missing "libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev" ;;
  *)
    echo "usage: setup.sh demo|package|build|test|real|bench|bluetooth|cross|all" >&2
    exit 2 ;;
esac
