#!/bin/bash
# scripts/build.sh [preset]: programs in build/<preset>/bin/.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
scripts/setup.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
