#!/usr/bin/python3
"""link_bench.py: how good the far side of the link is, in figures.

usage: link_bench.py [--bin DIR] [--companion PROGRAM] [--protocol 1|5|20]...
                     [--seconds N] [--measure NAME]...

Makes an internet and a device in namespaces of its own, as the tests do, and
measures on a link of 2 Mbit (250,000 bytes/s each way) and on one without
limit. Prints one line a figure: protocol, figure, value, bound, and whether it
holds; the exit status is 1 when one does not. Needs root. --companion measures
another build of the companion than the one beside the other programs.
"""
import argparse
import contextlib
import os
import pathlib
import resource
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

SOURCE_DIR = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(SOURCE_DIR / "tests"))

RATE = 250000
SOURCE, SINK, EXCHANGE, UDP_ECHO, FLOOD = 7001, 7002, 7003, 4000, 4001
ADDRESS, NAME_SERVER, DARK_ADDRESS = "198.51.100.80", "198.51.100.53", "198.51.100.99"
REQUEST, ANSWER = b"q" * 100, b"a" * 1024
FLOOD_RATE, FLOOD_SIZE = 600000, 1200
QUERY = (b"\x12\x34\1\0\0\1\0\0\0\0\0\0\3www\7example\4test\0\0\1\0\1")
FAILURES = (OSError, AssertionError)


def enter_namespaces():
    if "VANTREL_LINK_BENCH" in os.environ:
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        subprocess.run(["ip", "address", "add", "198.51.100.1/24", "dev", "lo"], check=True)
        return
    os.environ["VANTREL_LINK_BENCH"] = "1"
    os.execvp("unshare", ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child",
                          "--mount-proc", sys.executable, *sys.argv])


# The servers, in a process of their own.

def on_connections(port, serve):
    listener = socket.create_server((ADDRESS, port), backlog=512)

    def accept():
        while True:
            peer, _ = listener.accept()
            threading.Thread(target=guarded, args=(serve, peer), daemon=True).start()
    threading.Thread(target=accept, daemon=True).start()


def guarded(serve, peer):
    with contextlib.suppress(OSError), peer:
        serve(peer)


def serve_source(peer):
    block = bytes(1 << 18)
    while True:
        peer.sendall(block)


def serve_sink(peer):
    while peer.recv(1 << 18):
        pass


def serve_exchange(peer):
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    while peer.recv(len(REQUEST), socket.MSG_WAITALL):
        peer.sendall(ANSWER)


def on_datagrams(address, port, answer):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((address, port))

    def serve():
        while True:
            request, sender = sock.recvfrom(65536)
            answer(sock, request, sender)
    threading.Thread(target=serve, daemon=True).start()


def flood(sock, request, sender):
    """As many seconds as the request says."""
    begin = time.monotonic()
    sent = 0
    while time.monotonic() < begin + float(request):
        due = (time.monotonic() - begin) * FLOOD_RATE
        while sent < due:
            sock.sendto(bytes(FLOOD_SIZE), sender)
            sent += FLOOD_SIZE
        time.sleep(0.002)


def run_servers():
    on_connections(SOURCE, serve_source)
    on_connections(SINK, serve_sink)
    on_connections(EXCHANGE, serve_exchange)
    on_datagrams(ADDRESS, UDP_ECHO, lambda sock, data, sender: sock.sendto(data, sender))
    on_datagrams(NAME_SERVER, 53, lambda sock, data, sender: sock.sendto(
        data[:2] + b"\x81\x80" + data[4:], sender))
    on_datagrams(ADDRESS, FLOOD, flood)


# The companion and a device on its link.

def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")")[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Companion:
    def __init__(self, program, directory, protocol):
        self.path = f"{directory}/link"
        self.log = pathlib.Path(f"{directory}/companion.log")
        options = ["--allow", "198.51.100.0/24"]
        if "--allow " not in subprocess.run([program, "--help"], capture_output=True,
                                            text=True, check=True).stdout:
            options = []
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                [program, "--protocol", protocol, "--listen", f"unix:{self.path}", *options],
                stdout=log, stderr=log)
        bench.wait_until(lambda: "listening on" in self.log.read_text(), "the companion")

    def resident_megabytes(self):
        pages = pathlib.Path(f"/proc/{self.process.pid}/statm").read_text().split()[1]
        return int(pages) * resource.getpagesize() / 1e6

    def close(self):
        bench.end_process(self.process)


@contextlib.contextmanager
def tunnel(options, protocol, *shape):
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        companion = Companion(options.companion, directory, protocol)
        device = bench.Device(directory / "device")
        status = directory / "status.txt"
        with open(status, "wb") as out:
            launcher = subprocess.Popen(
                device.command([options.bin / "vantrel-launch", "--protocol", protocol, "--daemon",
                                options.bin / "vantrel", *shape, f"unix:{companion.path}"]),
                stdout=out, stderr=subprocess.DEVNULL,
                env={**os.environ, "VANTREL_LOG_FILE": str(directory / "daemon.log")})
        try:
            bench.wait_until(lambda: "started" in status.read_text(), "the daemon")
            children = pathlib.Path(f"/proc/{launcher.pid}/task/{launcher.pid}/children")
            yield device, {"companion": companion.process.pid, "launcher": launcher.pid,
                           "daemon": int(children.read_text().split()[0])}
        finally:
            bench.end_process(launcher)
            companion.close()
            device.close()


