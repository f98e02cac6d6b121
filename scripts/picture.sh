#!/bin/bash
# scripts/picture.sh: draws docs/session.svg, what both commands print, from a run of them
# on the two controllers of scripts/bluetooth.sh. Needs a build and what that script needs.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
scripts/bluetooth.sh --keep "$work" -- env VANTREL_TESTBED=root BLUETOOTH_EVERYTHING=1 \
  /usr/bin/python3 -B -m pytest -q -p no:cacheprovider tests/test_bluetooth.py -k nothing_but
mv "$work/session.svg" docs/session.svg
