"""Results as lines for people, as JSON lines, and as a JUnit file."""

import json
import sys
import xml.etree.ElementTree as xml
from collections import Counter

from .runner import FAIL, OK, SKIP, WARN


# So many results of one cause are told in full; further failures are only named, and
# further skipped checks counted.
_TOLD_IN_FULL = 5


class TextReport:
    """A line for each check; for a failure what was exchanged and what it should be."""

    def __init__(self):
        self._alike = {}  # (protocol, outcome, cause) -> results, in their order

    def begin(self, protocol, address):
        _say(f"protocol {protocol} over {address}")

    def result(self, result):
        alike = self._alike.setdefault((result.protocol, result.outcome, result.cause), [])
        alike.append(result)
        if len(alike) > _TOLD_IN_FULL and result.outcome != OK:
            if result.outcome != SKIP:
                _say(f"  {result.outcome:4} {result.name:24}  as {alike[0].name}")
            return
        reason = f"  {result.reason}" if result.reason else ""
        _say(f"  {result.outcome:4} {result.name:24}{reason}")
        if result.outcome in (FAIL, WARN):
            self._explain(result)

    @staticmethod
    def _explain(result):
        _say(f"       {result.document}: {result.says}")
        if result.about != result.says:
            _say(f"       This was a check of: {result.about}")
        if result.outcome == FAIL:
            for line in result.exchange:
                _say(f"       | {line}")

    def figure(self, _protocol, name, value, unit):
        _say(f"       {name:52} {value:>10.4g} {unit}")

    def end(self, results):
        for (_, outcome, _), alike in self._alike.items():
            if len(alike) > _TOLD_IN_FULL and outcome != OK:
                _say(f"{outcome} of {len(alike)} checks for one reason, {alike[0].name} is the "
                     f"first: {alike[0].reason}")
        counts = Counter(result.outcome for result in results)
        _say(f"{counts[OK]} ok, {counts[FAIL]} failed, {counts[WARN]} warnings, "
             f"{counts[SKIP]} skipped")


def _say(text):
    """A line, also where a part of it comes from outside: nothing in it may steer the
    terminal. The trace of a fault of our own has several."""
    print("\n".join(map(escape, text.splitlines())), flush=True)


def escape(line):
    """With the codes of what has no shape of its own."""
    return "".join(char if char.isprintable() else char.encode("unicode_escape").decode()
                   for char in line)


class JsonReport:
    """One object a line: a check has "check", a figure has "figure"."""

    def begin(self, protocol, address):
        pass

    def result(self, result):
        self._print({"protocol": result.protocol, "check": result.name,
                     "result": result.outcome.lower(), "reason": result.reason,
                     "seconds": round(result.seconds, 3), "document": result.document,
                     "says": result.says, "about": result.about, "exchange": result.exchange})

    def figure(self, protocol, name, value, unit):
        self._print({"protocol": protocol, "figure": name, "value": value, "unit": unit})

    def end(self, results):
        pass

    @staticmethod
    def _print(record):
        json.dump(record, sys.stdout)
        print(flush=True)


def write_junit(path, results):
    """A suite for each protocol; warnings are passed cases with their text."""
    root = xml.Element("testsuites")
    for protocol in dict.fromkeys(result.protocol for result in results):
        own = [result for result in results if result.protocol == protocol]
        counts = Counter(result.outcome for result in own)
        suite = xml.SubElement(root, "testsuite", name=f"protocol {protocol}", tests=str(len(own)),
                               failures=str(counts[FAIL]), skipped=str(counts[SKIP]))
        for result in own:
            case = xml.SubElement(suite, "testcase", classname=f"protocol{protocol}",
                                  name=result.name, time=f"{result.seconds:.3f}")
            if result.outcome == FAIL:
                failure = xml.SubElement(case, "failure", message=_printable(result.reason))
                failure.text = _printable("\n".join(
                    [f"{result.document}: {result.says}", *result.exchange]))
            elif result.outcome == SKIP:
                xml.SubElement(case, "skipped", message=_printable(result.reason))
            elif result.outcome == WARN:
                xml.SubElement(case, "system-out").text = _printable(result.reason)
    xml.indent(root)
    xml.ElementTree(root).write(path, encoding="utf-8", xml_declaration=True)


def _printable(text):
    """XML has no way to write most control characters."""
    return "".join(char if char.isprintable() or char == "\n" else "?" for char in text)
