#!/usr/bin/env python3
"""check_sources.py ANDROID_BP LIST: the device build compiles what CMake does.

LIST has one line per source of the daemon as CMake sees it: the module of
Android.bp that it belongs to, a blank, and the path. Differences go to standard
error and make the exit status 1.
"""
import re
import sys


def blueprint_sources(text):
    """(module, path) for each entry of each module's srcs."""
    text = re.sub(r"//[^\n]*", "", text)
    found = []
    for body in re.findall(r"^\w+ \{\n(.*?)^\}", text, re.S | re.M):
        name = re.search(r'^    name: "([^"]+)"', body, re.M)
        sources = re.search(r"^    srcs: \[(.*?)\]", body, re.S | re.M)
        if name and sources:
            found += [(name[1], s) for s in re.findall(r'"([^"]+)"', sources[1])]
    return found


def main():
    with open(sys.argv[1]) as android_bp, open(sys.argv[2]) as listed:
        device = blueprint_sources(android_bp.read())
        linux = {tuple(line.split(" ", 1)) for line in listed.read().splitlines()}
    faults = [f"{module} has {path}, which CMake does not build into it"
              for module, path in sorted(set(device) - linux)]
    faults += [f"{module} lacks {path}"
               for module, path in sorted(linux - set(device))]
    faults += [f"{module} lists {path} twice"
               for module, path in sorted(set(device)) if device.count((module, path)) > 1]
    if not linux:
        faults.append("CMake's list is empty")
    for fault in faults:
        print(f"Android.bp: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
