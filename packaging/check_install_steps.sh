# check_install_steps.sh DIR: what check_install.sh does inside its container. DIR has
# the packages and the companion's socket.
# shellcheck shell=bash
dir=$1
trap 'echo "failed: $BASH_COMMAND" >&2; journalctl --no-pager -n 40 >&2' ERR

reach_network() {
  timeout 30 sh -c 'until systemctl show --property=StatusText vantrel-launch@check |
    grep -q =running; do sleep 0.1; done'
  [ "$(dig +short +tries=1 @198.51.100.53 server.test)" = 198.51.100.80 ]
  [ "$(curl --silent --max-time 10 http://198.51.100.80/page)" = "over the link" ]
}

# Without a tunnel nothing waits: a connection is refused, and so is a datagram.
is_refused() {
  local status=0
  timeout 2 curl --silent http://198.51.100.80/page || status=$?
  [ "$status" = 7 ] # curl's "failed to connect"
  [[ $(timeout 2 dig +tries=1 @198.51.100.53 server.test || true) == *'connection refused'* ]]
}

has_no_rules() {
  [ -z "$(vantrelctl rules status)" ]
}

# Every look-up goes to the tunnel, or none does.
asks_tunnel() {
  [[ $(resolvectl dns ifb0) == *192.168.167.53 ]]
  [[ $(getent hosts server.test) == 198.51.100.80* ]]
}
asks_as_before() {
  [[ $(resolvectl dns) != *192.168.167.53* ]]
  [ "$(name_servers)" = "$servers" ]
}
name_servers() {
  sed -n '/^nameserver/p' /run/systemd/resolve/resolv.conf
}

# What vantrel-network makes is gone.
has_no_network() {
  [ -z "$(ip rule show priority 40000)" ]
  [ -z "$(ip route show table 2374 2>/dev/null)" ]
  [ -z "$(ip address show to 192.168.167.239)" ]
  [ -z "$(nft list tables | sed -n '/ vantrel$/p')" ]
}

# A wrong configuration fails at once and for good.
fails_for_good() { # fails_for_good UNIT
  local status=0
  timeout 10 systemctl start "$1" 2>/dev/null || status=$?
  [ "$status" = 1 ] && [ "$(systemctl is-failed "$1")" = failed ]
}

dpkg --install "$dir"/*.deb
[ "$(readlink /system)" = /usr/libexec/vantrel/system ]

# Every document that a document leads to is in the package, too.
for document in /usr/share/doc/vantrel*/*.md; do
  links=$(grep -oE '\]\([^)#:]+' "$document" | sed "s,^..,${document%/*}/," || true)
  xargs -r ls >/dev/null <<<"$links"
done
[ -e /usr/share/doc/vantrel-companion/proto/messages_v2.proto ]
[ -e /usr/share/doc/vantrel-companion/examples/vantrel.rules.yml ]

# The companion's own service has no rights, and says when it listens.
echo 'LISTEN=nowhere' >/etc/vantrel/companion.conf
fails_for_good vantrel-companion
echo 'LISTEN=unix:/run/vantrel-companion/link' >/etc/vantrel/companion.conf
systemctl enable --now vantrel-companion
[ -S /run/vantrel-companion/link ]
[ "$(systemctl show --property=CanReload vantrel-companion)" = CanReload=yes ]
# Nothing keeps it from D-Bus, where nobody has Bluetooth here.
systemctl start dbus.socket
echo 'LISTEN=bluetooth' >/etc/vantrel/companion.conf
systemctl restart vantrel-companion
timeout 10 sh -c 'until journalctl --unit=vantrel-companion | grep -q "BlueZ does not run"; do
  sleep 0.1; done'
systemctl stop vantrel-companion

# A service whose companion is away is ready all the same, or a boot would not end.
printf 'LINK=%s\nPROTOCOL=20\nVANTREL_LOG_FILE=/var/log/vantrel/daemon.log\n' "unix:$dir/away" \
  >/etc/vantrel/check.conf
