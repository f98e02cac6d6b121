#!/usr/bin/env python3
"""check_dialect.py [BUILD]: the C++ sources keep those rules of docs/contributing.md that
neither compiler nor linters know. The sentence of each rule must stand there word by word.

With BUILD, a configured build folder, no source of it is compiled without asserts. Faults
go to standard error, as FILE:LINE, and make the exit status 1.
"""
import json
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# These have the names and forms of the device's own headers.
FOREIGN = "platform/linux/include/"
# A template of the library's that is specialised must be what the library has.
LIBRARY_STRUCTS = {"hash"}
RECORD_NAME = r"(?:[A-Z]\w*::)?[a-z][a-z0-9_]*_t"


def without_comments(text):
    """The same lines, with neither comments nor strings."""
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"',
                  lambda found: re.sub(r"[^\n]", " ", found[0]), text, flags=re.S)


def body_at(text, brace):
    """What stands between |brace| and its other one, without what is nested there."""
    depth, body = 0, []
    for character in text[brace:]:
        depth -= character == "}"
        if depth == 0 and body:
            return "".join(body)
        body.append(character if depth == 1 else " ")
        depth += character == "{"
    return ""


def structs(text):
    form = r"(?<!enum )\bstruct\s+([\w:]+)[^;(){=]*\{"
    for found in re.finditer(form, text):
        name = found[1].rpartition("::")[2]
        if name in LIBRARY_STRUCTS:
            continue
        if not re.fullmatch(RECORD_NAME, found[1]):
            yield found.start(), f"struct {name}: a record is called name_t"
        body = body_at(text, found.end() - 1)
        if re.search(r"\b(?:private|protected|virtual|operator)\b", body):
            yield found.start(), f"struct {name}: a record has neither secrets nor operators"
        # Neither a type of a template nor what a constructor begins with is a function.
        body = re.sub(r"<[^;]*>|\)\s*:(?!:)[^{]*", ")", body)
        for function in re.finditer(r"(\w+)\(", body):
            if function[1] not in (name, "alignas"):
                yield found.start(), f"struct {name}: {function[1]}() makes it a class"


def classes(text):
    for found in re.finditer(r"(?<!enum )\bclass\s+(\w+_t)\b", text):
        yield found.start(), f"class {found[1]}: only a record is called name_t"


def enums(text):
    for found in re.finditer(r"\benum\b(?!\s+class)\s*(\w*)\s*(?=\{)", text):
        yield found.start(), f"enum {found[1]}: neither a class nor of a written type"


def unsigned_ints(text):
    for found in re.finditer(r"\bunsigned\b(?!\s+(?:char|short|long)\b)", text):
        yield found.start(), "unsigned int is written uint32_t"


def first_lines(text):
    if not text.lstrip().startswith("#pragma once"):
        yield 0, "does not begin with #pragma once"


def marks(text):
    for found in re.finditer(r"\b(?:TODO|FIXME|XXX)\b", text):
        yield found.start(), f"{found[0]}: what is left to do is no part of a source"


# The sentence, what finds a breach, where, and whether that sees comments.
RULES = [
    ("A `struct` is a record: public data, no invariant, and no function but a constructor. "
     "Its name is in snake case and ends in `_t`", structs, "*", False),
    ("Whatever behaves is a `class`", classes, "*", False),
    ("An enum is an `enum class`, unless its values are bytes or bits. Such a one has its type "
     "written down", enums, "*", False),
    ("nothing is an `unsigned int`", unsigned_ints, "*", False),
    ("Headers begin with `#pragma once`", first_lines, "*.h", False),
    ("**Nothing is left to do: no `TODO`**", marks, "*", True),
]
ASSERTS = "It stays in every build, the released one, too: no build defines `NDEBUG`."


def sources():
    for folder in sorted(ROOT.iterdir()):
        if folder.is_dir() and folder.name != "build" and re.match(r"[a-z]", folder.name):
            for path in sorted([*folder.rglob("*.h"), *folder.rglob("*.cc")]):
                if FOREIGN not in path.as_posix():
                    yield path


def source_faults():
    for path in sources():
        text = path.read_text()
        code = without_comments(text)
        for _, find, files, sees_comments in RULES:
            if path.match(files):
                for place, fault in find(text if sees_comments else code):
                    line = text.count("\n", 0, place) + 1
                    yield f"{path.relative_to(ROOT)}:{line}: {fault}"


def sentence_faults():
    said = " ".join((ROOT / "docs/contributing.md").read_text().split())
    for sentence in [rule[0] for rule in RULES] + [ASSERTS]:
        if sentence not in said:
            yield f"docs/contributing.md: says nowhere: {sentence}"


def build_faults(build):
    for entry in json.loads(Path(build, "compile_commands.json").read_text()):
        if re.search(r"-DNDEBUG\b", entry.get("command", "")):
            yield f"{entry['file']}: is compiled without asserts"


def main():
    faults = [*source_faults(), *sentence_faults()]
    for build in sys.argv[1:]:
        faults += build_faults(build)
    print("\n".join(faults), file=sys.stderr)
    return 1 if faults else 0


sys.exit(main())
