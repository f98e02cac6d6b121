"""Results as lines for people, as JSON lines, and as a JUnit file."""

import json
import sys
import xml.etree.ElementTree as xml
from collections import Counter

from .runner import FAIL, OK, SKIP, WARN


class TextReport:
    """A line for each check; for a failure what was exchanged and what it should be."""

    def begin(self, protocol, address):
        print(f"protocol {protocol} over {address}", flush=True)

    def result(self, result):
        reason = f"  {result.reason}" if result.reason else ""
        print(f"  {result.outcome:4} {result.name:24}{reason}", flush=True)
        if result.outcome not in (FAIL, WARN):
            return
        print(f"       {result.document}: {result.says}")
        if result.outcome == FAIL:
            for line in result.exchange:
                print(f"       | {line}")

    def figure(self, _protocol, name, value, unit):
        print(f"       {name:52} {value:>10.4g} {unit}", flush=True)

    def end(self, results):
        counts = Counter(result.outcome for result in results)
        print(f"{counts[OK]} ok, {counts[FAIL]} failed, {counts[WARN]} warnings, "
              f"{counts[SKIP]} skipped")


class JsonReport:
    """One object a line: a check has "check", a figure has "figure"."""

    def begin(self, protocol, address):
        pass

    def result(self, result):
        self._print({"protocol": result.protocol, "check": result.name,
                     "result": result.outcome.lower(), "reason": result.reason,
                     "seconds": round(result.seconds, 3), "document": result.document,
                     "says": result.says, "exchange": result.exchange})

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
