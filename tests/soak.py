"""soak.sh load|mixed [--protocol 1|5|20] [--seconds N] [--out DIR]

How daemon, launcher and companion bear what goes on for long or is much. Makes an
internet and a device in namespaces of its own.

load    1000 open connections, 200 of them active for some seconds; 10000 short
        connections one after the other; 10000 name look-ups. Prints what they took.
mixed   Requests, downloads, uploads, datagrams and name look-ups for --seconds, beside
        connections at rest. Memory, descriptors, processor time and delay are sampled
        into DIR/soak.csv and drawn as DIR/soak.svg.

The exit status is 1 when something failed, or a program does not come to rest in the
end, keeps descriptors, or keeps growing.
"""
import argparse
import contextlib
import csv
import json
import pathlib
import re
import statistics
import struct
import subprocess
import sys
import tempfile
import time

from testbed import internet
from testbed.internet import NAME_SERVER
from testbed.load import Load
from testbed.plot import draw
from testbed.processes import descriptors as descriptors_of, end_process, resident_bytes
from testbed.programs import SOURCE_DIR
from testbed.roads import DEVICE_SETTINGS, VantrelRoad, wait_for_rest
from testbed.servers import start_load_server, start_name_server

ROLES = "daemon", "launcher", "companion"
NAMES = 10000
HELD, ACTIVE = 800, 200
REQUEST = {"up": 100, "down": 1024}
# What a mixed load is made of: (kind, options of load.cc).
MIXED = {
    "at rest": ("hold", {"clients": 100}),
    "requests": ("run", {"clients": 40, "pause": 500, **REQUEST}),
    "new connections": ("open", {"clients": 4, "pause": 400, "new": True, **REQUEST}),
    "downloads": ("run", {"clients": 2, "pause": 1000, "up": 0, "down": 2 << 20}),
    "uploads": ("run", {"clients": 2, "pause": 1000, "up": 1 << 20, "down": 1}),
    "datagrams": ("query", {"clients": 10, "pause": 300, "up": 512}),
}
LOOK_UPS_PER_SECOND = 20
SAMPLE_SECONDS = 5
# Above what the middle of a run had; a page here and there is no growth.
MAX_GROWTH, MAX_GROWTH_KIB = 1.1, 1024
MAX_REST_SHARE = .01  # of one processor
# The flows of datagrams last for five minutes, then a tick of the companion ends them.
FLOWS_GONE_SECONDS = 305


class Failures(list):
    def hold(self, is_well, text):
        if not is_well:
            self.append(text)
            print(f"NOT MET: {text}", flush=True)