class Load:
    """Streams that move as many bytes as they can, counted."""

    def __init__(self, device, port, count):
        self.moved = 0
        self.apps = [device.connect(ADDRESS, port) for _ in range(count)]
        work = self._receive if port == SOURCE else self._send
        self.threads = [threading.Thread(target=work, args=[app]) for app in self.apps]
        for thread in self.threads:
            thread.start()

    def _receive(self, app):
        with contextlib.suppress(OSError):
            while got := len(app.recv(1 << 18)):
                self.moved += got

    def _send(self, app):
        with contextlib.suppress(OSError):
            while True:
                self.moved += app.send(bytes(1 << 16))

    def close(self):
        for app in self.apps:
            with contextlib.suppress(OSError):
                app.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for app in self.apps:
            app.close()


def timed(action, seconds, pause=0.05):
    """Milliseconds of each |action| during |seconds|; one that fails counts as
    ten seconds."""
    times = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        begin = time.monotonic()
        try:
            action()
            times.append((time.monotonic() - begin) * 1e3)
        except FAILURES:
            times.append(10e3)
        time.sleep(pause)
    return times


def percentile(times, share):
    return sorted(times)[min(len(times) - 1, int(len(times) * share))]


def exchanger(device):
    app = device.connect(ADDRESS, EXCHANGE)
    app.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def exchange():
        app.sendall(REQUEST)
        assert len(app.recv(len(ANSWER), socket.MSG_WAITALL)) == len(ANSWER)
    return exchange


def asker(device, address, port, question):
    app = device.socket(socket.SOCK_DGRAM)
    app.settimeout(3)
    app.connect((address, port))

    def ask():
        app.send(question)
        app.recv(2048)
    return ask


# The measurements: each yields (figure, value, bound, holds).

def below(name, value, bound, unit="ms"):
    return name, f"{value:.0f} {unit}", f"at most {bound} {unit}", value <= bound


def above(name, value, bound):
    return name, f"{value:.1%}", f"at least {bound:.0%}", value >= bound


def measure_down(options, protocol):
    with tunnel(options, protocol, "--shape", "rate=2Mbit") as (device, _):
        load = Load(device, SOURCE, 4)
        exchange = exchanger(device)
        time.sleep(2)
        before, begin = load.moved, time.monotonic()
        times = timed(exchange, options.seconds)
        moved = load.moved - before + len(times) * len(ANSWER)
        share = moved / (time.monotonic() - begin) / RATE
        look_ups = timed(asker(device, NAME_SERVER, 53, QUERY), options.seconds)
        load.close()
    yield below("1 KB exchange beside 4 downloads, p50", statistics.median(times), 60)
    yield below("1 KB exchange beside 4 downloads, p99", percentile(times, .99), 120)
    yield above("downloads and exchange, of the link", share, .97)
    yield below("name look-up beside 4 downloads, p50", statistics.median(look_ups), 60)


def measure_up(options, protocol):
    with tunnel(options, protocol, "--shape", "rate=2Mbit") as (device, _):
        load = Load(device, SINK, 4)
        exchange = exchanger(device)
        time.sleep(2)
        times = timed(exchange, options.seconds)
        load.close()
    yield below("1 KB exchange beside 4 uploads, p50", statistics.median(times), 280)


def measure_flood(options, protocol):
    with tunnel(options, protocol, "--shape", "rate=2Mbit") as (device, _):
        load = Load(device, SOURCE, 4)
        time.sleep(1)
        flooded = device.socket(socket.SOCK_DGRAM)
        flooded.sendto(str(options.seconds + 3).encode(), (ADDRESS, FLOOD))
        time.sleep(1)
        before, begin = load.moved, time.monotonic()
        times = timed(asker(device, ADDRESS, UDP_ECHO, b"ping"), options.seconds)
        share = (load.moved - before) / (time.monotonic() - begin) / RATE
        load.close()
    yield above("TCP beside a UDP flood of 600 kB/s, of the link", share, .4)
    yield below("ping (UDP) beside both, p50", statistics.median(times), 120)
    yield below("ping (UDP) beside both, p99", percentile(times, .99), 120)


def measure_speed(options, protocol):
    for name, port in ("download", SOURCE), ("upload", SINK):
        with tunnel(options, protocol) as (device, pids):
            def used():
                return {role: processor_seconds(pid) for role, pid in pids.items()}
            load = Load(device, port, 1)
            time.sleep(1)
            moved, before, begin = load.moved, used(), time.monotonic()
            time.sleep(options.seconds)
            moved, after, seconds = load.moved - moved, used(), time.monotonic() - begin
            load.close()
            time.sleep(.5)
            idle = sum(used().values())
            time.sleep(2)
            idle = sum(used().values()) - idle
        yield (f"{name}, link without limit", f"{moved / seconds / 1e6:.0f} MB/s",
               "compare", True)
        for role in pids:
            yield (f"{name}, processor time of the {role}",
                   f"{(after[role] - before[role]) / (moved / 1e9):.2f} s/GB", "compare", True)
        yield below(f"processor time while nothing moves, after the {name}",
                    idle / 2 * 1e3, 10, "ms/s")


