#!/usr/bin/python3
"""check_includes.py: every #include and every import of ours is one that the table of
folders in docs/architecture.md allows. Its last column has the folders and single headers
that the sources of a row's folder may use beside their own. Unit tests, test
helpers and benchmarks (*_test.cc, *_testing.h, *_bench.cc) may also use test helpers
and the stand-ins for the platform. No Python source changes where modules are found.
Faults go to standard error and make the exit status 1.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PLAN = "docs/architecture.md"
STAND_INS = "platform/linux/"


def read_plan():
    """{folder: what it may include}; a folder ends in a slash."""
    table = re.search(r"^\| folder \|.*\n\|[-|]+\n((?:\|.*\n)+)", (ROOT / PLAN).read_text(),
                      re.M)
    plan = {}
    for row in table[1].splitlines():
        cells = row.strip("|").split("|")
        allowed = set(re.findall(r"`([^`]+)`", cells[-1]))
        plan.update((folder, allowed) for folder in re.findall(r"`([^`]+/)`", cells[0]))
    return plan


def room_of(path, plan):
    """The folder of |plan| that |path| lies in; None if there is none."""
    return max((folder for folder in plan if path.startswith(folder)), key=len, default=None)


def faults_of(source, plan):
    room = room_of(source, plan)
    if room is None:
        return [f"{source}: its folder is not in the table"]
    allowed = plan[room] | {room}
    is_test = source.endswith(("_test.cc", "_testing.h", "_bench.cc"))
    text = (ROOT / source).read_text()
    if source.endswith(".py"):
        faults = [f"{source}: {room} may not import {name}"
                  for name in re.findall(r"^(?:from|import) (\w+)", text, re.M)
                  if f"{name}/" in plan and f"{name}/" not in allowed]
        # Spelt so that it is not found here.
        return faults + [f"{source}: changes sys.{'path'}"] * (f"sys.{'path'}" in text)
    faults = []
    for header in re.findall(r'^#include "([^"]+)"', text, re.M):
        target = room_of(header, plan)
        helps_tests = target == STAND_INS or header.endswith("_testing.h")
        if target not in allowed and header not in allowed and not (is_test and helps_tests):
            faults.append(f"{source}: {room} may not include {header}")
    return faults


def main():
    plan = read_plan()
    listed = subprocess.run(["git", "ls-files", "*.h", "*.cc", "*.py"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout
    sources = listed.split()
    faults = [fault for source in sources for fault in faults_of(source, plan)]
    named = set(plan).union(*plan.values())
    faults += [f"{PLAN}: there is no {path}" for path in sorted(named)
               if not (ROOT / path).exists()]
    if not sources:
        faults.append("no sources found")
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
