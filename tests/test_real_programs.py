"""Programs as users run them, by three applications over the tunnel and over a plain
cable: the same bytes, no error, and every stream charged to the application that made it.
"""

import collections
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time
from typing import NamedTuple

import pytest

from testbed import namespaces
from testbed.device import PACKAGES
from testbed.programs import BIN_DIR, sanitizer_reports
from testbed.roads import CableRoad, VantrelRoad
from testbed.servers import SERVERS, Servers
from testbed.waiting import PATIENCE
from tests.programs import ADDRESSES, FUNCTIONS, NEEDED, PROGRAMS

SECONDS = 20 * PATIENCE  # in which every program has ended
PROTOCOLS = ["20", "5"]
# A stream's owner, as the daemon has found it and as the companion was told. It hears
# the name of a UID after the first stream, and leaves lines out when there are many.
OWNERS = {
    "daemon.log": re.compile(
        r"Establishing a new TCP stream to: ([\d.]+):\d+ \(uid=(\d+)\) \(package=([^)]*)"),
    "companion.out": re.compile(r"connect to ([\d.]+):\d+ \(uid (\w+)(?:, ([^)]*))?"),
}
NOBODY = "4294967295", "unknown"


class Result(NamedTuple):
    seconds: float
    printed: list  # by each application
    faults: list  # what went wrong, in words
    streams: int  # that the daemon has told of


class Roads:
    """The roads of this run: each is made when it is needed first, and anew when one of
    its programs has ended."""

    def __init__(self, base):
        self.base = base
        self.servers = Servers(base)
        self._roads = {}
        # As the cable's. With larger segments a server's kernel keeps back the last
        # piece of an answer, which is then never a whole one.
        subprocess.run("ip link set lo mtu 1500".split(), check=True)

    def run(self, program, protocol=None, bin_dir=BIN_DIR):
        """The result of |program| over that protocol or, without one, over the cable."""
        for name in program.servers.split():
            self.servers.start(name)
        key = protocol, program.slow, bin_dir
        if key not in self._roads:
            self._roads[key] = self._make(*key)
        road = self._roads[key]
        result = run_on(road, program, self.base)
        ended = [role for role in road.programs() if road.process(role).poll() is not None]
        if ended:
            result.faults.append(f"ended: {' '.join(ended)}")
            self._roads.pop(key).close()
        return result

    def _make(self, protocol, slow, bin_dir):
        directory = pathlib.Path(tempfile.mkdtemp(dir=self.base))
        directory.chmod(0o755)
        if protocol:
            road = VantrelRoad("tunnel", directory, protocol, bin_dir=bin_dir,
                               shape="rate=2Mbit,delay=30ms" if slow else None)
        else:
            road = CableRoad("cable", directory, rate="2mbit" if slow else None)
        # Some clients do not start for a user without a name.
        names = directory / "passwd"
        names.write_text(pathlib.Path("/etc/passwd").read_text() + "".join(
            f"app{uid}:x:{uid}:{uid}::/:/bin/sh\n" for uid in ADDRESSES if uid))
        road.device.run("mount", "--bind", names, "/etc/passwd")
        return road

    def close(self):
        for road in self._roads.values():
            road.close()
        self.servers.close()


def run_on(road, program, base):
    with tempfile.TemporaryDirectory(dir=base) as name:
        directory = pathlib.Path(name)
        directory.chmod(0o755)
        told = {log: len(read(road.dir / log)) for log in OWNERS}
        begin = time.monotonic()
        applications = [Application(road.device, program, uid, directory / str(uid), base)
                        for uid in program.applications]
        for application in applications:
            application.wait(begin + SECONDS)
        seconds = time.monotonic() - begin
        faults = [fault for application in applications for fault in application.faults()]
        lines = {log: read(road.dir / log)[length:] for log, length in told.items()}
        for log in OWNERS:
            faults += wrong_owners(log, lines[log], program.ends_early)
        return Result(seconds, [application.printed() for application in applications], faults,
                      len(OWNERS["daemon.log"].findall(lines["daemon.log"])))


