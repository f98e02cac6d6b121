"""devices.sh --base-bin DIR [--bin-dir DIR] [--with "OPTION..."]... [--runs N]

What a companion costs that serves 40 devices of 25 active streams each: processor time
and memory, beside the companion in --base-bin, in one run. Each --with is one more
series of runs of this companion with these options. All series take turns; the figures
are medians. Both have the bound that --bound gives them, as ratios to the base's;
the exit status is 1 when it does not hold. Needs root.
"""
import argparse
import collections
import pathlib
import select
import shlex
import socket
import statistics
import struct
import subprocess
import sys
import tempfile

from testbed import internet
from testbed.internet import NETWORK, SERVER_ADDRESS
from testbed.processes import end_process, processor_seconds
from testbed.programs import BIN_DIR
from testbed.servers import LOAD_PORT, start_load_server
from testbed.waiting import wait_until

DEVICES, STREAMS, EXCHANGES = 40, 25, 40
APPLICATIONS = 5  # of each device
UP, DOWN = 1000, 16384  # bytes of one exchange
CONNECT, DATA, ACKNOWLEDGEMENT = 1, 3, 6
REQUEST = struct.pack("=QQ", UP, DOWN) + bytes(UP)


class Device:
    """Its streams send a request, and the next one when they have got the answer."""

    def __init__(self, path):
        self.link = socket.socket(socket.AF_UNIX)
        self.link.connect(path)
        self.left = STREAMS * EXCHANGES
        self._received = b""
        self._got = collections.Counter()
        self._asked = collections.Counter()
        self._waiting = b"".join(
            struct.pack(">BI4sHH", CONNECT, n, socket.inet_aton(SERVER_ADDRESS), LOAD_PORT,
                        10100 + n % APPLICATIONS) for n in range(STREAMS))
        for number in range(STREAMS):
            self._ask(number)
        self.link.setblocking(False)

    def _ask(self, number):
        self._asked[number] += 1
        self._waiting += struct.pack(">BIH", DATA, number, len(REQUEST)) + REQUEST

    def events(self):
        return select.POLLIN | (select.POLLOUT if self._waiting else 0)

    def handle(self):
        if self._waiting:
            try:
                self._waiting = self._waiting[self.link.send(self._waiting):]
            except BlockingIOError:
                pass
        try:
            self._received += self.link.recv(1 << 18)
        except BlockingIOError:
            return
        view, begin = memoryview(self._received), 0
        while len(view) - begin >= 7:
            kind, number = struct.unpack_from(">BI", view, begin)
            assert kind in (DATA, ACKNOWLEDGEMENT), kind
            size = 5
            if kind == DATA:
                count, = struct.unpack_from(">H", view, begin + 5)
                size = 7 + count
                if begin + size > len(view):
                    break
                self._take(number, count)
            begin += size
        view.release()
        self._received = self._received[begin:]

    def _take(self, number, count):
        self._got[number] += count
        if self._got[number] < self._asked[number] * DOWN:
            return
        self.left -= 1
        if self._asked[number] < EXCHANGES:
            self._ask(number)


def run_devices(path):
    """The links stay, as they are part of what is measured."""
    links = [Device(path) for _ in range(DEVICES)]
    active = {device.link.fileno(): device for device in links}
    poll = select.poll()
    for fd in active:
        poll.register(fd)
    while active:
        for fd, device in active.items():
            poll.modify(fd, device.events())
        ready = poll.poll(10_000)
        assert ready, "nothing moves any more"
        for fd, _ in ready:
            device = active[fd]
            device.handle()
            if device.left == 0:
                poll.unregister(fd)
                del active[fd]
    return links


def run(program, options):
    """(processor seconds, bytes of memory at most) of one companion."""
    with tempfile.TemporaryDirectory() as directory:
        log = pathlib.Path(directory) / "log"
        with open(log, "wb") as output:
            process = subprocess.Popen(
                [program, "--protocol", "1", "--listen", f"unix:{directory}/link",
                 "--allow", NETWORK, *options], stdout=output, stderr=output)
        try:
            wait_until(lambda: "listening on" in log.read_text(), "the companion")
            before = processor_seconds([process.pid])
            links = run_devices(f"{directory}/link")
            used = processor_seconds([process.pid]) - before
            status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
            peak = next(line for line in status.splitlines() if line.startswith("VmHWM"))
            for device in links:
                device.link.close()
            return used, int(peak.split()[1]) * 1024
        finally:
            end_process(process)


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[1])
    parser.add_argument("--bin-dir", type=pathlib.Path, default=BIN_DIR)
    parser.add_argument("--base-bin", type=pathlib.Path, required=True)
    parser.add_argument("--with", dest="more", action="append", default=[], metavar="OPTIONS")
    parser.add_argument("--bound", type=float, default=1.05)
    parser.add_argument("--runs", type=int, default=7)
    return parser.parse_args()


def main():
    options = parse_options()
    internet.enter()
    server = start_load_server()
    name = "vantrel-companion"
    series = {"base": (options.base_bin.resolve() / name, [])}
    for words in ["", *options.more]:
        series[f"this {words}".strip()] = (options.bin_dir.resolve() / name, shlex.split(words))
    results = collections.defaultdict(list)
    try:
        for _ in range(options.runs):
            for what, (program, words) in series.items():
                results[what].append(run(program, words))
    finally:
        end_process(server)
        server.stdout.close()
    seconds, memory = zip(*results["base"])
    base = statistics.median(seconds), statistics.median(memory)
    print(f"base: {base[0]:.3f} s, {base[1] / 1e6:.1f} MB")
    holds = True
    for what in list(series)[1:]:
        used, memory = (statistics.median(values) / of
                        for values, of in zip(zip(*results[what]), base))
        is_met = used <= options.bound and memory <= options.bound
        holds = holds and is_met
        print(f"{what}: processor time {used:.3f}, memory {memory:.3f} of that, at most "
              f"{options.bound} {'ok' if is_met else 'NOT MET'}")
    return 0 if holds else 1


if __name__ == "__main__":
    sys.exit(main())
