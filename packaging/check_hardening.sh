#!/bin/bash
# check_hardening.sh BIN_DIR: every program in BIN_DIR, but for scripts, was built with stack
# protector, checked C library calls, at a random address and with all its
# relocations done and write-protected before main(). A line for each fault.
set -euo pipefail
faults=0 programs=0

# check PROGRAM WHAT READELF_OPTION PATTERN: a line of readelf's has PATTERN.
check() {
  if ! grep -qE "$4" <<<"$(readelf -W "$3" "$1")"; then
    echo "$1: $2 is missing" >&2
    faults=$((faults + 1))
  fi
}

for program in "$1"/*; do
  [[ $(head -c 2 "$program") != '#!' ]] || continue
  programs=$((programs + 1))
  check "$program" "position independence" --dynamic 'FLAGS_1.*\bPIE\b'
  check "$program" "binding at the start" --dynamic 'FLAGS_1.*\bNOW\b'
  check "$program" "write-protected relocation" --program-headers 'GNU_RELRO'
  check "$program" "stack protector" --dyn-syms '\b__stack_chk_fail\b'
  check "$program" "checked C library calls" --dyn-syms '\b__[a-z]+_chk\b'
done
[ "$programs" -gt 0 ] || { echo "no program in $1" >&2; exit 1; }
[ "$faults" -eq 0 ]
