#!/bin/bash
# demo_steps.sh WORK BIN PROTOCOL: the demonstration itself, to be run as root
# in network, mount and process namespaces of its own, which are the internet.
# All that it starts ends with it.
set -uo pipefail
# The first process of a namespace gets only the signals that it asks for.
trap 'exit 130' INT
trap 'exit 143' TERM HUP
work=$1 bin=$2 protocol=$3
export PATH=$PATH:/usr/sbin:/sbin
readonly mib=1048576
readonly web=198.51.100.80 name=www.example.test browser=10123 mail=10124
failed=0
# What each UID's clients say they moved: payload, headers and requests.
declare -A downloaded=() uploaded=()

# step HELD TEXT: one line; HELD is the status of what the text tells.
step() {
  local mark=ok
  [ "$1" -eq 0 ] || { mark=FAILED; failed=1; }
  printf '%-6s %s\n' "$mark" "$2"
}
give_up() {
  echo "FAILED $*" >&2
  exit 1
}
# wait_for WHAT COMMAND...: until COMMAND succeeds, 10 s at most.
wait_for() {
  local what=$1 tries
  shift
  for ((tries = 0; tries < 200; tries++)); do
    ! "$@" >/dev/null 2>&1 || return 0
    sleep 0.05
  done
  give_up "$what did not come up; see below" "$(tail -n 20 "$work"/*.log)"
}
on_device() { "${enter[@]}" "$@"; }
# add_moved UID DOWN UP: figures as curl gives them, sums allowed.
add_moved() {
  downloaded[$1]=$((${downloaded[$1]:-0} + $2))
  uploaded[$1]=$((${uploaded[$1]:-0} + $3))
}
as_app() { on_device setpriv "--reuid=$1" "--regid=$1" --clear-groups "${@:2}"; }
checksum() { sha256sum "$@" | cut -d' ' -f1 | sort -u; }
megabytes() { awk -v rate="$1" 'BEGIN { printf "%.1f MB/s", rate / 1e6 }'; }
# count_rules: how many lines of the device's packet filter are the daemon's.
count_rules() {
  local lines
  lines=$(on_device iptables-legacy -w -t nat -S &&
    on_device iptables-legacy -w -t mangle -S) || give_up "the rules cannot be read"
  grep -c oem_PROXY_ <<<"$lines" || true
}

make_internet() {
  ip link set lo up
  ip address add 198.51.100.1/24 dev lo # on lo: all of the network is here
  dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts \
    --user=root --pid-file="$work/dnsmasq.pid" --listen-address=198.51.100.53 \
    --bind-interfaces --address="/$name/$web" 2>"$work/dnsmasq.log" &
  mkdir "$work/web" "$work/web/up" "$work/apache"
  head -c $((64 * mib)) /dev/urandom >"$work/web/down.bin"
  head -c "$mib" /dev/urandom >"$work/web/small.bin"
  echo "<p>Hello from $name</p>" >"$work/web/index.html"
  chmod 755 "$work"
  chown -R www-data: "$work/web" "$work/apache"
  cat >"$work/apache/apache.conf" <<CONF
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule dir_module /usr/lib/apache2/modules/mod_dir.so
LoadModule dav_module /usr/lib/apache2/modules/mod_dav.so
LoadModule dav_fs_module /usr/lib/apache2/modules/mod_dav_fs.so
ServerName $name
ServerRoot $work/apache
DefaultRuntimeDir $work/apache
PidFile $work/apache/pid
ErrorLog $work/apache.log
DavLockDB $work/apache/locks
User www-data
Group www-data
Listen $web:80
DocumentRoot $work/web
DirectoryIndex index.html
<Location /up>
  Dav on
</Location>
CONF
  apache2 -d "$work/apache" -f "$work/apache/apache.conf" -DFOREGROUND 2>>"$work/apache.log" &
  wait_for "the web server" curl -sf -o /dev/null "http://$web/"
  wait_for "the name server" dig +time=1 +tries=1 @198.51.100.53 "$name"
}

make_device() {
  echo "nameserver 198.51.100.53" >"$work/resolv.conf"
  echo "ro.debuggable=false" >"$work/build.prop"
  cat >"$work/packages.list" <<LIST
com.example.browser $browser 0 /data/data/com.example.browser default none
com.example.mail $mail 0 /data/data/com.example.mail default none
LIST
  unshare --net --mount "$(dirname "$0")/../../testbed/device.sh" "$work" \
    sh -c "touch $work/device.ready; exec sleep infinity" 2>"$work/device.log" &
  enter=(nsenter "--target=$!" --net --mount --root --wd)
  wait_for "the device" test -e "$work/device.ready"
}

start_tunnel() {
  "$bin/vantrel-companion" --protocol "$protocol" --listen "unix:$work/link" \
    --network 7 --allow 198.51.100.0/24 >"$work/companion.log" 2>&1 &
  wait_for "the companion" grep -q "listening on" "$work/companion.log"
  # Not through on_device: the signal at the end is for the launcher itself.
  VANTREL_LOG_FILE=$work/daemon.log "${enter[@]}" "$bin/vantrel-launch" \
    --daemon "$bin/vantrel" --protocol "$protocol" "unix:$work/link" \
    >"$work/status.txt" 2>"$work/launch.log" &
  launcher=$!
  wait_for "the daemon" grep -qx started "$work/status.txt"
  wait_for "the link" grep -q "link up" "$work/companion.log"
}