def start_look_ups(road, *options):
    """NAMES different ones, from the beginning again when need be. Protocol 1 gives all
    answers of a server to the client that wrote last, so there is one then."""
    clients = 1 if road.protocol == "1" else 4
    names = road.dir / "names"
    names.write_text("".join(f"www{number}.example.test A\n" for number in range(NAMES)))
    return subprocess.Popen(road.device.command([
        "dnsperf", "-s", NAME_SERVER, "-d", names, "-c", str(clients), *options]),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def finish_look_ups(process, seconds):
    """(completed, lost, average milliseconds)."""
    out, _ = process.communicate(timeout=seconds)
    found = [re.search(form, out) for form in (
        r"Queries completed: +(\d+)", r"Queries lost: +(\d+)", r"Average Latency \(s\): +([\d.]+)")]
    assert all(found), out
    return int(found[0][1]), int(found[1][1]), float(found[2][1]) * 1e3


def resources(road):
    """{role: (KiB, descriptors)}."""
    return {role: (resident_bytes(pids) // 1024, len(descriptors_of(pids)))
            for role, pids in road.pids().items()}


def describe(used):
    return ", ".join(f"{role} {used[role][0]} KiB and {used[role][1]} descriptors" for role in ROLES)


def exchange(app):
    """Milliseconds of one request, as the server of load.cc has it."""
    begin = time.monotonic()
    app.sendall(struct.pack("=QQ", REQUEST["up"], REQUEST["down"]) + bytes(REQUEST["up"]))
    left = REQUEST["down"]
    while left:
        piece = app.recv(left)
        assert piece, "the connection ended"
        left -= len(piece)
    return (time.monotonic() - begin) * 1e3


@contextlib.contextmanager
def running(make):
    load = make()
    try:
        yield load
    finally:
        load.close()


class Loads:
    """1000 connections, then many short ones, then many look-ups."""

    def __init__(self, road, options, failures):
        self.road, self.failures, self.seconds = road, failures, options.seconds

    def run(self):
        print(f"at rest: {describe(resources(self.road))}")
        self.many_open()
        print(f"closed again: {describe(resources(self.road))}")
        self.many_short()
        print(f"after them: {describe(resources(self.road))}")
        self.many_names()

    @contextlib.contextmanager
    def measured(self, name):
        begin, used = time.monotonic(), self.road.used_seconds()
        yield
        took, after = time.monotonic() - begin, self.road.used_seconds()
        work = ", ".join(f"{role} {after[role] - used[role]:.2f} s" for role in ROLES)
        print(f"{name}: {took:.1f} s, processor time: {work}", flush=True)

    def tell(self, name, result):
        self.failures.hold(result["failures"] == 0, f"{name}: {result['failures']} failed")
        print(f"{name}: {result['exchanges']} requests, "
              f"{result['exchanges'] / result['seconds']:.0f}/s, median "
              f"{result['median_us'] / 1e3:.1f} ms, p99 {result['p99_us'] / 1e3:.1f} ms, "
              f"longest {result['max_us'] / 1e3:.0f} ms")

    def many_open(self):
        name = f"{HELD + ACTIVE} connections, {ACTIVE} active"
        with running(lambda: Load(self.road, "hold", clients=HELD)):
            with self.measured(name), running(lambda: Load(
                    self.road, "run", clients=ACTIVE, seconds=self.seconds, **REQUEST)) as active:
                self.tell(name, json.loads(active.result(self.seconds + 120)))
            print(f"{HELD} open: {describe(resources(self.road))}")
        wait_for_rest(self.road)

    def many_short(self):
        name = "10000 connections, one after the other"
        with self.measured(name), running(lambda: Load(
                self.road, "open", new=True, exchanges=10000, **REQUEST)) as short:
            self.tell(name, json.loads(short.result(600)))
        wait_for_rest(self.road)

    def many_names(self):
        name = f"{NAMES} name look-ups"
        with self.measured(name):
            completed, lost, delay = finish_look_ups(start_look_ups(
                self.road, "-n", "1", "-q", "20"), 300)
        print(f"{name}: {completed} answered, {lost} lost, {delay:.1f} ms on average")
        self.failures.hold((completed, lost) == (NAMES, 0), f"{name}: {lost} lost")


class Soak:
    """A mixed load, and samples of what it costs."""

    FIELDS = ["seconds", *(f"{role} {what}" for what in ("KiB", "descriptors", "percent")
                           for role in ROLES), "kept ms", "new ms"]

    def __init__(self, road, options, failures):
        self.road, self.failures = road, failures
        self.seconds, self.out = options.seconds, options.out
        self.samples = []

    def run(self):
        self.out.mkdir(parents=True, exist_ok=True)
        with contextlib.ExitStack() as stack:
            loads = {name: stack.enter_context(running(lambda kind=kind, more=more: Load(
                self.road, kind, seconds=self.seconds, **more)))
                for name, (kind, more) in MIXED.items()}
            for name, load in loads.items():
                if name != "at rest":
                    load.start()
            look_ups = start_look_ups(self.road, "-l", str(int(self.seconds)),
                                      "-Q", str(LOOK_UPS_PER_SECOND))
            self.sample_all(time.monotonic() + self.seconds)
            self.tell_look_ups(look_ups)
            for name, load in loads.items():
                if name != "at rest":
                    self.tell(name, json.loads(load.result(120)))
        self.check_rest()
        self.check_growth()
        self.draw()

    def sample_all(self, end):
        begin = before = time.monotonic()
        used = self.road.used_seconds()
        kept = self.road.device.connect(*self.road.server)
        with open(self.out / "soak.csv", "w", newline="") as file, kept:
            rows = csv.DictWriter(file, self.FIELDS)
            rows.writeheader()
            while time.monotonic() < end:
                time.sleep(SAMPLE_SECONDS)
                now, was_used, used = time.monotonic(), used, self.road.used_seconds()
                sample = {"seconds": round(now - begin, 1)}
                for role, (memory, descriptors) in resources(self.road).items():
                    share = (used[role] - was_used[role]) / (now - before)
                    sample.update({f"{role} KiB": memory, f"{role} descriptors": descriptors,
                                   f"{role} percent": round(100 * share, 2)})
                before = now
                sample.update(self.delays(kept))
                self.samples.append(sample)
                rows.writerow(sample)
                file.flush()

    def delays(self, kept):
        begin = time.monotonic()
        with self.road.device.connect(*self.road.server) as fresh:
            exchange(fresh)
        new = (time.monotonic() - begin) * 1e3
        return {"kept ms": round(statistics.median(exchange(kept) for _ in range(5)), 2),
                "new ms": round(new, 2)}

    def tell(self, name, result):
        print(f"{name}: {result['exchanges']}, {result['failures']} failed, median "
              f"{result['median_us'] / 1e3:.1f} ms, p99 {result['p99_us'] / 1e3:.1f} ms")
        # Datagrams may be lost.
        if name != "datagrams":
            self.failures.hold(result["failures"] == 0, f"{name}: {result['failures']} failed")

    @staticmethod
    def tell_look_ups(look_ups):
        completed, lost, delay = finish_look_ups(look_ups, 60)
        print(f"name look-ups: {completed}, {lost} lost, {delay:.1f} ms on average")

    def check_rest(self):
        wait_for_rest(self.road)
        time.sleep(FLOWS_GONE_SECONDS)
        used, begin = self.road.used_seconds(), time.monotonic()
        time.sleep(5)
        for role, seconds in self.road.used_seconds().items():
            share = (seconds - used[role]) / (time.monotonic() - begin)
            self.failures.hold(share < MAX_REST_SHARE, f"{role} at rest uses {share:.1%}")
        rest = resources(self.road)
        print(f"before: {describe(self.road.fresh)}\nat rest: {describe(rest)}")
        # The remotes of datagrams, which the daemon remembers.
        for role, more in ("daemon", 2), ("launcher", 0), ("companion", 0):
            self.failures.hold(rest[role][1] <= self.road.fresh[role][1] + more,
                               f"the {role} keeps descriptors")

    def check_growth(self):
        """The last third against the middle one: the first may fill what is kept."""
        third = len(self.samples) // 3
        for role in ROLES:
            middle, last = (statistics.median(sample[f"{role} KiB"] for sample in part)
                            for part in (self.samples[third:2 * third], self.samples[-third:]))
            print(f"{role}: {middle:.0f} KiB in the middle third, {last:.0f} KiB in the last")
            self.failures.hold(last <= max(middle * MAX_GROWTH, middle + MAX_GROWTH_KIB),
                               f"the {role} grows")

    def draw(self):
        panels = [("memory, KiB", "KiB"), ("descriptors", "descriptors"),
                  ("processor, %", "percent")]
        plots = ""
        for number, (label, what) in enumerate(panels):
            lines = ", ".join(
                f'$samples using 1:{self.FIELDS.index(f"{role} {what}") + 1} with lines '
                f'title "{role}"' for role in ROLES)
            plots += f'set ylabel "{label}"\nplot {lines}\n'
        kept = len(self.FIELDS) - 1
        plots += ('set ylabel "delay, ms"\nset logscale y\nset yrange [*:*]\nset xlabel "minutes"\n'
                  f'plot $samples using 1:{kept} with lines title "request", '
                  f'"" using 1:{kept + 1} with lines title "request on a new connection"')
        rows = [[sample["seconds"] / 60, *list(sample.values())[1:]] for sample in (
            {field: sample[field] for field in self.FIELDS} for sample in self.samples)]
        draw(self.out / "soak.svg",
             f"set multiplot layout 4,1\nset lmargin 10\nset yrange [0:*]\n{plots}\nunset multiplot",
             {"samples": rows}, size="760,900")


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[0])
    parser.add_argument("kind", choices=["load", "mixed"])
    parser.add_argument("--protocol", choices=["1", "5", "20"], default="20")
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--out", type=pathlib.Path, default=SOURCE_DIR / "build/soak")
    options = parser.parse_args()
    options.out = options.out.resolve()
    internet.enter()
    failures = Failures()
    servers = [start_load_server(), start_name_server("example.test")]
    with tempfile.TemporaryDirectory() as name, contextlib.closing(VantrelRoad(
            "", pathlib.Path(name) / "road", options.protocol, relayed=True)) as road:
        road.device.run(*DEVICE_SETTINGS)
        wait_for_rest(road)
        road.fresh = resources(road)
        {"load": Loads, "mixed": Soak}[options.kind](road, options, failures).run()
    for server in servers:
        end_process(server)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
