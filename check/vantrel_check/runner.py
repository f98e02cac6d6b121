"""Runs checks one after the other, each on links and servers of its own."""

import time
import traceback
from typing import NamedTuple

from .environment import Environment, LinkRefused
from .outcome import Failed, Skipped, Warned

OK, FAIL, WARN, SKIP = "ok", "FAIL", "warn", "skip"
# A companion that cannot be reached so often in a row has gone.
_MAX_REFUSED_LINKS = 3


class Result(NamedTuple):
    protocol: int
    name: str
    outcome: str
    reason: str
    seconds: float
    document: str
    says: str
    exchange: list  # lines, when something is wrong


class Runner:
    def __init__(self, protocol, link_source, options):
        self._protocol = protocol
        self._link_source = link_source
        self._options = options
        self._refused_links = 0

    def run(self, check):
        """The Result of one check."""
        if self._protocol not in check.protocols:
            versions = " and ".join(str(number) for number in check.protocols)
            return self._result(check, SKIP, f"only with protocol {versions}")
        if self._refused_links >= _MAX_REFUSED_LINKS:
            return self._result(check, SKIP, "the companion takes no more links")
        env = Environment(self._protocol, self._link_source, self._options)
        start = time.monotonic()
        outcome, reason = self._judge(check, env)
        seconds = time.monotonic() - start
        exchange = env.trace.lines() if outcome in (FAIL, WARN) else []
        env.close()
        return self._result(check, outcome, reason, seconds, exchange)

    def _judge(self, check, env):
        try:
            try:
                check.run(env)
            except (Warned, Skipped):
                env.verify()
                raise
            env.verify()
        except LinkRefused as refused:
            self._refused_links += 1
            return FAIL, str(refused)
        except Failed as failure:
            # What was wrong before is often why something else did not come.
            faults = [fault for device in env.devices for fault in device.faults]
            return FAIL, "; ".join(dict.fromkeys([*faults[:1], str(failure)]))
        except Warned as warning:
            return WARN, str(warning)
        except Skipped as skipped:
            return SKIP, str(skipped)
        except Exception as error:  # a companion's bytes must not end the checker
            return FAIL, "".join(traceback.format_exception(error))
        self._refused_links = 0
        return OK, ""

    def _result(self, check, outcome, reason="", seconds=0.0, exchange=()):
        return Result(self._protocol, check.name, outcome, reason, seconds,
                      check.document(self._protocol), check.says, list(exchange))
