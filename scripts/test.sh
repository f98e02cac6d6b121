#!/bin/bash
# scripts/test.sh [preset]: builds, then runs every test, unit and end-to-end.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
scripts/setup.sh test
scripts/build.sh "$preset"
# Most of them wait most of the time.
exec ctest --preset "$preset" -j $((4 * $(nproc)))
