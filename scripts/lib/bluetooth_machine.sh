#!/bin/bash
# The first process of the virtual machine once it has the host's files: makes two
# controllers, runs the job, writes its exit status and ends the machine.
job=/run/job
kernel_dir='' directory='' command=()
# shellcheck source=/dev/null # written by bluetooth.sh
. $job/job.sh

end() { # STATUS
  echo "$1" >$job/status
  sync
  echo 0 >/proc/sys/kernel/printk # what the kernel says of it is no output
  busybox poweroff -f
}
fail() {
  echo "bluetooth: the virtual machine: $*" >&2
  end 125
}
# try_for SECONDS COMMAND...: until COMMAND succeeds.
try_for() {
  local end=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.5
  done
}

stty -onlcr
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs shm /dev/shm
hostname bluetooth
ip link set lo up
# The host's modules are of another kernel; the tools that load some look there.
mkdir -p /lib/modules
mount --bind "$kernel_dir/lib/modules" /lib/modules
# The emulator computes with the first two.
modprobe -a algif_hash algif_skcipher hci_vhci rfcomm || fail "modules are missing"

# manage COMMAND...: one command to the kernel's Bluetooth. The tool takes none
# without a terminal.
manage() {
  local output
  output=$(timeout 30 script -qec "btmgmt $*" /dev/null </dev/null)
  [[ $output =~ (complete|Paired) ]]
}
has_controllers() { [ "$(timeout 30 script -qec 'btmgmt info' /dev/null | grep -c '^hci')" -eq 2 ]; }

# The kernel gives a controller 2 s for each command that sets it up. An emulated
# processor may need longer, so it is tried again with new controllers.
for ((tries = 0; tries < 5; tries++)); do
  setsid btvirt -l2 >/run/btvirt.log 2>&1 </dev/null &
  emulator=$!
  ! try_for 20 has_controllers || break
  kill $emulator
  wait $emulator 2>/dev/null
done
has_controllers || fail "no controllers: $(</run/btvirt.log)"

for index in 0 1; do
  for setting in ssp bondable connectable power; do
    try_for 20 manage -i hci$index $setting on || fail "hci$index refuses $setting"
  done
  read -r address <<<"$(hciconfig hci$index | sed -n 's/.*BD Address: \([0-9A-F:]*\).*/\1/p')"
  export BLUETOOTH_ADDRESS$index="$address"
done
# Without a display on either side there is nothing to compare.
try_for 30 manage -i hci0 pair -c 3 -t 0 "$BLUETOOTH_ADDRESS1" || fail "the pairing fails"
export BLUETOOTH_OUTPUT=$job/output
cd "$directory" || fail "no directory $directory"
"${command[@]}"
end $?
