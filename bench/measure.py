"""measure.py [--mode quick|full] [--only WORD]... [--base-bin DIR --base NAME] OUT.json

The end-to-end measurements, and the micro benchmarks after them. Makes an internet
and devices in namespaces of its own, which needs root. Every measurement goes over
all roads (testbed/roads.py) before it is repeated, so that what else the machine does falls
on all of them. One that fails is said and left out, and makes the exit status 1.
Writes all values to OUT.json, which report.py turns into tables and
plots. With --base the programs in DIR are measured beside ours; --only takes the
measurements whose names have one of the words in them.
"""
import argparse
import contextlib
import datetime
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

from testbed import internet
from testbed.load import Load
from testbed.processes import Missing, end_process, resident_bytes
from testbed.programs import SOURCE_DIR
from testbed.roads import DEVICE_SETTINGS, CableRoad, ProxyRoad, SshRoad, VantrelRoad, wait_for_rest
from testbed.servers import LOAD_PROGRAM, start_load_server

REQUEST = {"up": 100, "down": 1024}
IDLE_CONNECTIONS = 1000
SLOW = "rate=2Mbit,delay=30ms"
DELAYS_MS = [1, 2, 5, 10, 20, 50, 100]
# 20 times what a stream has in flight, so that the last answer hardly counts.
WINDOWS = 20 * 8 * 4096
MODES = {"quick": {"seconds": 0.3, "repeats": 1, "micro_seconds": 0.02},
         "full": {"seconds": 1, "repeats": 3, "micro_seconds": 0.1}}


class Results:
    """{(measure, road, figure): all its values}; a figure's name ends in its unit."""

    def __init__(self, path, about):
        self.values = {}
        self.has_failed = False
        self._path = path
        self._about = about
        self._begin = time.monotonic()

    def save(self):
        """After every step, so that no later one can lose what is measured."""
        results = [{"measure": measure, "road": road, "figure": figure, "values": values}
                   for (measure, road, figure), values in self.values.items()]
        minutes = round((time.monotonic() - self._begin) / 60, 1)
        self._path.write_text(json.dumps({**self._about, "minutes": minutes,
                                          "results": results}, indent=1))

    def add(self, measure, road, figures):
        for figure, value in figures.items():
            self.values.setdefault((measure, road, figure), []).append(value)

    def take(self, measure, road, action, *args):
        """Adds what |action| returns for the road."""
        with self.step(f"{measure}: {road.name}"):
            self.add(measure, road.name, action(road, *args))

    @contextlib.contextmanager
    def step(self, name):
        """One that fails is said and left out."""
        progress(name)
        try:
            yield
        except (AssertionError, OSError, subprocess.SubprocessError) as fault:
            self.has_failed = True
            print(f"\nfailed: {name}: {fault}", file=sys.stderr)
        self.save()


def progress(text):
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


# What one road is asked to do. Each returns {figure: value}.

def run_load(road, kind, seconds, **options):
    return run_load_and_count(road, kind, seconds, **options)[0]


def run_load_and_count(road, kind, seconds, **options):
    """Its result, and {role: the processor seconds that it cost}."""
    load = Load(road, kind, seconds=seconds, **options)
    try:
        before = road.used_seconds()
        load.start()
        result = json.loads(load.result(seconds + 60))
    finally:
        load.close()
    wait_for_rest(road)
    return result, {role: used - before[role] for role, used in road.used_seconds().items()}


