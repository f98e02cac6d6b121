#!/bin/sh
# scripts/soak.sh load|mixed [option...]: many connections, or much traffic for long,
# see tests/soak.py.
PYTHONPATH=$(dirname "$0")/.. exec /usr/bin/python3 -BPm tests.soak "$@"
