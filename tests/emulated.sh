#!/bin/sh
# emulated.sh BUILD: on the machine of scripts/emulate.sh, with the checkout as the
# working directory: all unit tests of BUILD on the real kernel, then what both
# protocols put on the link, byte for byte, with real rules and owners of flows.
set -eu
for program in "$1"/test-bin/*_test; do
  "$program" --gtest_brief=1
done
# An emulated machine on a busy one is slow.
export VANTREL_BIN_DIR="$1/bin" VANTREL_PATIENCE=20 CI=1
exec python3 -B -m pytest -q -p no:cacheprovider tests/test_streams.py \
  tests/test_datagrams.py tests/test_v1.py -k "the_bytes_of or charged or owners"
