# bash completion for vantrel, vantrel-launch, vantrel-companion, vantrelctl and
# vantrel-check

# Completes the word with one of the given ones, and leaves no blank behind one
# that goes on.
_vantrel_words() {
  mapfile -t COMPREPLY < <(compgen -W "$*" -- "$cur")
  [[ ${COMPREPLY-} != *: ]] || compopt -o nospace
}

_vantrel_file() {
  compopt -o filenames
  mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

# Sets cur, prev and words as they are typed: a link's address has colons.
_vantrel_begin() {
  # shellcheck disable=SC2034 # what _init_completion sets
  local cword
  if declare -F _init_completion >/dev/null; then
    _init_completion -n : || return
  else
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    words=("${COMP_WORDS[@]}")
  fi
}

# A link's address: $1 has the kinds, and a path follows unix:
_vantrel_link() {
  if [[ $cur == unix:* ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "${cur#unix:}")
    [[ $COMP_WORDBREAKS == *:* ]] || COMPREPLY=("${COMPREPLY[@]/#/unix:}")
  else
    _vantrel_words $1
  fi
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
    --daemon | --capture | --metrics | --lock | --status-socket) _vantrel_file ;;
    --shape) _vantrel_words rate= delay= chunk= && compopt -o nospace ;;
    --stats-every) ;;
    --security) _vantrel_words low medium high ;;
    *)
      if [[ $cur == -* ]]; then
        _vantrel_words --help --version --protocol --daemon --restart \
          --direct --capture --shape --json --metrics --stats-every --status-socket --lock --security
      else
        _vantrel_link "unix: tcp: rfcomm: fd:"
      fi ;;
  esac
}

_vantrel_companion() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --protocol) _vantrel_words 1 5 20 ;;
    --listen) _vantrel_link "unix: tcp: rfcomm:" ;;
    --security) _vantrel_words low medium high ;;
    --log-level) _vantrel_words error warning info debug ;;
    --log-format) _vantrel_words text json ;;
    --fd | --max-links | --max-tx | --allow | --deny | --max-pending | \
      --network | --dns | --build-info) ;;
    *)
      _vantrel_words --help --version --protocol --listen --fd --max-links \
        --allow-remote-links --security --header --max-tx --allow --deny \
        --max-pending --network --dns --build-info --log-level --log-format \
        --verbose ;;
  esac
}

_vantrelctl() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --log | --lock | --status-socket) _vantrel_file; return ;;
    --timeout) return ;;
  esac
  case ${words[1]} in
    rules)
      if [[ ${words[2]} == teardown ]]; then
        _vantrel_words --lock --force --help
      else
        _vantrel_words status teardown --help
      fi ;;
    pull | push)
      if [[ $prev == p* ]]; then
        _vantrel_words 64K 1M 10M
      else
        _vantrel_words --log --timeout --help
      fi ;;
    stop | dump | ping | stats) _vantrel_words --log --timeout --help ;;
    top) _vantrel_words --status-socket --log --once --json --help ;;
    *) _vantrel_words stop dump ping pull push stats rules top --help --version ;;
  esac
}

_vantrel_check() {
  local cur prev words
  _vantrel_begin || return
  case $prev in
    --protocol) _vantrel_words 1 5 20 all ;;
    --only) _vantrel_words "$("${words[0]}" --list 2>/dev/null | cut -d ' ' -f 1)" ;;
    --junit) _vantrel_file ;;
    --server-address | --timeout | --pid) ;;
    *)
      if [[ $cur == -* ]]; then
        _vantrel_words --help --version --protocol --listen --header --only \
          --fail-fast --list --server-address --timeout --pid --json --junit
      else
        _vantrel_link "unix: tcp: rfcomm:"
      fi ;;
  esac
}

complete -F _vantrel_daemon vantrel
complete -F _vantrel_launch vantrel-launch
complete -F _vantrel_companion vantrel-companion
complete -F _vantrelctl vantrelctl
complete -F _vantrel_check vantrel-check
