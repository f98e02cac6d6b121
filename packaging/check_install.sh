#!/bin/bash
# check_install.sh DEB...: installs the packages on a copy of this machine that systemd
# has booted in a container, uses their services, and removes them again. Needs root.
# The container's network is its own; what its applications reach through the link is a
# server and a name server beside it. Everything ends with the container.
set -euo pipefail
if [ "${1:-}" != --inside ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  # Only for the container: on this machine it would take over the look-ups. It must be
  # of the same version as what is installed.
  (cd "$work" && apt-get -qq -o APT::Sandbox::User="" download \
    "systemd-resolved=$(dpkg-query -W -f '${Version}' systemd)")
  unshare --net --mount --pid --fork --kill-child --mount-proc "$0" --inside "$work" "$@"
  exit
fi
shift
here=$(dirname "$0")
work=$1
shift
dir=$work/share
mkdir "$dir" "$dir/resolved" "$work/root" "$work/copy"
cp "$@" "$here/check_install_steps.sh" "$dir"
mv "$work"/*.deb "$dir/resolved"

ip link set lo up
ip address add 198.51.100.1/24 dev lo
echo "over the link" >"$dir/page"
/usr/bin/python3 -m http.server --bind 198.51.100.80 --directory "$dir" 80 >/dev/null 2>&1 &
# With --no-daemon it would answer nobody else while systemd-resolved keeps a connection.
dnsmasq --keep-in-foreground --user= --group= --pid-file= --no-resolv --no-hosts \
  --conf-file=/dev/null --bind-interfaces \
  --listen-address=198.51.100.53 --address=/server.test/198.51.100.80 2>/dev/null &
dpkg-deb --extract "$(printf '%s\n' "$@" | grep /vantrel-companion_)" "$work/companion"
"$work/companion/usr/bin/vantrel-companion" --allow 198.51.100.0/24 \
  --dns 198.51.100.53 --listen "unix:$dir/link" 2>"$dir/companion.log" &

# A layer over this machine's files that is gone afterwards.
mount -t tmpfs none "$work/copy"
mkdir "$work/copy/upper" "$work/copy/work"
mount -t overlay -o "lowerdir=/,upperdir=$work/copy/upper,workdir=$work/copy/work" \
  overlay "$work/root"
# Where this machine is itself a container, it may forbid packages to stop services.
rm -f "$work/root/usr/sbin/policy-rc.d"
cat >"$work/root/etc/systemd/system/check-install.service" <<UNIT
[Unit]
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
TimeoutStartSec=150
ExecStart=/bin/bash -eEu -o pipefail /srv/check/check_install_steps.sh /srv/check
StandardOutput=file:/srv/check/output
StandardError=file:/srv/check/output
UNIT
if ! timeout --kill-after=10 180 systemd-nspawn --quiet --register=no --keep-unit \
  --private-network --directory="$work/root" --bind="$dir:/srv/check" \
  --boot systemd.unit=check-install.service >"$dir/console" 2>&1 </dev/null; then
  cat "$dir/console" "$dir/companion.log" "$dir/output" >&2 || true
  exit 1
fi
