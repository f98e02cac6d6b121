"""bounds.sh [--bin-dir DIR] [--protocol 1|5|20]... [--seconds N] [--measure NAME]...

What has to hold on a slow link, and of a companion whose devices do their worst.
Measures on a link of 2 Mbit (250,000 bytes/s each way) of an internet and a device
in namespaces of its own, which needs root. Prints one line a figure: protocol,
figure, value, bound, and whether it holds; the exit status is 1 when one does not.
Without --bin-dir VANTREL_BIN_DIR says where the programs are.
"""
import argparse
import contextlib
import itertools
import mmap
import os
import pathlib
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

from testbed import internet
from testbed.device import BROWSER_UID, MAIL_UID
from testbed.internet import NAME_SERVER, SERVER_ADDRESS
from testbed.processes import Missing, end_process, find_program, resident_bytes
from testbed.programs import BIN_DIR
from testbed.roads import VantrelRoad, wait_for_rest
from testbed.waiting import wait_until


RATE = 250000
SOURCE, SINK, EXCHANGE, KEYS, OTHER_SINK = 7001, 7002, 7003, 7004, 7005
UDP_ECHO, FLOOD, UDP_SINK, UDP_SOURCE, QUIC = 4000, 4001, 4002, 4003, 4433
ADDRESS, DARK_ADDRESS = SERVER_ADDRESS, "198.51.100.99"
REQUEST, ANSWER = b"q" * 100, b"a" * 1024
FLOOD_RATE, FLOOD_SIZE = 600000, 1200
UPLOAD_FLOOD_RATE = RATE * 1.3
QUERY = (b"\x12\x34\1\0\0\1\0\0\0\0\0\0\3www\7example\4test\0\0\1\0\1")
FAILURES = (OSError, AssertionError)


# How many bytes have arrived at each sink, for the other process.
SUNK = mmap.mmap(-1, mmap.PAGESIZE)
SUNK_AT = {SINK: 0, OTHER_SINK: 8}
SINKING = threading.Lock()


def sunk(port=SINK):
    return struct.unpack_from("q", SUNK, SUNK_AT[port])[0]


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
    port = peer.getsockname()[1]
    while got := len(peer.recv(1 << 18)):
        with SINKING:
            struct.pack_into("q", SUNK, SUNK_AT[port], sunk(port) + got)


def serve_exchange(peer):
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    while peer.recv(len(REQUEST), socket.MSG_WAITALL):
        peer.sendall(ANSWER)


def serve_keys(peer):
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    while key := peer.recv(1):
        peer.sendall(key)


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
    send_datagrams(sock, sender, FLOOD_RATE, FLOOD_SIZE, float(request))


def send_datagrams(sock, address, rate, size, seconds):
    """|rate| bytes a second, for so long."""
    begin = time.monotonic()
    sent = 0
    while time.monotonic() < begin + seconds:
        due = (time.monotonic() - begin) * rate
        while sent < due:
            sock.sendto(bytes(size), address)
            sent += size
        time.sleep(0.002)


def run_servers():
    on_connections(SOURCE, serve_source)
    for port in SUNK_AT:
        on_connections(port, serve_sink)
    on_connections(EXCHANGE, serve_exchange)
    on_connections(KEYS, serve_keys)
    on_datagrams(ADDRESS, UDP_ECHO, lambda sock, data, sender: sock.sendto(data, sender))
    on_datagrams(NAME_SERVER, 53, lambda sock, data, sender: sock.sendto(
        data[:2] + b"\x81\x80" + data[4:], sender))
    on_datagrams(ADDRESS, FLOOD, flood)
    on_datagrams(ADDRESS, UDP_SINK, lambda sock, data, sender: None)


@contextlib.contextmanager
def slow_road(options, protocol, shape="rate=2Mbit"):
    with tempfile.TemporaryDirectory() as name, contextlib.closing(VantrelRoad(
            "slow", pathlib.Path(name), protocol, shape=shape,
            bin_dir=options.bin_dir)) as road:
        yield road