def bulk(road, seconds, direction, streams):
    unit = max(2 ** 26 // streams, 2 ** 18)
    sizes = {"up": 0, "down": 1, direction: unit}
    result, used = run_load_and_count(road, "run", seconds, clients=streams, **sizes)
    moved = result["exchanges"] * unit
    figures = {f"{role} s/GB": used[role] / moved * 1e9 for role in used} if moved else {}
    return {"MB/s": moved / result["seconds"] / 1e6, "failures": result["failures"], **figures}


def requests(road, seconds, clients=1, **options):
    kind = "open" if "new" in options else "run"
    result = run_load(road, kind, seconds, clients=clients, **REQUEST, **options)
    return {"requests/s": result["exchanges"] / result["seconds"],
            "median us": result["median_us"], "p99 us": result["p99_us"],
            "failures": result["failures"]}


def requests_beside_bulk(road, seconds):
    load = Load(road, "run", seconds=seconds + 1, up=0, down=2 ** 20)
    try:
        load.start()
        figures = requests(road, seconds)
        result = json.loads(load.result(90))
    finally:
        load.close()
    return {**figures, "bulk MB/s": result["exchanges"] * 2 ** 20 / result["seconds"] / 1e6}


def requests_beside_idle(road, seconds):
    """On a road that has carried nothing yet also what a connection costs in memory:
    later the programs use again what earlier loads have left."""
    resident = {role: resident_bytes(pids) for role, pids in road.pids().items()}
    idle = Load(road, "hold", clients=IDLE_CONNECTIONS, **REQUEST)
    try:
        memory = {f"{role} B/connection":
                  (resident_bytes(pids) - resident[role]) / IDLE_CONNECTIONS
                  for role, pids in road.pids().items()}
        figures = requests(road, seconds)
    finally:
        idle.close()
    wait_for_rest(road)
    if road.is_fresh:
        figures.update(memory)
        road.is_fresh = False
    return figures


def datagrams(road, seconds, clients):
    result, used = run_load_and_count(road, "query", seconds, clients=clients, up=64)
    return {"queries/s": result["exchanges"] / result["seconds"],
            "median us": result["median_us"], "failures": result["failures"],
            **{f"{role} us/query": used[role] / result["exchanges"] * 1e6 for role in used}}


def answers(road, seconds, size):
    """Of several pieces, on a kept connection."""
    result = run_load(road, "run", seconds, up=100, down=size)
    return {"median us": result["median_us"], "p99 us": result["p99_us"],
            "failures": result["failures"]}


def burst(road, count):
    """Connections made all at once; those that got their answer in 10 s."""
    result = run_load(road, "open", 0, clients=count, **REQUEST)
    return {f"of {count}": result["exchanges"], "last ms": result["max_us"] / 1000}


def burst_beside(road, _seconds):
    """What a kept connection sees of 100 that are made all at once."""
    kept = Load(road, "run", seconds=1, **REQUEST)
    try:
        kept.start()
        time.sleep(0.3)
        run_load(road, "open", 0, clients=100, **REQUEST)
        result = json.loads(kept.result(60))
    finally:
        kept.close()
    return {"longest ms": result["max_us"] / 1000}


def at_rest(road, _seconds):
    """Before anything else: memory, and work where there is nothing to do."""
    wait_for_rest(road)
    before = road.used_seconds()
    time.sleep(1)
    used = road.used_seconds()
    return {**{f"{role} resident KiB": resident_bytes(pids) / 1024
               for role, pids in road.pids().items()},
            **{f"{role} ms/s at rest": (used[role] - before[role]) * 1000 for role in used}}


def link_bytes(road, _seconds):
    """What crosses the link, both ways, beside each 100 bytes of the applications."""
    figures = {}
    for name, kind, options in [("bulk down", "open", {"up": 0, "down": 2 ** 24}),
                                ("bulk up", "open", {"up": 2 ** 24, "down": 1}),
                                ("requests, new", "open", REQUEST),
                                ("datagrams of 64", "query", {"up": 64, "down": 64})]:
        before = road.link_bytes()
        result = run_load(road, kind, 0, **options)
        payload = (options["up"] + options["down"] + 16 * (kind == "open")) * result["exchanges"]
        figures[name + ", %"] = ((road.link_bytes() - before) / payload - 1) * 100
    return figures


def slow_link(road, direction):
    """A request every now and then, alone and beside a stream that fills the link."""
    alone = requests(road, 2)
    sizes = {"up": 0, "down": 1, direction: 2 ** 15}
    load = Load(road, "run", seconds=6, **sizes)
    try:
        load.start()
        beside = requests(road, 4)
        result = json.loads(load.result(90))
    finally:
        load.close()
    return {"alone median ms": alone["median us"] / 1000,
            "beside median ms": beside["median us"] / 1000,
            "beside p99 ms": beside["p99 us"] / 1000,
            "bulk kB/s": result["exchanges"] * 2 ** 15 / result["seconds"] / 1e3}


def rate_with_delay(road, direction):
    result = run_load(road, "run", 1, **{"up": 0, "down": 1, direction: WINDOWS})
    return {"kB/s": result["exchanges"] * WINDOWS / result["seconds"] / 1e3}


MEASURES = {
    "at rest": at_rest,
    f"requests beside {IDLE_CONNECTIONS} idle": requests_beside_idle,
    **{f"bulk {direction}, {streams} stream{'s' * (streams > 1)}":
       lambda road, seconds, d=direction, n=streams: bulk(road, seconds, d, n)
       for direction in ("down", "up") for streams in (1, 16, 256)},
    "requests, kept connection": requests,
    "requests, new connections": lambda road, seconds: requests(road, seconds, new=True),
    "requests, 16 clients": lambda road, seconds: requests(road, seconds, 16),
    "requests, 16 clients, new": lambda road, seconds: requests(road, seconds, 16, new=True),
    "requests beside bulk": requests_beside_bulk,
    "datagrams, 1 client": lambda road, seconds: datagrams(road, seconds, 1),
    "datagrams, 16 clients": lambda road, seconds: datagrams(road, seconds, 16),
    **{f"answers of {size} bytes": lambda road, seconds, n=size: answers(road, seconds, n)
       for size in (16384, 50000, 65536)},
    **{f"{count} connections at once": lambda road, _, n=count: burst(road, n)
       for count in (64, 256)},
    "requests beside 100 connections at once": burst_beside,
    "overhead on the link": link_bytes,
}
ONCE = ["at rest", f"requests beside {IDLE_CONNECTIONS} idle", "overhead on the link"]


def is_possible(measure, road):
    if measure.startswith("datagrams"):
        return road.has_datagrams
    return measure != "overhead on the link" or isinstance(road, VantrelRoad)


def measure_roads(options, mode, directory, results, names):
    made = []
    with contextlib.ExitStack() as stack:
        for name, make in road_makers(options):
            try:
                road = make(name, directory / f"road{len(made)}")
            except Missing as reason:
                print(f"skipped: {name}: {reason}", file=sys.stderr)
                continue
            stack.callback(road.close)
            road.device.run(*DEVICE_SETTINGS)
            made.append(road)
            names.append(name)
        for measure, action in MEASURES.items():
            if not is_wanted(options, measure):
                continue
            for _ in range(1 if measure in ONCE else mode["repeats"]):
                for road in filter(lambda road: is_possible(measure, road), made):
                    results.take(measure, road, action, mode["seconds"])


def road_makers(options):
    """(name, constructor of (name, directory)) in the order of the tables."""
    def vantrel(protocol, **kwargs):
        return lambda name, directory: VantrelRoad(name, directory, protocol, **kwargs)

    makers = [("direct", CableRoad), ("vantrel 5", vantrel("5")),
              ("vantrel 20", vantrel("20"))]
    if options.base:
        for protocol in "5", "20":
            makers.append((f"vantrel {protocol} at {options.base}",
                           vantrel(protocol, bin_dir=options.base_bin)))
    makers += [("vantrel 20, relayed", vantrel("20", relayed=True)),
               ("transparent proxy", ProxyRoad), ("ssh tunnel", SshRoad)]
    return makers


def slow_links(mode):
    """(measure, shape, action) of links that are made for one figure."""
    wanted = [("slow link, " + direction, SLOW, lambda road, d=direction: slow_link(road, d))
              for direction in ("down", "up")]
    if mode == "full":
        wanted += [(f"rate with delay, {direction}, {rate or 'no limit'}, {delay} ms",
                    f"{rate and f'rate={rate},'}delay={delay}ms",
                    lambda road, d=direction: rate_with_delay(road, d))
                   for rate in ("", "2Mbit") for delay in DELAYS_MS for direction in ("down", "up")]
    return wanted


def measure_slow_links(options, directory, results):
    """One after the other."""
    for number, (measure, shape, action) in enumerate(slow_links(options.mode)):
        if not is_wanted(options, measure):
            continue
        with results.step(measure), contextlib.closing(VantrelRoad(
                "vantrel 20", directory / f"slow{number}", "20", shape=shape)) as road:
            results.add(measure, road.name, action(road))


def micro_benchmarks():
    return {"micro " + program.name: program
            for program in sorted(LOAD_PROGRAM.parent.glob("*_bench"))}


def known_measures(mode):
    return [*MEASURES, *(measure for measure, _, _ in slow_links(mode)), *micro_benchmarks()]


def measure_micro(options, mode, results):
    for measure, program in micro_benchmarks().items():
        if not is_wanted(options, measure):
            continue
        with results.step(program.name):
            out = subprocess.run(
                [program, f"--benchmark_min_time={mode['micro_seconds']}",
                 "--benchmark_format=json"],
                check=True, capture_output=True, text=True, timeout=300).stdout
            for run in json.loads(out)["benchmarks"]:
                assert not run.get("error_occurred"), run
                figures = {"ns": run["cpu_time"]}
                if "bytes_per_second" in run:
                    figures["MB/s"] = run["bytes_per_second"] / 1e6
                results.add(f"micro {program.name.removesuffix('_bench')}", run["name"], figures)


def is_wanted(options, measure):
    return not options.only or any(word in measure for word in options.only)


def about_machine():
    processor = [line.split(":")[1].strip()
                 for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                 if line.startswith("model name")]
    commit = subprocess.run(["git", "-C", SOURCE_DIR, "describe", "--always", "--dirty"],
                            capture_output=True, text=True, check=False).stdout.strip()
    return {"when": datetime.datetime.now().isoformat(" ", "minutes"), "commit": commit,
            "processors": len(processor), "processor": processor[0] if processor else "",
            "kernel": os.uname().release, "load before": round(os.getloadavg()[0], 1)}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[1])
    parser.add_argument("--mode", choices=MODES, default="quick")
    parser.add_argument("--seconds", type=float, help="of each load, other than the mode's")
    parser.add_argument("--repeats", type=int, help="of each measurement, likewise")
    parser.add_argument("--only", action="append", metavar="WORD")
    parser.add_argument("--base-bin", type=pathlib.Path, metavar="DIR")
    parser.add_argument("--base", metavar="NAME")
    parser.add_argument("out", type=pathlib.Path, metavar="OUT.json")
    options = parser.parse_args()
    for word in options.only or []:
        if not any(word in measure for measure in known_measures(options.mode)):
            parser.exit(2, f"bench: no measurement of the mode {options.mode} has {word!r} in its "
                        f"name; there are: {'; '.join(known_measures(options.mode))}\n")
    internet.enter()
    mode = MODES[options.mode]
    mode.update({name: value for name in ("seconds", "repeats")
                 if (value := getattr(options, name)) is not None})
    about = {**about_machine(), "mode": options.mode, **mode, "base": options.base, "roads": []}
    results = Results(options.out, about)
    server = start_load_server()
    try:
        with tempfile.TemporaryDirectory() as name:
            measure_roads(options, mode, pathlib.Path(name), results, about["roads"])
            measure_slow_links(options, pathlib.Path(name), results)
    finally:
        end_process(server)
        server.stdout.close()
    measure_micro(options, mode, results)
    progress("")
    return 1 if results.has_failed else 0


if __name__ == "__main__":
    sys.exit(main())
