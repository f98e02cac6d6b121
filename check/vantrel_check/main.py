"""The command line of vantrel-check."""

import argparse
import fnmatch
import os
import re
import sys

from . import checks  # noqa: F401 registers them
from .environment import Environment, LinkRefused, LinkSource
from .figures import measure, memory
from .links import LinkAddress, LinkError
from .outcome import Failed
from .registry import ALL, CHECKS
from .report import escape, JsonReport, TextReport, write_junit
from .runner import FAIL, Runner
from .servers import unused_endpoint

FIGURES = "figures"
EXIT_FAILED, EXIT_USAGE = 1, 2
_MAX_TIMEOUT = 3600


def _seconds(text):
    try:
        seconds = float(text)
    except ValueError:
        seconds = 0
    if not 0 < seconds < _MAX_TIMEOUT:
        raise argparse.ArgumentTypeError(f"'{text}' is no number of seconds below {_MAX_TIMEOUT}")
    return seconds


def _parser(version):
    parser = argparse.ArgumentParser(
        prog="vantrel-check",
        description="Plays the device against a companion and judges what it does.")
    parser.add_argument("--version", action="version", version=f"vantrel-check {version}")
    parser.add_argument("links", metavar="LINK", nargs="*",
                        help="unix:PATH, tcp:HOST:PORT or rfcomm:ADDRESS/CHANNEL; with "
                        "--protocol all one for all, or one for each protocol")
    parser.add_argument("--protocol", choices=["1", "5", "20", "all"], default="20",
                        help="what the companion speaks; 20 unless given")
    parser.add_argument("--listen", action="store_true",
                        help="wait at LINK for a companion that connects by itself, again after "
                        "each link; rfcomm:CHANNEL then")
    parser.add_argument("--header", action="store_true",
                        help="the companion sends the 24-byte connection header first")
    parser.add_argument("--only", metavar="NAME", nargs="+", action="extend",
                        help="only these checks; a name may have * in it, and 'figures' is one")
    parser.add_argument("--fail-fast", action="store_true", help="stop at the first failure")
    parser.add_argument("--list", action="store_true", help="print all checks and exit")
    parser.add_argument("--server-address", metavar="ADDRESS", default="127.0.0.1",
                        help="IPv4 address of this machine, where the companion reaches the "
                        "servers that this program brings; 127.0.0.1 unless given")
    parser.add_argument("--timeout", metavar="SECONDS", type=_seconds, default=10.0,
                        help="how long an answer may take; 10 unless given")
    parser.add_argument("--pid", type=int, help="the companion's process, to measure its memory")
    parser.add_argument("--json", action="store_true", help="print JSON, one object a line")
    parser.add_argument("--junit", metavar="FILE", help="write the results there, too")
    return parser


def _selected(names):
    """The checks and whether to measure. An unknown name is an error."""
    if not names:
        return CHECKS, True
    known = [check.name for check in CHECKS] + [FIGURES]
    for name in names:
        if not fnmatch.filter(known, name):
            raise LinkError(f"no check is called '{name}', see --list")
    chosen = {name for pattern in names for name in fnmatch.filter(known, pattern)}
    return [check for check in CHECKS if check.name in chosen], FIGURES in chosen


def _print_list():
    for check in CHECKS:
        versions = ",".join(str(number) for number in check.protocols)
        print(f"{check.name:26} {versions:7} {check.rule.says}")
    print(f"{FIGURES:26} {'1,5,20':7} Throughput, latency, fairness, memory; not judged.")
    return 0


def _links(options):
    """(protocol, address) each."""
    protocols = ALL if options.protocol == "all" else (int(options.protocol),)
    texts = options.links
    if len(texts) not in {1, len(protocols)}:
        raise LinkError("give one LINK" + (", or three" if len(protocols) > 1 else ""))
    texts = texts if len(texts) > 1 else texts * len(protocols)
    return [(protocol, LinkAddress(text, options.listen))
            for protocol, text in zip(protocols, texts)]


def _measure(env, protocol, report):
    try:
        for name, value, unit in measure(env):
            report.figure(protocol, name, value, unit)
    except (Failed, OSError) as error:
        _complain(f"figures of protocol {protocol}: {error}")
    finally:
        env.close()


def _judge(options, chosen, measures, report):
    """The Results, each of which it has told."""
    results = []
    for protocol, address in _links(options):
        source = LinkSource(address, options.listen, options.timeout)
        # A wrong address is no fault of the companion.
        source.open().close()
        report.begin(protocol, address)
        runner = Runner(protocol, source, options)
        for result in runner.run_all(chosen):
            results.append(result)
            report.result(result)
            if options.fail_fast and result.outcome == FAIL:
                return results
        if measures and runner.serves:
            _measure(Environment(protocol, source, options), protocol, report)
        source.close()
    return results


def _run(options):
    report = JsonReport() if options.json else TextReport()
    chosen, measures = _selected(options.only)
    if not re.fullmatch(r"\d+(\.\d+){3}", options.server_address):
        raise LinkError(f"not an IPv4 address: '{options.server_address}'")
    try:
        unused_endpoint(options.server_address)
    except OSError as error:
        raise LinkError(f"--server-address {options.server_address}: {error.strerror}") from None
    # An OSError, where no such process is, or no file can be.
    memory(options.pid)
    if options.junit:
        open(options.junit, "ab").close()
    results = _judge(options, chosen, measures, report)
    report.end(results)
    if options.junit:
        write_junit(options.junit, results)
    return EXIT_FAILED if any(result.outcome == FAIL for result in results) else 0


def _parse(version):
    options = _parser(version).parse_args()
    # --only takes all words up to the next option, also a link behind them. No
    # check has a colon in its name, and every link has.
    words = options.only or []
    options.links += [word for word in words if ":" in word]
    options.only = [word for word in words if ":" not in word]
    return options


def _complain(text):
    print(f"vantrel-check: {escape(text)}", file=sys.stderr)


def main(version):
    # Names may have letters that the terminal's encoding has not.
    sys.stdout.reconfigure(errors="backslashreplace")
    options = _parse(version)
    try:
        return _print_list() if options.list else _run(options)
    except BrokenPipeError:  # nobody reads any more, nor what Python still holds
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except (LinkError, LinkRefused) as error:
        _complain(str(error))
    except OSError as error:
        _complain((f"{error.filename}: " if error.filename else "") + str(error.strerror))
    except KeyboardInterrupt:
        pass
    return EXIT_USAGE