class Application:
    """What |program| does as |uid|, in a new |directory|."""

    def __init__(self, device, program, uid, directory, base):
        self.uid, self.dir = uid, directory
        directory.mkdir()
        number = list(ADDRESSES).index(uid)
        (directory / "big").write_bytes(bytes([number, *range(256)] * 1168))
        os.chown(directory, uid, uid)
        environment = {
            **os.environ, "LC_ALL": "C", "HOME": str(directory), "HOST": ADDRESSES[uid],
            "SERVERS": str(base), "BIG": str(directory / "big"), "N": str(number),
            "ID": f"{device.dir.name}-{directory.parent.name}-{number}"}
        with open(directory / "out", "wb") as out, open(directory / "err", "wb") as err:
            self.process = subprocess.Popen(
                device.command(["bash", "-euo", "pipefail", "-c",
                                f'cd "$HOME"; {FUNCTIONS}{program.script}'], uid),
                env=environment, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                start_new_session=True)

    def wait(self, end):
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(max(0, end - time.monotonic()))
        # With all that it has started; there may be nothing left.
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()

    def printed(self):
        return read(self.dir / "out")

    def faults(self):
        if self.process.returncode == 0:
            return []
        ended = "not ended" if self.process.returncode < 0 else "failed"
        return [f"application {self.uid} has {ended}: {read(self.dir / 'err')[-500:]}"]


def read(path):
    return path.read_text(errors="replace") if path.exists() else ""


def wrong_owners(log, lines, most_of_nobody):
    """Of the streams in |lines|, those that are not charged to who has that address; of
    each address so many may be charged to nobody."""
    owners = {address: (str(uid), PACKAGES[uid]) for uid, address in ADDRESSES.items()}
    wrong = collections.Counter()
    for address, uid, name in OWNERS[log].findall(lines):
        is_unnamed = log == "companion.out" and uid == owners[address][0] and not name
        if (uid, name) != owners[address] and not is_unnamed:
            wrong[address, uid, name] += 1
    return [f"{log}: {count} streams to {address} of {owners[address]} are charged to {uid} {name}"
            for (address, uid, name), count in wrong.items()
            if uid not in NOBODY or count > most_of_nobody]


def troubles(result, cable):
    """How |result| differs from the cable's."""
    found = list(result.faults)
    for ours, theirs in zip(result.printed, cable.printed):
        if ours != theirs:
            found.append(f"printed {ours[-500:]!r} in place of {theirs[-500:]!r}")
    return found


def has_streams(program):
    return any(SERVERS[name].port.startswith("tcp") for name in program.servers.split())


def cell(result, cable):
    found = troubles(result, cable)
    return (f"{result.seconds:.2f} s ({result.seconds / cable.seconds:.1f})"
            f"{f', {len(found)} faults' if found else ''}")


@pytest.fixture(scope="module")
def all_roads():
    if not namespaces.has_root():
        pytest.skip("needs root: a user namespace has one UID only")
    missing = [name for name in NEEDED if not shutil.which(name)]
    if missing:
        pytest.skip(f"not installed, scripts/setup.sh real does it: {' '.join(missing)}")
    # Not the directory of pytest, which other users cannot enter.
    with tempfile.TemporaryDirectory(prefix="vantrel-") as name:
        base = pathlib.Path(name)
        base.chmod(0o755)
        with contextlib.closing(Roads(base)) as made:
            yield made
        reports = sanitizer_reports(base)
    assert not reports, reports


@pytest.fixture(scope="module")
def table(request):
    """The rows are printed at the end: seconds, and how many times the cable's."""
    before = request.config.getoption("before")
    rows = {}
    yield rows
    if not rows:
        return
    columns = ["cable"] + [f"protocol {protocol}{when}" for protocol in PROTOCOLS
                           for when in ([" before", ""] if before else [""])]
    lines = [["program", *columns], ["---"] * (len(columns) + 1),
             *([name, *cells] for name, cells in rows.items())]
    request.config.closing_lines += [f"| {' | '.join(cells)} |" for cells in lines]


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda program: program.name)
def test_over_tunnel_and_cable(all_roads, table, request, program):
    before = request.config.getoption("before")
    cable = all_roads.run(program)
    assert not cable.faults
    assert all(cable.printed)
    row = table[program.name] = [f"{cable.seconds:.2f} s"]
    results = {}
    for protocol in PROTOCOLS:
        if before:
            row.append(cell(all_roads.run(program, protocol, pathlib.Path(before)), cable))
        results[protocol] = all_roads.run(program, protocol)
        row.append(cell(results[protocol], cable))
    for protocol, result in results.items():
        if found := troubles(result, cable):
            pytest.fail("\n".join([f"over protocol {protocol}:", *found]), pytrace=False)
        assert result.streams >= len(program.applications) * has_streams(program)
        # Not below the time that processes take to start on a busy machine.
        if program.most_times:
            assert result.seconds < program.most_times * max(cable.seconds, 0.2), protocol
