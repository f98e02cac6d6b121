#!/bin/bash
# check_linkage.sh PROGRAM ROOT: PROGRAM was linked with the device's C++ library and
# whatever could not be resolved left out. All that it lacks of the libraries in ROOT
# must belong to the messages library, which is packaged for another C++ library.
set -euo pipefail
program=$1 root=$2
# names NM_OPTION FILE: but for what may be missing ("w").
names() { nm --dynamic "$@" | awk '$(NF - 1) != "w" { sub(/@.*/, "", $NF); print $NF }' | sort -u; }
libraries=()
while read -r library; do
  libraries+=("$(find "$root/usr/lib" -name "$library" -print -quit)")
done < <(readelf -dW "$program" | sed -nE 's/.*\(NEEDED\).*\[([^]]+)\]/\1/p')
[ "${#libraries[@]}" -gt 0 ] || { echo "$program: no library is used" >&2; exit 1; }
missing=$(comm -23 <(names --undefined-only "$program") \
  <(for library in "${libraries[@]}"; do names --defined-only "$library"; done | sort -u) |
  c++filt | grep -vw 'google::protobuf' || true)
[ -z "$missing" ] || { echo "$program: lacks $missing" >&2; exit 1; }
