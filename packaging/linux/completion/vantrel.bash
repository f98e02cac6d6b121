# bash completion for vantrel, vantrel-launch, vantrel-companion, vantrelctl and
# vantrel-check

# Offers the given words for the word that is typed. Readline replaces only what
# stands behind the last colon of that.
_vantrel_reply() {
  local typed='' word
  [[ $COMP_WORDBREAKS != *:* ]] || typed=${cur%"${cur##*:}"}
  COMPREPLY=()
  for word in "$@"; do
    word=${word#"$typed"}
    [ -z "$word" ] || COMPREPLY+=("$word")
    # No blank behind what goes on.
    [[ $word != *[:/] ]] || compopt -o nospace
  done
}

_vantrel_words() {
  local found
  mapfile -t found < <(compgen -W "$*" -- "$cur")
  _vantrel_reply "${found[@]}"
}

# A path, with $1 in front of it. Names are quoted where they have to be.
_vantrel_file() {
  local found i
  compopt -o filenames
  mapfile -t found < <(compgen -f -- "${cur#"$1"}")
  for i in "${!found[@]}"; do
    [ ! -d "${found[i]}" ] || found[i]+=/
  done
  _vantrel_reply "${found[@]/#/$1}"
}

# Sets cur, prev and words as they were typed, up to the cursor: where the shell has
# cut a word, at a colon for instance, no blank stands.
_vantrel_begin() {
  local i piece rest line=${COMP_LINE:0:COMP_POINT}
  words=()
  for ((i = 0; i <= COMP_CWORD; i++)); do
    rest=${line#"${line%%[![:space:]]*}"}
    piece=${COMP_WORDS[i]}
    ((i < COMP_CWORD)) || piece=$rest
    if ((i == 0)) || [ "$rest" != "$line" ]; then
      words+=("$piece")
    else
      words[-1]+=$piece
    fi
    line=${rest#"$piece"}
  done
  cur=${words[-1]} prev=''
  ((${#words[@]} == 1)) || prev=${words[-2]}
  [[ $prev != *[\<\>] ]] || { _vantrel_file ''; return 1; }
}

# A link's address: the kinds, and behind unix: a path.
_vantrel_link() {
  if [[ $cur == unix:* ]]; then
    _vantrel_file unix:
  else
    _vantrel_words "$@"
  fi
}

# The same for who connects. The kinds of Bluetooth come with the machines that this
# one knows, as far as the user may see them.
_vantrel_connect() {
  local device address found=()
  for device in /var/lib/bluetooth/*/??:??:??:??:??:??/; do
    [ -d "$device" ] || continue
    device=${device%/} address=${device##*/}
    found+=("rfcomm:$address/")
    [[ " $* " != *" bluetooth "* ]] || found+=("bluetooth:$address")
  done
  _vantrel_link unix: tcp: rfcomm: "$@" "${found[@]}"
}

_vantrel_daemon() {
  local cur prev words
  _vantrel_begin || return
  _vantrel_words 1 5 20
}

_vantrel_launch() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --protocol) _vantrel_words 1 5 20 ;;
    --daemon | --capture | --metrics | --lock | --status-socket) _vantrel_file '' ;;
    --shape) _vantrel_words rate= delay= chunk= && compopt -o nospace ;;
    --stats-every) ;;
    --security) _vantrel_words low medium high ;;
    *)
      if [[ $cur == -* ]]; then
        _vantrel_words --help --version --protocol --daemon --restart \
          --direct --capture --shape --json --metrics --stats-every --status-socket --lock --security \
          --no-network --no-dns
      else
        _vantrel_connect bluetooth fd:
      fi ;;
  esac
}

_vantrel_companion() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --protocol) _vantrel_words auto 1 5 20 ;;
    --listen) _vantrel_link bluetooth unix: tcp: rfcomm: ;;
    --security) _vantrel_words low medium high ;;
    --log-level) _vantrel_words error warning info debug ;;
    --log-format) _vantrel_words text json ;;
    --dns) _vantrel_words system ;;
    --rules | --quota-file | --check-rules | --status-socket | --metrics) _vantrel_file '' ;;
    --explain) _vantrel_words unknown ;;
    --fd | --max-links | --max-tx | --allow | --deny | --max-pending | \
      --network | --build-info | --metrics-listen) ;;
    *)
      _vantrel_words --help --version --protocol --listen --fd --max-links \
        --allow-remote-links --security --header --max-tx --allow --deny \
        --max-pending --network --dns --rules --quota-file --check-rules \
        --explain --status-socket --metrics --metrics-listen --build-info \
        --log-level --log-format --verbose ;;
  esac
}

_vantrelctl() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --log | --lock | --status-socket) _vantrel_file ''; return ;;
    --link) _vantrel_connect; return ;;
    --timeout | --host | --port) return ;;
  esac
  case ${words[1]} in
    doctor) _vantrel_words --lock --link --status-socket --log --host --port --json --help ;;
    rules)
      if [[ ${words[2]} == teardown ]]; then
        _vantrel_words --lock --force --help
      else
        _vantrel_words status teardown --help
      fi ;;
    network) _vantrel_words start stop --help ;;
    pull | push)
      if [[ $prev == p* ]]; then
        _vantrel_words 64K 1M 10M
      else
        _vantrel_words --log --timeout --help
      fi ;;
    stop | dump | ping | stats) _vantrel_words --log --timeout --help ;;
    top)
      if [[ $cur == -* ]]; then
        _vantrel_words --status-socket --log --once --json --help
      else
        _vantrel_file ''
      fi ;;
    *) _vantrel_words stop dump ping pull push stats rules network top doctor --help --version ;;
  esac
}

_vantrel_check() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --protocol) _vantrel_words 1 5 20 all ;;
    --only) _vantrel_words "$("${words[0]}" --list 2>/dev/null | cut -d ' ' -f 1)" ;;
    --junit) _vantrel_file '' ;;
    --server-address | --timeout | --pid) ;;
    *)
      if [[ $cur == -* ]]; then
        _vantrel_words --help --version --protocol --listen --header --only \
          --fail-fast --list --server-address --timeout --pid --json --junit
      else
        _vantrel_connect
      fi ;;
  esac
}

complete -F _vantrel_daemon vantrel
complete -F _vantrel_launch vantrel-launch
complete -F _vantrel_companion vantrel-companion
complete -F _vantrelctl vantrelctl
complete -F _vantrel_check vantrel-check
