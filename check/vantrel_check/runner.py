"""Runs checks one after the other, each on links and servers of its own."""

import re
import time
import traceback
from typing import NamedTuple

from .checks.streams import reach_server
from .environment import Environment, LinkRefused
from .outcome import Failed, NoHandshake, NoServer, Skipped, Warned
from .registry import CHECKS

OK, FAIL, WARN, SKIP = "ok", "FAIL", "warn", "skip"
# So often in a row, and the companion has gone, or fails at the next link, too.
_MAX_REFUSED_LINKS = 3
_MAX_FAILED_HANDSHAKES = 5


class Result(NamedTuple):
    protocol: int
    name: str
    outcome: str
    reason: str
    cause: str  # the part of the reason that is the same where one fault shows again
    seconds: float
    document: str
    says: str  # what the document says there, in short
    about: str  # what the check is about, which can be something else
    exchange: list  # lines, when something is wrong


class Runner:
    def __init__(self, protocol, link_source, options):
        self._protocol = protocol
        self._link_source = link_source
        self._options = options
        self._refused_links = self._failed_handshakes = 0
        self._no_server = ""  # why checks that need one are left out

    @property
    def serves(self):
        """Whether the companion can do anything at all."""
        return not self._find_trouble()

    def run_all(self, checks):
        """The Results. What shows that the servers can be reached comes first, and is
        told, if nobody asked for it, when they cannot."""
        reach = next(check for check in CHECKS if check.run is reach_server)
        if any(check.needs_server for check in checks):
            result = self.run(reach)
            if reach in checks or self._no_server:
                yield result
        elif reach in checks:
            yield self.run(reach)
        for check in checks:
            if check is not reach:
                yield self.run(check)

    def run(self, check):
        """The Result of one check."""
        hindrance = self._find_hindrance(check)
        if hindrance:
            return self._result(check, SKIP, hindrance)
        env = Environment(self._protocol, self._link_source, self._options)
        env.has_server = not self._no_server
        start = time.monotonic()
        outcome, reason, failure = self._judge(check, env)
        seconds = time.monotonic() - start
        exchange = env.exchange() if outcome in (FAIL, WARN) else []
        env.close()
        return self._result(check, outcome, reason, failure, seconds, exchange)

    def _find_hindrance(self, check):
        if self._protocol not in check.protocols:
            versions = " and ".join(str(number) for number in check.protocols)
            return f"only with protocol {versions}"
        return self._find_trouble(check.needs_server)

    def _find_trouble(self, needs_server=True):
        if self._refused_links >= _MAX_REFUSED_LINKS:
            return "the companion takes no more links"
        if self._failed_handshakes >= _MAX_FAILED_HANDSHAKES:
            return "no handshake comes to an end"
        return self._no_server if needs_server else ""

    def _judge(self, check, env):
        """(outcome, reason, what was raised)"""
        try:
            try:
                check.run(env)
            except (Warned, Skipped):
                env.verify()
                raise
            env.verify()
        except Failed as failure:
            self._count(failure)
            # What was wrong before is often why something else did not come.
            first = next((fault for device in env.devices for fault in device.faults), failure)
            reason = str(failure)
            return FAIL, reason if reason.startswith(str(first)) else f"{first}; {reason}", first
        except Warned as warning:
            return WARN, str(warning), warning
        except Skipped as skipped:
            return SKIP, str(skipped), skipped
        except Exception as error:  # a companion's bytes must not end the checker
            return FAIL, "".join(traceback.format_exception(error)), error
        self._refused_links = self._failed_handshakes = 0
        return OK, "", None

    def _count(self, failure):
        self._refused_links += isinstance(failure, LinkRefused)
        self._failed_handshakes += isinstance(failure, NoHandshake)
        if isinstance(failure, NoServer):
            self._no_server = f"no connection to {self._options.server_address}, see above"

    def _result(self, check, outcome, reason="", failure=None, seconds=0.0, exchange=()):
        rule = getattr(failure, "rule", None) or check.rule
        cause = re.sub(r"\d+", "#", str(failure or reason)).partition(";")[0]
        return Result(self._protocol, check.name, outcome, reason, cause, seconds,
                      rule.document(self._protocol), rule.says, check.rule.says, list(exchange))
