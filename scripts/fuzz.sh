#!/bin/bash
# scripts/fuzz.sh [seconds] [target]: lets every fuzz target, or one, look for
# faults for so long (60). Prints how often each ran and what it found; exit
# status 1 when there was a fault, whose input is then named. What the corpus has
# grown to stays in build/fuzz/fuzz/grown/ for the next time. As many run at once
# as there are processors, or VANTREL_JOBS. VANTREL_PRESET names another preset.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60} only=${2:-*}
preset=${VANTREL_PRESET:-fuzz}
case $seconds in
  '' | *[!0-9]*)
    echo "usage: fuzz.sh [seconds] [target]" >&2
    exit 2 ;;
esac

scripts/build.sh "$preset" >&2
out=$PWD/build/$preset

fuzz_one() { # fuzz_one PROGRAM
  local name=${1##*/} grown executions edges status=0
  name=${name%_fuzz}
  grown=$out/fuzz/grown/$name
  mkdir -p "$grown" "$out/fuzz/faults"
  local options=(-max_total_time="$seconds" -timeout=60 -rss_limit_mb=3000
    -max_len=4096 -print_final_stats=1 -artifact_prefix="$out/fuzz/faults/$name-")
  [ ! -f "fuzz/$name.dict" ] || options+=(-dict="fuzz/$name.dict")
  local corpora=("$grown" "$out/fuzz/seeds/$name")
  [ ! -d "fuzz/corpus/$name" ] || corpora+=("fuzz/corpus/$name")
  "$1" "${options[@]}" "${corpora[@]}" >"$grown.log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$grown.log")
  edges=$(sed -nE 's/^#[0-9]+.* cov: ([0-9]+) .*/\1/p' "$grown.log" | tail -n 1)
  printf '%-18s %10s runs %6s edges %5s inputs' "$name" "${executions:-0}" \
    "${edges:-0}" "$(find "$grown" -type f | wc -l)"
  if [ "$status" -eq 0 ]; then
    printf '\n'
  else
    printf '  FAULT: see %s\n' "$grown.log"
    grep -hE 'Test unit written|does not hold|SUMMARY' "$grown.log" || true
  fi
  return "$status"
}
export -f fuzz_one
export out seconds

shopt -s nullglob
programs=()
for program in "$out"/bin/*_fuzz; do
  # shellcheck disable=SC2053 # the default is a pattern
  [[ ${program##*/} != ${only}_fuzz ]] || programs+=("$program")
done
if [ ${#programs[@]} -eq 0 ]; then
  echo "fuzz: no target $only" >&2
  exit 2
fi
printf '%s\n' "${programs[@]}" |
  xargs -P "${VANTREL_JOBS:-$(nproc)}" -I{} bash -c 'fuzz_one {}'
