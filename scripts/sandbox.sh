#!/bin/bash
# Runs a command as on a device: all its traffic goes through a freshly started
# daemon and companion, and the companion stands in your own network.
set -uo pipefail

usage() {
  cat <<'TEXT'
usage: sandbox.sh [options] -- COMMAND [ARGUMENT...]

  --protocol 1|5|20  link protocol (20)
  --dns ADDRESS      where the companion sends name look-ups (your own first
                     IPv4 name server)
  --log-dir DIR      where logs and status records are kept (a new one in /tmp)
  --packages FILE    the device's list of packages (package uid ..., one a line)
  --debuggable       a debuggable build: the control port listens
  --capture FILE     record the link to this pcapng file
  --shape LIMITS     make the link slow, as in rate=2Mbit,delay=30ms
  --verbose          the companion logs every datagram, write and close
  --bin DIR          the programs (VANTREL_BIN_DIR, else build/release/bin)

The exit status is COMMAND's; 125 when the device could not be set up. Needs
root, or a kernel that lets users make user namespaces.
TEXT
}

fail() {
  echo "sandbox: $*" >&2
  exit 125
}

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bin=${VANTREL_BIN_DIR:-$scripts/../build/release/bin}
protocol=20 dns='' log_dir='' packages='' debuggable=false
to_launcher=() to_companion=()
while [ $# -gt 0 ]; do
  case $1 in
    --protocol | --dns | --log-dir | --packages | --bin)
      [ $# -ge 2 ] || fail "$1 needs a value"
      declare "$(tr - _ <<<"${1#--}")=$2"
      shift ;;
    --capture | --shape)
      [ $# -ge 2 ] || fail "$1 needs a value"
      value=$2
      # The launcher has another working directory.
      [ "$1" = --shape ] || value=$(realpath -m -- "$2")
      [[ $value != /run/* ]] || fail "the device has a /run of its own, not for $2"
      to_launcher+=("$1=$value")
      shift ;;
    --verbose) to_companion+=("$1") ;;
    --debuggable) debuggable=true ;;
    --help) usage; exit 0 ;;
    --) shift; break ;;
    *) fail "no such option: $1 (COMMAND stands behind --; see --help)" ;;
  esac
  shift
done
[ $# -gt 0 ] || { usage >&2; exit 125; }

bin=$(realpath -m "$bin")
for program in vantrel vantrel-launch vantrel-companion; do
  [ -x "$bin/$program" ] || fail "no $program in $bin; run scripts/build.sh"
done
export PATH=$PATH:/usr/sbin:/sbin
namespaces=(--net --mount --pid --fork --kill-child --mount-proc)
[ "$(id -u)" -eq 0 ] || namespaces=(--user --map-root-user "${namespaces[@]}")
unshare "${namespaces[@]}" true || fail "this kernel refuses the namespaces; try as root"

log_dir=${log_dir:-$(mktemp -d /tmp/vantrel-sandbox.XXXXXX)}
mkdir -p "$log_dir" && log_dir=$(cd "$log_dir" && pwd) || fail "no directory $log_dir"
echo "sandbox: logs and status records in $log_dir" >&2

# The link's socket and the device's files, in a place with a short path.
work=$(mktemp -d /tmp/vantrel-device.XXXXXX) || fail "no temporary directory"
companion='' device=''
clean_up() {
  [ -z "$device" ] || kill -KILL "$device" 2>/dev/null # and all it has inside
  [ -z "$companion" ] || kill -TERM "$companion" 2>/dev/null
  wait
  rm -rf "$work"
}
trap clean_up EXIT

: "${dns:=$(awk '$1 == "nameserver" && $2 ~ /^[0-9.]+$/ { print $2; exit }' /etc/resolv.conf)}"
echo "nameserver 192.0.2.53" >"$work/resolv.conf"
echo "ro.debuggable=$debuggable" >"$work/build.prop"
if [ -n "$packages" ]; then
  cp "$packages" "$work/packages.list" || fail "cannot read $packages"
else
  echo "sandbox.command 0 0 /data/data/sandbox.command default none" >"$work/packages.list"
fi

# The command is your own: it may reach what your own programs reach.
setsid "$bin/vantrel-companion" --protocol "$protocol" --listen "unix:$work/link" \
  --allow 0.0.0.0/0 ${dns:+--dns "$dns"} "${to_companion[@]}" >"$log_dir/companion.log" 2>&1 </dev/null &
companion=$!
# The socket's file is there a moment before anybody listens on it.
listens() { grep -qs "listening on" "$log_dir/companion.log"; }
for ((tries = 0; tries < 200; tries++)); do
  ! listens || break
  sleep 0.05
done
listens || fail "the companion did not start: $(cat "$log_dir/companion.log")"

# Ctrl-C is for COMMAND, which gets it from the terminal; other signals are
# passed on. Were unshare to die of one, all inside would be killed at once.
trap '' INT
signals=INT,QUIT,TERM,HUP
env --ignore-signal=$signals unshare "${namespaces[@]}" env --default-signal=$signals \
  "$scripts/../testbed/device.sh" "$work" "$scripts/lib/session.py" \
  "$log_dir" "$bin" "$PWD" --protocol "$protocol" "${to_launcher[@]}" "unix:$work/link" \
  -- "$@" <&0 &
device=$!
pass_on() { # to the first process inside, which decides
  passed_on=yes
  local inside
  read -r inside <"/proc/$device/task/$device/children"
  kill -TERM "$inside" 2>/dev/null
}
trap pass_on TERM HUP
passed_on=first
while [ -n "$passed_on" ]; do # a signal ends the wait, not always COMMAND
  passed_on=''
  wait "$device"
  result=$?
done
device=''
exit "$result"
