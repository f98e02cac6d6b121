#!/usr/bin/env python3
"""check_documents.py [BUILD]: what documents and man pages say about the code is so.

A figure that comes from the code has a mark behind it, which no reader of the finished
page sees: "30 s<!-- = kHandshakeTime -->", and in a man page a line "; = kHandshakeTime"
below the figure's own. The name is that of a constant, "FILE:NAME" where several files
have one, and a unit may follow it. "~" in place of "=" marks a rounded figure, and
"given: REASON" one that no constant has.
In the documents of HELD no figure with a unit stands without a mark.

With BUILD, a finished build, the installed documents show pictures that are installed.
Faults go to standard error, and make the exit status 1.
"""
import ast
import functools
import operator
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MAN = sorted(path.relative_to(ROOT).as_posix() for path in ROOT.glob("packaging/man/*.scd"))
DOCUMENTS = ["README.md", "SECURITY.md", *MAN,
             *(path.relative_to(ROOT).as_posix() for path in sorted(ROOT.glob("docs/*.md")))]
HELD = ["SECURITY.md", "docs/architecture.md", "docs/contributing.md", "docs/limits.md",
        "docs/performance.md", *MAN]
# Of a figure, in the unit of the constants: seconds, bytes, or so many.
UNITS = {"us": 1e-6, "ms": 1e-3, "s": 1, "second": 1, "minute": 60, "hour": 3600,
         "KiB": 1024, "MiB": 1024 ** 2, "kB": 1e3, "MB": 1e6, "GB": 1e9}
COUNTED = ("B|bytes?|bits|streams?|datagrams?|flows?|links?|files?|messages?|chunks?|lines?|"
           "reads?|writes?|owners?|descriptors?|connections?|UIDs|images|%")
NUMBER = r"(?<![\w.,/:-])(\d[\d,]*(?:\.\d+)?)"
FIGURE = re.compile(rf"(?<!protocol )(?<!protocols ){NUMBER}(?:[ -]|\n[\t >|-]*)"
                    rf"(?:datagram |new |open )?(?:(?:{'|'.join(UNITS)})s?|{COUNTED})(?!\w)"
                    r"|(?:is|takes) (?:half )?a (?:second|minute)(?!\w)")
MARK = re.compile(r"(?:<!-- |\n\t*; )(=|~|given:) (.*?)(?: -->|(?=\n))")
DURATION = {"seconds": 1, "milliseconds": 1e-3, "microseconds": 1e-6}
OPERATORS = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul,
             ast.Div: operator.truediv, ast.LShift: operator.lshift}


def read(name):
    return (ROOT / name).read_text()


def folders():
    return [path for path in ROOT.iterdir() if path.is_dir() and path.name != "build"
            and re.match(r"[a-z]", path.name)]


def sources(pattern):
    return [path.relative_to(ROOT).as_posix() for folder in folders()
            for path in sorted(folder.rglob(pattern))]


@functools.cache
def definitions():
    """{name: {file: (type, expression)}} of what has a value where it is declared."""
    found = {}
    for name in [*sources("*.h"), *sources("*.cc"), *sources("*.py")]:
        if re.search(r"_test(ing)?\.|^fuzz/", name):
            continue
        form = r"^(?:constexpr )?()(\w+)(?: = )([^=\n]+?)$" if name.endswith(".py") else \
            r"^\s*(?:static |constexpr )*([\w:<> ]*?)\s*\b(\w+)(?: = |\{)([^;{}=]+?)\}?[;,]"
        for kind, constant, expression in re.findall(form, read(name), flags=re.M):
            found.setdefault(constant, {}).setdefault(name, (kind, expression))
    return found


def evaluate(node):
    if isinstance(node, ast.Constant) and isinstance(node.value, (int, float)):
        return node.value
    if isinstance(node, ast.BinOp):
        return OPERATORS[type(node.op)](evaluate(node.left), evaluate(node.right))
    if isinstance(node, (ast.Name, ast.Attribute)):
        return value_of(node.id if isinstance(node, ast.Name) else node.attr)
    raise ValueError("is no plain number")


