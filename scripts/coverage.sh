#!/bin/bash
# scripts/coverage.sh [ctest option...]: runs the tests with counters, and tells which
# lines of the programs none of them runs. A table goes to standard output, a page for
# each file to build/coverage/report/index.html. Options choose tests, as in -R link.
#
# What a program counted is lost when it is killed. So is what a child process counted
# that becomes another program or ends by _exit(): tools/rules.cc and
# tools/launch/daemon_process.cc run more than the report says. What is left are mostly
# refusals of the system (sockets, options, memory) and Bluetooth sockets, which need a
# controller.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh all
scripts/build.sh coverage
find build/coverage -name '*.gcda' -delete
# A test that fails still counts lines; the report is worth having.
status=0
ctest --preset coverage -j $((4 * $(nproc))) "$@" || status=$?
rm -rf build/coverage/report
mkdir build/coverage/report
gcovr --root . --object-directory build/coverage --exclude '.*_test\.cc' \
  --exclude '.*_testing\.h' --exclude build --exclude bench --exclude fuzz \
  --exclude-throw-branches --print-summary \
  --html-details build/coverage/report/index.html --txt -
exit "$status"
