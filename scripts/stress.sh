#!/bin/sh
# scripts/stress.sh [option...]: random runs of the programs, see tests/stress.py.
PYTHONPATH=$(dirname "$0")/.. exec /usr/bin/python3 -BPm tests.stress "$@"