echo 'PROTOCOL=20' >/etc/vantrel/bluetooth.conf
timeout 20 systemctl start vantrel-launch@bluetooth
timeout 10 sh -c 'until systemctl show --property=StatusText vantrel-launch@bluetooth |
  grep -q "BlueZ does not run"; do sleep 0.1; done'
systemctl stop vantrel-launch@bluetooth
echo 'OPTIONS=--metrics /dev/null' >>/etc/vantrel/check.conf
fails_for_good vantrel-launch@check
sed -i s,/dev/null,/var/lib/vantrel/metrics.prom, /etc/vantrel/check.conf
timeout 20 systemctl enable --now vantrel-launch@check
systemctl show --property=StatusText vantrel-launch@check | grep -qF "unix:$dir/away"
is_refused
sed -i s,/away,/link, /etc/vantrel/check.conf
systemctl restart vantrel-launch@check
reach_network
systemctl restart vantrel-launch@check
reach_network
timeout 5 sh -c "until grep -qx 'vantrel_up 1' /var/lib/vantrel/metrics.prom; do sleep 0.1; done"

# Where systemd answers the machine's look-ups, it is told of the tunnel.
dpkg --install "$dir"/resolved/*.deb
systemctl reload dbus # which does not know the new user before
systemctl restart systemd-resolved
servers=$(name_servers)
systemctl restart vantrel-launch@check
reach_network
asks_tunnel
systemctl restart systemd-resolved # forgets what it was told
systemctl restart vantrel-launch@check
reach_network
asks_tunnel

# The daemon begins a new log when its old one has been moved away.
logrotate --force /etc/logrotate.d/vantrel
timeout 10 sh -c 'until dig +short @198.51.100.53 server.test >/dev/null &&
  [ -s /var/log/vantrel/daemon.log ] && [ -s /var/log/vantrel/daemon.log.1 ]; do sleep 1; done'

# Killed without a chance to clean up: the service does it, and starts again.
systemctl kill --signal=KILL vantrel-launch@check
timeout 30 sh -c 'until systemctl is-failed --quiet vantrel-launch@check ||
  systemctl show vantrel-launch@check | grep -q ^NRestarts=1; do sleep 0.1; done'
timeout 30 sh -c 'until systemctl is-active --quiet vantrel-launch@check; do sleep 0.1; done'
reach_network
asks_tunnel
systemctl stop vantrel-launch@check
has_no_rules
asks_as_before
is_refused

# The network's service takes over what stands already, and still cleans up. An
# interface that it has not made it leaves where it is.
systemctl stop vantrel-network
has_no_network
[ ! -e /sys/class/net/ifb0 ]
ip link add ifb0 type ifb
ip rule add priority 40000 lookup 2374
systemctl start vantrel-network
is_refused
systemctl stop vantrel-network
has_no_network
ip link delete ifb0

# The bare command makes what it needs, and leaves nothing, also when the first was killed.
for signal in KILL TERM; do
  vantrel-launch "unix:$dir/link" &
  timeout 10 sh -c 'until getent hosts server.test >/dev/null; do sleep 0.1; done'
  asks_tunnel
  kill -$signal $!
  wait $! 2>/dev/null || [ $signal = KILL ]
  timeout 10 sh -c 'while pgrep -x vantrel >/dev/null; do sleep 0.1; done'
done
has_no_rules
has_no_network
asks_as_before

# An upgrade leaves a link standing, removal ends it, purge leaves nothing.
systemctl start vantrel-launch@check
reach_network
dpkg --install "$dir"/*.deb
reach_network
dpkg --remove vantrel vantrel-companion
[ ! -e /system ]
[ -z "$(systemctl list-units --no-legend 'vantrel*' --state=active)" ]
[[ $(iptables-save) != *oem_PROXY* ]]
has_no_network
rm /etc/vantrel/check.conf /etc/vantrel/bluetooth.conf /etc/vantrel/companion.conf
dpkg --purge vantrel vantrel-companion
[ -z "$(find /etc /var/lib /var/log -path /var/lib/dpkg -prune -o -name '*vantrel*' -print)" ]
