#!/usr/bin/python3
"""tidy.py [FILE...]: clang-tidy over the programs' sources, as the preset ci-release
compiles them, but a program with its libraries at once: most of the time goes into the
headers of other libraries. With FILEs, over these and what is compiled together with
them. What has passed is remembered in build/tidy, by the text that the compiler sees, so
that only what has changed is looked at again.

Tests, fuzz targets and benchmarks would take as long again. The analyzer follows an eighth
of the paths that it would by itself, for all of them take longer than all other checks.
The exit status is 1 when there was a finding.
"""
import collections
import concurrent.futures
import hashlib
import itertools
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD, PASSED = ROOT / "build/ci-release", ROOT / "build/tidy"
RULES = ROOT / ".clang-tidy"
OURS = re.compile(r"(?!build/|fuzz/|bench/)(?!.*_test\.cc$).*\.cc$")
DOUBLE = re.compile(r".*_testing\.cc$")
MAIN = re.compile(r"^int main\(", re.M)
OPTIONS = [
    # That is how several are compiled at once.
    "-checks=-bugprone-suspicious-include",
    *(f"-extra-arg={word}" for word in (
        "-Xclang", "-analyzer-config", "-Xclang", "max-nodes=30000"))]


def run(*command, **kwargs):
    return subprocess.run(command, capture_output=True, text=True, **kwargs)


def compiled_together(path):
    """The sources in |path|, which are one, or those that a file of CMake's includes."""
    paths = [path]
    if path.suffix == ".cxx":
        paths = re.findall(r'^#include "(.*)"$', path.read_text(), re.M)
    return {os.path.relpath(path, ROOT) for path in paths}


def commands(wanted):
    """The entries of the compiler's commands that have programs' sources alone, or some
    of |wanted|."""
    found, missing = {}, set(wanted)
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        sources = compiled_together(pathlib.Path(entry["file"]))
        missing -= sources
        if sources & wanted or not wanted and all(map(OURS.match, sources)):
            found[entry["file"]] = entry
    if missing:
        sys.exit(f"tidy: {', '.join(sorted(missing))}: not compiled by the preset ci-release")
    return found.values()


def batches(entries):
    """Lists of those that can be read as one source: a program with its libraries, as one
    entry after the other has them. What tests link in place of a source would be a second
    definition, and without exceptions not all sources can be read."""
    lists = collections.defaultdict(lambda: [[]])
    for entry in entries:
        path = pathlib.Path(entry["file"])
        sources = compiled_together(path)
        kind = "-fno-exceptions" in entry["command"], any(map(DOUBLE.match, sources))
        lists[kind][-1].append(entry)
        if any(MAIN.search((ROOT / source).read_text()) for source in sources):
            lists[kind].append([])
    return [batch for kind in lists.values() for batch in kind if batch]


def arguments(batch):
    """Those of the compiler that say how to read the sources. What is built without RTTI
    can be read with it, too."""
    found = {}
    for entry in batch:
        words = iter(shlex.split(entry["command"]))
        for word in itertools.takewhile(lambda word: word != "-o", words):
            if word == "-isystem":
                word += next(words)
            if word.startswith("-") and word != "-fno-rtti":
                found[word] = None
    return list(found)


def text(batch):
    """A source that includes all of |batch|."""
    return "".join(f'#include "{entry["file"]}"\n' if entry["file"].endswith(".cc")
                   else pathlib.Path(entry["file"]).read_text() for entry in batch)


def seen_text(source, words):
    """What clang sees of it, comments included, for some say NOLINT; None when it cannot
    be compiled."""
    result = run("clang++", *words, "-E", "-C", source)
    return None if result.returncode else result.stdout


def fault(batch, rules):
    """What clang-tidy says to it; empty when there is nothing."""
    words = arguments(batch)
    with tempfile.TemporaryDirectory() as directory:
        # By this name the analyzer knows that what it includes are no headers, at which
        # it does not look.
        source = pathlib.Path(directory, "UnifiedSource.cpp")
        source.write_text(text(batch))
        seen = seen_text(source, words)
        mark = seen and PASSED / hashlib.sha256(
            (rules + seen.replace(directory, "")).encode()).hexdigest()
        if mark and mark.exists():
            return ""
        result = run("clang-tidy", "-quiet", f"-config-file={RULES}", *OPTIONS, source, "--",
                     *words)
    if "[clang-diagnostic-error]" in result.stdout and len(batch) > 1:
        # Perhaps two of them have a name in common, each for itself.
        return "".join(fault([entry], rules) for entry in batch)
    if result.returncode:
        return result.stdout + result.stderr
    if mark:
        mark.touch()
    return ""


def main():
    for command in (["cmake", "--preset", "ci-release"],
                    ["cmake", "--build", "--preset", "ci-release", "--target", "vantrel_proto"]):
        # Without CI the preset is not there.
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "CI": "1"})
    PASSED.mkdir(exist_ok=True)
    rules = RULES.read_text() + run("clang-tidy", "--version").stdout
    rules += pathlib.Path(__file__).read_text()
    found = batches(commands({os.path.relpath(name, ROOT) for name in sys.argv[1:]}))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        faults = list(filter(None, pool.map(lambda batch: fault(batch, rules), found)))
    print("".join(faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
