#!/bin/bash
# Installs what building, testing and the demonstration need, and nothing that
# is already there. Asks no question; says nothing when nothing is missing.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ clang
  # libraries: wire messages, command lines, JSON records, Bluetooth addresses,
  # event loop
  libprotobuf-dev protobuf-compiler libcli11-dev nlohmann-json3-dev
  libbluetooth-dev libasio-dev
  # checks: unit tests, sanitizers (with readable stacks), format, tidy
  libgtest-dev libgmock-dev llvm clang-format clang-tidy git
  # end-to-end tests
  python3 python3-pytest
  # the device on the bench: namespaces, interfaces, rules
  util-linux iproute2 iptables net-tools
  # clients and servers of tests and demonstration
  curl bind9-dnsutils dnsmasq-base apache2-bin
  # the dissector's test; man pages and package; real headers of the device
  tshark
  scdoc dpkg-dev lintian
  android-liblog-dev android-libcutils-dev android-libutils-dev
)

install_missing() {
  local missing=() package status as_root=()
  for package in "$@"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "setup: missing: ${missing[*]}; install them as root" >&2
      exit 1
    fi
    as_root=(sudo)
  fi
  echo "setup: installing ${missing[*]}" >&2
  "${as_root[@]}" apt-get -qq update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y \
    --no-install-recommends install "${missing[@]}" </dev/null >/dev/null
}

install_missing "${packages[@]}"
# The sanitizers' runtime is a package per compiler version.
install_missing "libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev"