show_rules_in_place() {
  local count
  count=$(count_rules)
  [ "$count" -eq 10 ]
  step $? "interception rules in place: $count lines in the device's packet filter"
}

show_name() {
  local answer address time
  answer=$(on_device dig +tries=1 "$name")
  address=$(awk '$4 == "A" { print $5 }' <<<"$answer")
  time=$(sed -n 's/^;; Query time: //p' <<<"$answer")
  [ "$address" = "$web" ]
  step $? "dig: $name is $address, answered in $time"
}

show_page() {
  local page moved
  page=$(on_device curl -sS --max-time 20 -w '%{stderr}%{size_header}+%{size_download} %{size_request}' \
    "http://$name/" 2>"$work/moved.txt")
  read -r -a moved <"$work/moved.txt"
  add_moved 0 "${moved[@]}"
  [[ $page == *"Hello from $name"* ]]
  step $? "curl: http://$name/ says: $page"
}

show_download() {
  local rate down up
  read -r rate down up < <(on_device curl -sS --max-time 60 -o "$work/down.bin" \
    -w '%{speed_download} %{size_header}+%{size_download} %{size_request}\n' \
    "http://$name/down.bin")
  add_moved 0 "$down" "$up"
  cmp -s "$work/down.bin" "$work/web/down.bin"
  step $? "64 MiB down at $(megabytes "$rate"), sha256 $(checksum "$work/down.bin" | head -c 16)..."
}

show_upload() {
  local rate down up
  head -c $((16 * mib)) /dev/urandom >"$work/up.bin"
  read -r rate down up < <(on_device curl -sS --max-time 60 -o /dev/null -T "$work/up.bin" \
    -w '%{speed_upload} %{size_header}+%{size_download} %{size_request}+%{size_upload}\n' \
    "http://$name/up/up.bin")
  add_moved 0 "$down" "$up"
  cmp -s "$work/up.bin" "$work/web/up/up.bin"
  step $? "16 MiB up at $(megabytes "$rate"), sha256 $(checksum "$work/up.bin" | head -c 16)..."
}

show_fifty_at_once() {
  local begin took count down up
  mkdir "$work/many"
  begin=$(date +%s%N)
  on_device curl -sS --max-time 60 --parallel --parallel-immediate --parallel-max 50 \
    -o "$work/many/#1" -w '%{size_header}+%{size_download} %{size_request}\n' \
    "http://$name/small.bin?[1-50]" >"$work/moved.txt" 2>"$work/curl.log"
  took=$((($(date +%s%N) - begin) / 1000000))
  count=$(sha256sum "$work"/many/* | grep -c "^$(checksum "$work/web/small.bin")")
  while read -r down up; do
    add_moved 0 "$down" "$up"
  done <"$work/moved.txt"
  [ "$count" -eq 50 ]
  step $? "50 downloads of 1 MiB at once: $count whole in $took ms ($(megabytes $((50 * mib * 1000 / took))))"
}

show_application() {
  local uid=$1 package=$2 seen down up
  read -r down up < <(as_app "$uid" curl -sS --max-time 20 -o /dev/null \
    -w '%{size_header}+%{size_download} %{size_request}\n' "http://$name/small.bin")
  add_moved "$uid" "$down" "$up"
  # A name is told once per UID, after the first stream; both lines may trail.
  wait_for "UID $uid at the companion" grep -q "uid $uid is $package" "$work/companion.log"
  seen=$(grep "connect to $web:80 (uid $uid" "$work/companion.log" | tail -n 1)
  [ -n "$seen" ]
  step $? "an application with UID $uid; the companion saw: ${seen#*: }, and that uid $uid is $package"
}

show_end() {
  local status records count
  kill -TERM "$launcher"
  wait "$launcher"
  status=$?
  records=$(paste -sd'|' "$work/status.txt" | sed 's/|/; /g')
  [ "$status" -eq 0 ] && [[ $records == "started; network 7"*"stats: "*"daemon ended: exit status 0" ]]
  step $? "status records: $records"
  count=$(count_rules)
  [ "$count" -eq 0 ]
  step $? "interception rules gone: $count lines left"
}

# The report counts what crossed the link: what the clients moved, and on top the
# headers of messages and look-ups, a few percent at most.
show_report() {
  local uid line received sent
  for uid in 0 $browser $mail; do
    line=$(grep -o "uid $uid [^;]*received [0-9]* bytes, sent [0-9]* bytes" "$work/status.txt")
    received=$(sed -n 's/.*received \([0-9]*\) .*/\1/p' <<<"$line")
    sent=$(sed -n 's/.*sent \([0-9]*\) .*/\1/p' <<<"$line")
    [ -n "$received" ] &&
      [ "$received" -ge $((downloaded[$uid])) ] && [ "$sent" -ge $((uploaded[$uid])) ] &&
      [ "$received" -le $((downloaded[$uid] * 102 / 100 + 4096)) ] &&
      [ "$sent" -le $((uploaded[$uid] * 102 / 100 + 4096)) ]
    step $? "report: $line; its clients say ${downloaded[$uid]} down, ${uploaded[$uid]} up"
  done
}

make_internet
make_device
start_tunnel
show_rules_in_place
show_name
show_page
show_download
show_upload
show_fifty_at_once
show_application $browser com.example.browser
show_application $mail com.example.mail
show_end
[ "$protocol" = 20 ] || show_report # protocol 20 keeps no statistics
if [ "$failed" -ne 0 ]; then
  echo "demo: not every step held" >&2
  tail -n 20 "$work"/*.log >&2
fi
exit "$failed"
