# check_install_steps.sh DIR: what check_install.sh does inside its container. DIR has
# the packages and the companion's socket.
# shellcheck shell=bash
dir=$1
trap 'echo "failed: $BASH_COMMAND" >&2; journalctl --no-pager -n 40 >&2' ERR

reach_network() {
  [ "$(dig +short +tries=1 @198.51.100.53 server.test)" = 198.51.100.80 ]
  [ "$(curl --silent --max-time 10 http://198.51.100.80/page)" = "over the link" ]
}

has_no_rules() {
  [ -z "$(vantrelctl rules status)" ]
}

dpkg --install "$dir"/*.deb
[ "$(readlink /system)" = /usr/libexec/vantrel/system ]

# The companion's own service has no rights, and says when it listens.
echo 'LISTEN=unix:/run/vantrel-companion/link' >/etc/vantrel/companion.conf
systemctl start vantrel-companion
[ -S /run/vantrel-companion/link ]
systemctl reload vantrel-companion
systemctl stop vantrel-companion

printf 'LINK=%s\nPROTOCOL=20\n' "unix:$dir/link" >/etc/vantrel/check.conf
systemctl start vantrel-launch@check
reach_network
systemctl restart vantrel-launch@check
reach_network

# Killed without a chance to clean up: the service does it, and starts again.
systemctl kill --signal=KILL vantrel-launch@check
timeout 30 sh -c 'until systemctl is-failed --quiet vantrel-launch@check ||
  systemctl show vantrel-launch@check | grep -q ^NRestarts=1; do sleep 0.1; done'
timeout 30 sh -c 'until systemctl is-active --quiet vantrel-launch@check; do sleep 0.1; done'
reach_network
systemctl stop vantrel-launch@check
has_no_rules

# An upgrade leaves a link standing, removal ends it, purge leaves nothing.
systemctl start vantrel-launch@check
dpkg --install "$dir"/*.deb
reach_network
dpkg --remove vantrel vantrel-companion
[ ! -e /system ]
[ -z "$(systemctl list-units --no-legend 'vantrel*' --state=active)" ]
[ "$(iptables-save | grep -c oem_PROXY)" = 0 ]
rm /etc/vantrel/check.conf /etc/vantrel/companion.conf
dpkg --purge vantrel vantrel-companion
[ ! -e /etc/vantrel ]
