#!/bin/sh
# scripts/devices.sh --base-bin DIR [option...]: what many devices cost the companion,
# beside another build's, see bench/devices.py.
PYTHONPATH=$(dirname "$0")/.. exec /usr/bin/python3 -BPm bench.devices "$@"
