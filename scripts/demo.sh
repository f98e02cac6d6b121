#!/bin/bash
# scripts/demo.sh [--protocol 1|5|20] [--bin DIR]: shows the tunnel at work.
#
# Builds the programs, makes a small internet (a web server, a name server) and a device
# that reaches it over the link only, and lets real programs use it. One line a step,
# with figures; exit status 0 only if every step held. Needs root, for the device's
# applications have different UIDs. What the demonstration makes is removed at the end.
set -euo pipefail
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

protocol=20 bin=''
while [ $# -gt 0 ]; do
  case $1 in
    --protocol | --bin)
      [ $# -ge 2 ] || { echo "demo: $1 needs a value" >&2; exit 2; }
      declare "${1#--}=$2"
      shift 2 ;;
    *)
      echo "usage: demo.sh [--protocol 1|5|20] [--bin DIR]" >&2
      exit 2 ;;
  esac
done

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "demo: run this as root: the applications get UIDs of their own" >&2
    exit 1
  fi
  as_root=(sudo)
fi
if [ -z "$bin" ]; then
  # What has been built already is brought up to date; the other way is the soonest.
  preset=demo
  [ ! -x "$scripts/../build/release/bin/vantrelctl" ] || preset=release
  bin=$scripts/../build/$preset/bin
  "$scripts/setup.sh" demo
  (cd "$scripts/.." && cmake --preset $preset && cmake --build --preset $preset --target programs)
fi
bin=$(realpath "$bin")

work=$(mktemp -d /tmp/vantrel-demo.XXXXXX)
trap '"${as_root[@]}" rm -rf "$work"' EXIT
"${as_root[@]}" env PYTHONPATH="$scripts/.." VANTREL_BIN_DIR="$bin" /usr/bin/python3 -BP \
  "$scripts/lib/demo_steps.py" "$work" "$protocol"
