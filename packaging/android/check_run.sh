#!/bin/bash
# check_run.sh DAEMON BIN_DIR: DAEMON, linked with the device's packaged libraries,
# carries a download beside the other programs, those of BIN_DIR. Needs root. Its log
# goes where the packaged liblog leads it, to a closed standard error.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
readelf -dW "$1" | grep -F "[liblog." >/dev/null || { echo "$1: no packaged liblog" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
cp "$2"/* "$work/bin/"
cp "$1" "$work/bin/vantrel"
head -c 1000000 /dev/urandom >"$work/data"
# In a network of its own, which is the internet.
unshare --net --mount --pid --fork --kill-child --mount-proc bash -eu -s "$root" "$work" <<'STEPS'
ip link set lo up
ip address add 198.51.100.1/24 dev lo
python3 -m http.server 8000 --bind 198.51.100.1 --directory "$2" >"$2/server.log" 2>&1 &
until curl -sf -o /dev/null http://198.51.100.1:8000/; do kill -0 $! && sleep 0.1; done
"$1/scripts/sandbox.sh" --bin "$2/bin" --log-dir "$2/log" -- \
  curl -sS -m 60 -o "$2/got" http://198.51.100.1:8000/data </dev/null
STEPS
cmp "$work/data" "$work/got"
grep -qx 'daemon ended: exit status 0' "$work/log/status.txt"