def value_of(name):
    file, _, constant = name.rpartition(":")
    values = set()
    for path, (kind, expression) in definitions().get(constant, {}).items():
        if path.endswith(file):
            unit = 1e-3 if constant.endswith("Ms") else DURATION.get(kind.split("::")[-1], 1)
            tree = ast.parse(expression.strip().replace("::", ".").replace("'", ""), mode="eval")
            values.add(evaluate(tree.body) * unit)
    if len(values) != 1:
        raise ValueError(f"has {len(values)} values in the code")
    return values.pop()


def marked_figure_faults(text):
    """Line and fault of each mark that its figure contradicts."""
    for mark in MARK.finditer(text):
        if mark[1] == "given:":
            continue
        line = text.count("\n", 0, mark.start()) + 1
        figures = re.findall(NUMBER + r"(?:[\s-]+(\w+))?", text[:mark.start()][-60:])
        for wanted in mark[2].split(", "):
            name, _, unit = wanted.partition(" ")
            try:
                value = value_of(name)
            except (ValueError, SyntaxError, KeyError) as error:
                yield line, f"{name} {error}"
                continue
            number, own_unit = figures[-1] if figures else ("0", "")
            unit = unit or own_unit
            said = float(number.replace(",", "")) * UNITS.get(unit, UNITS.get(unit.rstrip("s"), 1))
            if abs(said - value) > (.05 if mark[1] == "~" else 1e-9) * value:
                yield line, f"{number} {unit}, but {name} is {value:g}"


def blanked(text, pattern):
    return re.sub(pattern, lambda found: re.sub(r"\S", " ", found[0]), text, flags=re.M | re.S)


def unmarked_figure_faults(text):
    """Line and fault of each figure with a unit and without a mark, outside generated tables
    and code. What a comment in code says counts as text."""
    plain = blanked(text, r"^```.*?^```|<!-- table .*?<!-- end -->|<!--.*?-->|^\t*; [^\n]*$")
    plain = blanked(plain, r"^    [^#\n]*(?:#|$)")
    plain = blanked(plain, r"`[^`\n]*`")
    for figure in FIGURE.finditer(plain):
        if not re.match(r"[^\w<]{0,3}(?:<!-- |\n\t*; )(?:=|~|given:)", text[figure.end():]):
            line = text.count("\n", 0, figure.start()) + 1
            yield line, f"{' '.join(figure[0].split())!r} has no mark"


def conditional_sources():
    """Where the preprocessor chooses, but in the headers that stand in for the device's."""
    return {name for name in [*sources("*.h"), *sources("*.cc")] if not name.startswith("platform/linux/include")
            and re.search(r"^\s*#\s*if", read(name), flags=re.M)}


