#!/bin/sh
# scripts/sandbox.sh: runs a command as on a device, see lib/sandbox.py.
scripts=$(dirname "$0")
PYTHONPATH=$scripts/..${PYTHONPATH+:$PYTHONPATH} exec /usr/bin/python3 -BP \
  "$scripts/lib/sandbox.py" "$@"