def v1_connect(stream, port):
    return struct.pack(">BI4sHH", 1, stream, socket.inet_aton(ADDRESS), port, 10123)


def v1_data(stream, data):
    return struct.pack(">BIH", 3, stream, len(data)) + data


def honest_link(path, seed, results):
    """Four streams to the exchange server; every answer must be whole."""
    streams, turns = 4, 5
    with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
        link.settimeout(20)
        link.connect(path)
        link.sendall(b"".join(v1_connect(n, EXCHANGE) for n in range(streams)))
        for _ in range(turns):
            link.sendall(b"".join(v1_data(n, REQUEST) for n in range(streams)))
            got, received = [0] * streams, b""
            while sum(got) < streams * len(ANSWER):
                received += link.recv(65536)
                while len(received) >= 5:
                    size = 7 + struct.unpack(">H", received[5:7])[0] if received[0] == 3 else 5
                    if len(received) < max(size, 7 if received[0] == 3 else 5):
                        break
                    if received[0] == 3:
                        got[struct.unpack(">I", received[1:5])[0]] += size - 7
                    received = received[size:]
        results.append(seed)


def hostile_link(path):
    """Asks for more than it ever reads, then overdraws everything."""
    with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
        link.settimeout(5)
        link.connect(path)
        link.sendall(b"".join(v1_connect(n, SOURCE) for n in range(1000)))
        link.sendall(b"".join(struct.pack(">BII", 8, n, 0xFFFFFFFF) for n in range(200)))
        for turn in range(20):
            link.sendall(b"".join(v1_data(n, bytes(65535)) for n in range(1000)))


def measure_many(options, _):
    with tempfile.TemporaryDirectory() as directory:
        companion = Companion(options.companion, directory, "1")
        results = []
        threads = [threading.Thread(target=hostile_link, args=[companion.path])]
        threads += [threading.Thread(target=honest_link, args=[companion.path, n, results])
                    for n in range(63)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        memory = companion.resident_megabytes()
        companion.close()
    yield ("64 links, one hostile: links that got all", f"{len(results)}", "63",
           len(results) == 63)
    yield below("64 links, one hostile: memory", memory, 64, "MB")


def measure_silent(options, protocol):
    # What is sent there vanishes without a word.
    dark = ["INPUT", "-d", DARK_ADDRESS, "-j", "DROP"]
    subprocess.run(["iptables-legacy", "-w", "-A", *dark], check=True)
    with tempfile.TemporaryDirectory() as directory:
        companion = Companion(options.companion, directory, "1")
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
            link.settimeout(5)
            link.connect(companion.path)
            for n in range(400):
                link.sendall(struct.pack(">BI4sHH", 1, n, socket.inet_aton(DARK_ADDRESS), 80,
                                         10123))
                link.sendall(b"".join(v1_data(n, bytes(65535)) for _ in range(8)))
            time.sleep(1)
        memory = companion.resident_megabytes()
        companion.close()
    subprocess.run(["iptables-legacy", "-w", "-D", *dark], check=True)
    yield below("400 silent remotes, all written to: memory", memory, 64, "MB")


SHAPED = {"down": measure_down, "up": measure_up, "flood": measure_flood,
          "speed": measure_speed}
ONCE = {"many": measure_many, "silent": measure_silent}


def parse_options():
    parser = argparse.ArgumentParser(usage=__doc__.split("usage: ")[1].split("\n\n")[0])
    parser.add_argument("--bin", type=pathlib.Path, default=SOURCE_DIR / "build/release/bin")
    parser.add_argument("--companion", type=pathlib.Path)
    parser.add_argument("--protocol", action="append", choices=["1", "5", "20"])
    parser.add_argument("--seconds", type=float, default=8)
    parser.add_argument("--measure", action="append", choices=[*SHAPED, *ONCE])
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    options.companion = (options.companion or options.bin / "vantrel-companion").resolve()
    return options


def main():
    options = parse_options()
    enter_namespaces()
    servers = os.fork()
    if servers == 0:
        run_servers()
        threading.Event().wait()
    time.sleep(.5)
    runs = [(protocol, measure) for protocol in options.protocol or ["1", "5", "20"]
            for name, measure in SHAPED.items() if name in (options.measure or SHAPED)]
    runs += [("1", measure) for name, measure in ONCE.items()
             if name in (options.measure or ONCE)]
    all_hold = True
    for protocol, measure in runs:
        for figure, value, bound, holds in measure(options, protocol):
            all_hold = all_hold and holds
            print(f"{protocol:>2}  {figure:52} {value:>12}  {bound:18} "
                  f"{'ok' if holds else 'NOT MET'}", flush=True)
    os.kill(servers, 9)
    return 0 if all_hold else 1


if __name__ == "__main__":
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    import bench
    sys.exit(main())
