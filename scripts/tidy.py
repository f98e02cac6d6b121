#!/usr/bin/python3
"""tidy.py [FILE...]: clang-tidy over the programs' sources, as the preset ci-release
compiles them: several at once, in a third of the time, since most of it goes into the
libraries' headers. With FILEs, over these and what is compiled together with them. What
has passed is remembered in build/tidy, by the text that the compiler sees, so that only
what has changed is looked at again.

Tests, fuzz targets and benchmarks would take as long again. The analyzer follows an eighth
of the paths that it would by itself, for all of them take longer than all other checks.
The exit status is 1 when there was a finding.
"""
import concurrent.futures
import hashlib
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
    """The entries of the compiler's commands that have programs' sources, or |wanted|."""
    found, missing = {}, set(wanted)
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        sources = compiled_together(pathlib.Path(entry["file"]))
        missing -= sources
        if sources & wanted or not wanted and any(map(OURS.match, sources)):
            found[entry["file"]] = entry
    if missing:
        sys.exit(f"tidy: {', '.join(sorted(missing))}: not compiled by the preset ci-release")
    return found.values()


def arguments(entry):
    """Those of the compiler that say how to read the source."""
    words = shlex.split(entry["command"])
    start = next(at for at, word in enumerate(words) if word.startswith("-"))
    return words[start:words.index("-o")]


def seen_text(entry):
    """What clang sees of it, comments included, for some say NOLINT; None when it cannot
    be compiled."""
    text = run("clang++", *arguments(entry), "-E", "-C", entry["file"], cwd=entry["directory"])
    return None if text.returncode else text.stdout


def fault(entry, rules):
    """What clang-tidy says to it; empty when there is nothing."""
    text = seen_text(entry)
    mark = text and PASSED / hashlib.sha256((rules + text).encode()).hexdigest()
    if mark and mark.exists():
        return ""
    with tempfile.TemporaryDirectory() as directory:
        # By this name the analyzer knows that what it includes are no headers, at which
        # it does not look.
        source = pathlib.Path(directory, "UnifiedSource.cpp")
        source.write_text(f'#include "{entry["file"]}"\n' if entry["file"].endswith(".cc")
                          else pathlib.Path(entry["file"]).read_text())
        result = run("clang-tidy", "-quiet", f"-config-file={RULES}", *OPTIONS, source, "--",
                     *arguments(entry), cwd=entry["directory"])
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
    entries = commands({os.path.relpath(name, ROOT) for name in sys.argv[1:]})
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        faults = list(filter(None, pool.map(lambda entry: fault(entry, rules), entries)))
    print("".join(faults), end="")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