class Companion:
    """One of protocol 1, without devices."""

    def __init__(self, options, directory):
        self.path = f"{directory}/link"
        self._log = log = pathlib.Path(f"{directory}/companion.log")
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                [options.bin_dir / "vantrel-companion", "--protocol", "1", "--listen",
                 f"unix:{self.path}", "--allow", "198.51.100.0/24"],
                stdout=output, stderr=output)
        wait_until(lambda: "listening on" in log.read_text(), "the companion")

    def log_size(self):
        return self._log.stat().st_size

    def resident_megabytes(self):
        return resident_bytes([self.process.pid]) / 1e6

    def close(self):
        end_process(self.process)


class Load:
    """Streams of |uid| that move as many bytes as they can, counted."""

    def __init__(self, device, port, count, uid=0):
        self.moved = 0
        self.apps = [device.connect(ADDRESS, port, uid) for _ in range(count)]
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


class QuicServer:
    """Serves |directory| by HTTP/3 to anybody who does not look at its certificate, with
    one of ngtcp2's congestion controls."""

    def __init__(self, directory, control):
        program, openssl = find_program("gtlsserver"), find_program("openssl")
        key, certificate = directory / "key.pem", directory / "certificate.pem"
        subprocess.run([openssl, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj",
                        f"/CN={ADDRESS}", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        self.process = subprocess.Popen(
            [program, "--quiet", "--cc", control, "--htdocs", directory, ADDRESS, str(QUIC),
             key, certificate], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # It answers what is no QUIC with nothing, so look for its socket.
        row = f":{QUIC:04X} 00000000:0000"
        wait_until(lambda: row in pathlib.Path("/proc/net/udp").read_text(),
                   "the QUIC server")

    def close(self):
        end_process(self.process)


class QuicDownload:
    """The file |name| of a QuicServer comes into |directory|, its bytes counted. As
    browsers do, the client acknowledges each tenth packet only, so its server sends
    in bursts."""

    def __init__(self, device, name, directory):
        program = find_program("gtlsclient")
        self._file = directory / name
        self.process = subprocess.Popen(
            device.command([program, "--quiet", "--ack-thresh=10", f"--download={directory}",
                            ADDRESS, QUIC, f"https://{ADDRESS}:{QUIC}/{name}"]),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(self._file.exists, "the first bytes by QUIC")

    @property
    def moved(self):
        return self._file.stat().st_size

    def close(self):
        end_process(self.process)


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


def typist(device):
    app = device.connect(ADDRESS, KEYS)
    app.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def type_key():
        app.sendall(b"k")
        assert app.recv(1) == b"k"
    return type_key


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
    with slow_road(options, protocol) as road:
        device = road.device
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
    with slow_road(options, protocol) as road:
        device = road.device
        load = Load(device, SINK, 4)
        exchange = exchanger(device)
        time.sleep(2)
        times = timed(exchange, options.seconds)
        load.close()
    yield below("1 KB exchange beside 4 uploads, p50", statistics.median(times), 280)


def measure_flood(options, protocol):
    with slow_road(options, protocol) as road:
        device = road.device
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


def measure_up_flood(options, protocol):
    """A sender of datagrams that is faster than the link, of large and of small ones."""
    if protocol == "1":
        return  # it has no bound of its own: its datagrams name no application
    for size in FLOOD_SIZE, 64:
        with slow_road(options, protocol) as road:
            device = road.device
            exchange = exchanger(device)
            flooder = threading.Thread(target=send_datagrams, args=[
                device.socket(socket.SOCK_DGRAM), (ADDRESS, UDP_SINK), UPLOAD_FLOOD_RATE, size,
                2 * options.seconds + 2])
            flooder.start()
            time.sleep(1)
            alone = timed(exchange, options.seconds / 2)
            look_ups = timed(asker(device, NAME_SERVER, 53, QUERY), options.seconds / 2)
            load = Load(device, SINK, 1)
            time.sleep(1)
            before, begin = sunk(), time.monotonic()
            time.sleep(options.seconds - 2)
            share = (sunk() - before) / (time.monotonic() - begin) / RATE
            load.close()
            flooder.join()
        name = f"datagrams of {size} bytes at 1.3 times the link: "
        yield below(name + "1 KB exchange, longest", max(alone), 800)
        yield below(name + "name look-up, longest", max(look_ups), 800)
        yield above(name + "one upload, of the link", share, .3)


@contextlib.contextmanager
def quic_download(road, control):
    with tempfile.TemporaryDirectory() as name, contextlib.ExitStack() as cleanup:
        served, received = pathlib.Path(name) / "served", pathlib.Path(name) / "received"
        served.mkdir()
        received.mkdir()
        with open(served / "file", "wb") as file:
            file.truncate(1 << 30)  # it has no end
        cleanup.enter_context(contextlib.closing(QuicServer(served, control)))
        load = cleanup.enter_context(contextlib.closing(
            QuicDownload(road.device, "file", received)))
        time.sleep(2)
        yield load
        assert load.process.poll() is None


def share_of(load, seconds):
    before, begin = load.moved, time.monotonic()
    time.sleep(seconds)
    return (load.moved - before) / (time.monotonic() - begin) / RATE


def measure_quic(options, protocol):
    """A sender that slows down at each loss, and others beside it; and a sender that goes
    by rate and delay, in turns too fast and too slow, so that it needs a queue that bears
    bursts."""
    with slow_road(options, protocol, "rate=2Mbit,delay=30ms") as road:
        actions = {"1 KB exchange": exchanger(road.device), "key stroke": typist(road.device),
                   "name look-up": asker(road.device, NAME_SERVER, 53, QUERY)}
        alone = {what: timed(act, options.seconds / 4) for what, act in actions.items()}
        with quic_download(road, "cubic") as load:
            cubic_share = share_of(load, options.seconds)
            beside = {what: timed(act, options.seconds) for what, act in actions.items()}
        with quic_download(road, "bbr") as load:
            bbr_share = share_of(load, options.seconds)
    yield above("download by QUIC, CUBIC, of the link", cubic_share, .9)
    for what, times in beside.items():
        more = statistics.median(times) - statistics.median(alone[what])
        yield below(f"{what} beside it, p50, longer than alone", more, 30)
    yield above("download by QUIC, BBR, of the link", bbr_share, .9)


def measure_fair(options, protocol):
    """An application with one stream beside one with many."""
    with slow_road(options, protocol, "rate=2Mbit,delay=30ms") as road:
        device = road.device
        exchange = exchanger(device)
        alone = timed(exchange, options.seconds / 4)
        many = Load(device, SOURCE, 32, BROWSER_UID)
        one = Load(device, SOURCE, 1, MAIL_UID)
        time.sleep(2)
        before, begin = many.moved, time.monotonic()
        down = share_of(one, options.seconds)
        many_down = (many.moved - before) / (time.monotonic() - begin) / RATE
        beside = timed(exchange, options.seconds)
        many.close()
        one.close()
        wait_for_rest(road)
        many = Load(device, SINK, 8, BROWSER_UID)
        time.sleep(2)
        one = Load(device, OTHER_SINK, 1, MAIL_UID)
        time.sleep(2)
        before, begin = [sunk(SINK), sunk(OTHER_SINK)], time.monotonic()
        time.sleep(2 * options.seconds)
        seconds = time.monotonic() - begin
        others, up = [(sunk(port) - moved) / seconds / RATE
                      for port, moved in zip([SINK, OTHER_SINK], before)]
        many.close()
        one.close()
    yield above("one download beside 32 of another application, of the link", down, .45)
    more = statistics.median(beside) - statistics.median(alone)
    yield below("1 KB exchange beside both, p50, longer than alone", more, 60)
    yield above("one upload beside 8 of another application, of the link", up, .35)
    yield above("all downloads, of the link", many_down + down, .97)
    yield above("all uploads, of the link", others + up, .97)


def measure_idle(options, protocol):
    with slow_road(options, protocol) as road:
        load = Load(road.device, SOURCE, 4)
        time.sleep(1)
        load.close()
        wait_for_rest(road)
        before = sum(road.used_seconds().values())
        time.sleep(2)
        used = sum(road.used_seconds().values()) - before
    yield below("processor time while nothing moves", used / 2 * 1e3, 10, "ms/s")


def v1_connect(stream, port, address=ADDRESS):
    return struct.pack(">BI4sHH", 1, stream, socket.inet_aton(address), port, 10123)


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
        companion = Companion(options, directory)
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


@contextlib.contextmanager
def dark_address():
    """What is sent to DARK_ADDRESS vanishes without a word."""
    dark = ["INPUT", "-d", DARK_ADDRESS, "-j", "DROP"]
    subprocess.run(["iptables-legacy", "-w", "-A", *dark], check=True)
    yield
    subprocess.run(["iptables-legacy", "-w", "-D", *dark], check=True)


def measure_silent(options, _):
    with dark_address(), tempfile.TemporaryDirectory() as directory:
        companion = Companion(options, directory)
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
            link.settimeout(5)
            link.connect(companion.path)
            for n in range(400):
                link.sendall(v1_connect(n, 80, DARK_ADDRESS))
                link.sendall(b"".join(v1_data(n, bytes(65535)) for _ in range(8)))
            time.sleep(1)
        memory = companion.resident_megabytes()
        companion.close()
    yield below("400 silent remotes, all written to: memory", memory, 64, "MB")


def measure_flooded(options, _):
    """Links that were fast and now take nothing, while a remote sends on to each."""
    remote = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    remote.bind((ADDRESS, UDP_SOURCE))
    remote.setblocking(False)
    request = struct.pack(">B4sHH", 4, socket.inet_aton(ADDRESS), UDP_SOURCE, 1) + b"q"
    with tempfile.TemporaryDirectory() as directory, contextlib.ExitStack() as cleanup:
        companion = Companion(options, directory)
        links = [cleanup.enter_context(socket.socket(socket.AF_UNIX)) for _ in range(64)]
        for link in links:
            link.connect(companion.path)
            link.sendall(request)
            link.setblocking(False)
        time.sleep(1)
        askers = [remote.recvfrom(16)[1] for _ in links]

        def send(size, seconds, taking):
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                for link, asker in zip(links, askers):
                    with contextlib.suppress(BlockingIOError):
                        remote.sendto(bytes(size), asker)
                        while taking:
                            link.recv(1 << 18)
                time.sleep(.001)
        send(30000, 2, taking=True)
        send(FLOOD_SIZE, 4, taking=False)
        memory = companion.resident_megabytes()
        companion.close()
    remote.close()
    yield below("64 links that take nothing, flooded with datagrams: memory", memory, 64, "MB")


class Crowd:
    """32 links, in a process of their own, that send |pieces| in turn as fast as the
    companion takes them, at most one each 10 ms, and drop every answer. What gives way
    when there is too little processor time is the crowd, so that the figures are the
    companion's."""

    SIZE = 32

    def __init__(self, path, pieces, ends_links=False):
        self.pid = os.fork()
        if self.pid == 0:
            os.nice(10)
            try:
                self._run(path, pieces, ends_links)
            finally:  # nothing of what the parent is about to do
                os._exit(1)

    def _run(self, path, pieces, ends_links):
        links = [self._connect(path) for _ in range(self.SIZE)]
        begin = time.monotonic()
        for turn in itertools.count():
            for number, link in enumerate(links):
                try:
                    link.send(pieces[(turn + number) % len(pieces)])
                    while len(link.recv(1 << 18)) == 1 << 18:
                        pass
                except BlockingIOError:
                    pass
                except OSError:
                    link.close()
                    links[number] = self._connect(path)
                if ends_links:
                    link.close()
                    links[number] = self._connect(path)
            time.sleep(max(0, begin + turn * .01 - time.monotonic()))

    @staticmethod
    def _connect(path):
        link = socket.socket(socket.AF_UNIX)
        link.connect(path)
        link.setblocking(False)
        return link

    def close(self):
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)


def connects_and_closes(address, port):
    """2000 of either in a second, if a link sends one piece each 10 ms."""
    return [b"".join(v1_connect(n, port, address) + struct.pack(">BI", 2, n)
                     for n in range(100, 120))]


def datagrams_to_new_remotes():
    return [b"".join(struct.pack(">B4sHHc", 4, socket.inet_aton(f"198.51.100.{n + 100}"),
                                 port, 1, b"x") for n in range(20))
            for port in range(20000, 20200)]


def dial(path):
    """An honest link's exchange."""
    link = socket.socket(socket.AF_UNIX)
    link.settimeout(20)
    link.connect(path)
    link.sendall(v1_connect(1, EXCHANGE))

    def exchange():
        link.sendall(v1_data(1, REQUEST))
        left = len(ANSWER)
        while left:
            kind, _ = struct.unpack(">BI", link.recv(5, socket.MSG_WAITALL))
            if kind == 3:
                size, = struct.unpack(">H", link.recv(2, socket.MSG_WAITALL))
                left -= len(link.recv(size, socket.MSG_WAITALL))
    return exchange


CROWDS = {
    "connect and close, refused": (connects_and_closes(ADDRESS, 9), False),
    "connect and close, accepted": (connects_and_closes(ADDRESS, SINK), False),
    "connect and close, no answer": (connects_and_closes(DARK_ADDRESS, 9), False),
    "datagrams to new remotes": (datagrams_to_new_remotes(), False),
    "garbage, new links": ([b"\xff no such message"], True),
}


def measure_churn(options, _):
    with dark_address():
        for name, (pieces, ends_links) in CROWDS.items():
            with tempfile.TemporaryDirectory() as directory:
                companion = Companion(options, directory)
                exchange = dial(companion.path)
                exchange()
                crowd = Crowd(companion.path, pieces, ends_links)
                time.sleep(1)
                written, begin = companion.log_size(), time.monotonic()
                times = timed(exchange, options.seconds)
                written = (companion.log_size() - written) / (time.monotonic() - begin)
                crowd.close()
                companion.close()
            yield below(f"32 links, {name}: 1 KB exchange, p99", percentile(times, .99), 50)
            yield below(f"32 links, {name}: log", written / 1e3, 200, "kB/s")


SHAPED = {"down": measure_down, "up": measure_up, "flood": measure_flood,
          "up flood": measure_up_flood, "quic": measure_quic, "fair": measure_fair,
          "idle": measure_idle}
ONCE = {"many": measure_many, "silent": measure_silent, "flooded": measure_flooded,
        "churn": measure_churn}


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[1])
    parser.add_argument("--bin-dir", type=pathlib.Path, default=BIN_DIR)
    parser.add_argument("--protocol", action="append", choices=["1", "5", "20"])
    parser.add_argument("--seconds", type=float, default=8)
    parser.add_argument("--measure", action="append", choices=[*SHAPED, *ONCE])
    options = parser.parse_args()
    options.bin_dir = options.bin_dir.resolve()
    return options


def main():
    options = parse_options()
    internet.enter()
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
        try:
            for figure, value, bound, holds in measure(options, protocol):
                all_hold = all_hold and holds
                print(f"{protocol:>2}  {figure:70} {value:>12}  {bound:18} "
                      f"{'ok' if holds else 'NOT MET'}", flush=True)
        except Missing as missing:
            name = measure.__name__.split("_")[1]
            print(f"{protocol:>2}  {name}: skipped, {missing}", flush=True)
    os.kill(servers, 9)
    return 0 if all_hold else 1


if __name__ == "__main__":
    sys.exit(main())
