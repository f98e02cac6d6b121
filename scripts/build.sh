#!/bin/bash
# scripts/build.sh [preset]: programs in build/<preset>/bin/.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
case $preset in
  release | debug | coverage) scripts/setup.sh build ;;
  arm64 | ci-arm64) scripts/sysroot.sh arm64 ;;
  armhf | ci-armhf) scripts/sysroot.sh armhf ;;
  *-armhf) scripts/setup.sh all && scripts/sysroot.sh armhf ;;
  *) scripts/setup.sh all ;; # clang++ or the device's headers
esac
cmake --preset "$preset"
cmake --build --preset "$preset"