def claim_faults():
    """Sentences that are true or false by the code, and lists that must be whole."""
    standard = re.search(r"CMAKE_CXX_STANDARD (\d+)", read("CMakeLists.txt"))[1]
    for name in [*DOCUMENTS, "Android.bp", ".ci/run"]:
        for other in set(re.findall(r"[Cc]\+\+(\d\d)", read(name))) - {standard}:
            yield f"{name}: C++{other}, but CMakeLists.txt says {standard}"
    for name in [*DOCUMENTS, *sources("*.h"), *sources("*.cc"), *sources("*.proto")]:
        for word in re.findall(r"(?<!--)\b(?:[Pp]rotocol 2|[Vv]ersion 20)\b", read(name)):
            yield f"{name}: {word!r} is called protocol 20, see docs/architecture.md#words"
    architecture = read("docs/architecture.md")
    if "without a time-out" in " ".join(architecture.split()) and \
            not re.search(r"poll\([^;]*, -1\)", read("reactor/reactor.cc")):
        yield "docs/architecture.md: poll() without a time-out; reactor.cc gives it one"
    listed = re.search(r"`#if` stands (.*?)\n\n", architecture, flags=re.S)
    listed = set(re.findall(r"`([\w/]+\.(?:h|cc))`", listed[1])) if listed else set()
    for name in listed ^ conditional_sources():
        yield f"docs/architecture.md: its list of sources with #if and the code differ in {name}"
    if "no `return f();`" in read("docs/contributing.md"):
        for name in sources("*.cc"):
            for body in re.findall(r"^void [^;{]*\{\n(.*?)^\}", read(name), flags=re.M | re.S):
                if re.search(r"^ +return [\w(*]", body, flags=re.M):
                    yield f"docs/contributing.md: no `return f();`, but {name} has it"
    load = re.search(r"\| load before \| ([\d.]+)", read("docs/performance.md"))
    if "quiet machine" in read("docs/performance.md") and float(load[1]) > .2:
        yield f"docs/performance.md: a quiet machine, with a load of {load[1]}"
    addresses = re.findall(r"<(.*)>", read("packaging/debian/changelog"))
    if "debian/changelog" in read("SECURITY.md") and addresses[0].endswith(".invalid"):
        yield f"SECURITY.md: reports to {addresses[0]}, where nobody is"
    codes = re.search(r"enum ExitCode .*?\};", read("control/status_records.h"), flags=re.S)[0]
    codes = set(re.findall(r"= (\d+),", codes))
    for name, row in ("packaging/man/vantrel.8.scd", r"^\|[\[ ] +(\d+)$"), \
            ("docs/architecture.md", r"^\| (\d+(?:, \d+)*) \|"):
        table = read(name).partition("EXIT STATUS" if name in MAN else "exit status =")[2]
        table = table.partition("\n# " if name in MAN else "\n\n")[0]
        said = set(", ".join(re.findall(row, table, flags=re.M)).split(", "))
        if said != codes:
            yield f"{name}: its exit codes and the code's differ in {said ^ codes}"


def version_faults():
    version = re.search(r"project\(vantrel VERSION ([\d.]+)", read("CMakeLists.txt"))[1]
    for name, form in ("NEWS", r"^vantrel ([\d.]+), \d"), \
            ("packaging/debian/changelog", r"^vantrel \(([\d.]+)-"):
        newest = re.search(form, read(name), flags=re.M)[1]
        if newest != version:
            yield f"{name}: its newest version is {newest}, but CMakeLists.txt says {version}"


def readme_faults():
    readme = read("README.md")
    programs = readme.partition("## The programs")[2].partition("\n## ")[0]
    differing = set(re.findall(r"^\*\*(.*?)\*\*", programs, flags=re.M)) \
        ^ {Path(page).name.split(".")[0] for page in MAN if not page.endswith(".5.scd")}
    table = readme.partition("## The folders")[2].partition("\n## ")[0]
    differing |= {path.split("/")[0] for path in re.findall(r"`([\w/]+)/`", table)} \
        ^ {folder.name for folder in folders()}
    return [f"README.md: the list and what is there differ in {name}" for name in differing]


def link_faults(directory, pattern="**/*.md"):
    for page in sorted(directory.glob(pattern)):
        # Pictures belong to a page wherever it is; other pages may stand elsewhere.
        for target in re.findall(r"!\[[^]]*\]\(([^)#:]+)\)", page.read_text()):
            if not (page.parent / target).exists():
                yield f"{page.relative_to(directory)}: no picture {target}"


def installed_faults(build):
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run(["cmake", "--install", build], check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "DESTDIR": directory})
        return [f"installed: {fault}" for fault in link_faults(Path(directory))]


def main():
    faults = [*claim_faults(), *version_faults(), *readme_faults(), *link_faults(ROOT, "*.md"),
              *link_faults(ROOT / "docs")]
    for name in DOCUMENTS:
        faults += [f"{name}:{line}: {fault}" for line, fault in (
            *marked_figure_faults(read(name)),
            *(unmarked_figure_faults(read(name)) if name in HELD else ()))]
    for build in sys.argv[1:]:
        faults += installed_faults(build)
    print("\n".join(faults), file=sys.stderr)
    return 1 if faults else 0


sys.exit(main())
