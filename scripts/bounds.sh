#!/bin/sh
# scripts/bounds.sh [option...]: what holds on a slow link, and of a companion whose
# devices do their worst, see bench/bounds.py.
PYTHONPATH=$(dirname "$0")/.. exec /usr/bin/python3 -BPm bench.bounds "$@"
