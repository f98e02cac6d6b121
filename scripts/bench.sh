#!/bin/bash
# scripts/bench.sh [quick|full] [--compare BASE] [--only WORD]...: measures vantrel
# beside a plain connection and, where they are installed, a transparent proxy
# (haproxy) and an ssh tunnel. Needs root. Prints tables with ratios to the first
# column, and leaves build/bench/MODE.json and plots beside it. quick takes
# each measurement once and briefly; full is what docs/performance.md has. With
# --compare the commit BASE is built, too, and measured in the same run. --only takes
# the measurements with one of the words in their name.
# VANTREL_PRESET names another preset to build than release.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=quick base='' only=() preset=${VANTREL_PRESET:-release}
while [ $# -gt 0 ]; do
  case $1 in
    quick | full) mode=$1 ;;
    --compare) base=${2:?--compare needs a commit} && shift ;;
    --only) only+=(--only "${2:?--only needs a word}") && shift ;;
    *)
      echo "usage: bench.sh [quick|full] [--compare BASE] [--only WORD]..." >&2
      exit 2 ;;
  esac
  shift
done
if [ "$(id -u)" -ne 0 ]; then
  echo "bench: needs root, for namespaces, rules and users" >&2
  exit 1
fi

child='' tree='' name=''
# Runs a command as a process group that does not outlive us.
run() {
  local status=0
  setsid "$@" &
  child=$!
  wait "$child" || status=$?
  child=''
  return "$status"
}
clean_up() {
  # In its namespaces a measurement hears no other signal.
  [ -z "$child" ] || kill -KILL -- "-$child" 2>/dev/null || true
  wait 2>/dev/null
  [ -n "$tree" ] || return 0
  git worktree remove --force "$tree/$name" 2>/dev/null || true
  rm -rf "$tree"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

run scripts/setup.sh bench
run scripts/build.sh "$preset" >&2
out=build/bench
mkdir -p "$out"

compare=()
if [ -n "$base" ]; then
  name=$(git rev-parse --short --verify "$base^{commit}")
  tree=$(mktemp -d)
  git worktree add --quiet --detach "$tree/$name" "$name"
  run env -C "$tree/$name" cmake --preset release -DVANTREL_BUILD_TESTS=OFF >/dev/null
  run env -C "$tree/$name" cmake --build --preset release >&2
  compare=(--base "$name" --base-bin "$tree/$name/build/release/bin")
fi

status=0
VANTREL_BIN_DIR=$PWD/build/$preset/bin run /usr/bin/python3 -B -m bench.measure --mode "$mode" \
  "${compare[@]}" "${only[@]}" "$out/$mode.json" || status=$?
[ "$status" -ne 2 ] || exit 2 # nothing was measured
/usr/bin/python3 -B -m bench.report "$out/$mode.json" --plots "$out"
echo "bench: $out/$mode.json, plots in $out" >&2
exit "$status"
