"""What is measured and not judged.

The device of these figures is a Python program: on a fast machine it is the
bound of the throughput, and not the companion. It leaves out the checksums of
payloads. Delays include its own.
"""

import fcntl
import socket
import statistics
import sys
import termios
import time
from pathlib import Path

from .device import CREDIT, MAX_WRITE
from .loop import Channel
from .servers import discard, echo, source

SECONDS = 1.0
PINGS = 100
FAIR_STREAMS = 4
SHAPED_PACE = 250_000  # bytes/s, a good Bluetooth link
MIB = 1 << 20


def measure(env):
    """(name, value, unit) one after the other."""
    before = memory(env.pid)
    yield "throughput to the device, 1 stream", _download(env, 1)[0] / MIB, "MiB/s"
    total, shares = _download(env, FAIR_STREAMS)
    yield f"throughput to the device, {FAIR_STREAMS} streams", total / MIB, "MiB/s"
    yield "fairness of these, 1 is equal shares", _fairness(shares), ""
    yield "throughput from the device", _upload(env) / MIB, "MiB/s"
    yield from _latency("idle", _round_trips(env.device(), env, PINGS))
    yield from _latency("beside a busy stream", _under_load(env, PINGS))
    queues = []
    name = f"beside a busy stream, link of {SHAPED_PACE} bytes/s"
    yield from _latency(name, _under_load(env, 10, SHAPED_PACE, queues))
    yield "queue in this link", statistics.median(queues) / SHAPED_PACE * 1000, "ms"
    if before is not None:
        yield "memory before", before / MIB, "MiB"
        yield "memory at most", memory(env.pid, "VmHWM") / MIB, "MiB"


def memory(pid, field="VmRSS"):
    """Bytes; None without a process to look at."""
    if pid is None:
        return None
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1]) * 1024
    return None


def _download(env, count):
    """Bytes per second in all, and those of each stream."""
    device, server = env.device(), env.server(source)
    device.decoder.checks_payload = False
    streams = [device.connect(server.endpoint) for _ in range(count)]
    device.wait(lambda: all(stream.received for stream in streams), "bytes on all streams")
    before, start = [stream.received_bytes for stream in streams], time.monotonic()
    env.loop.pause(SECONDS)
    seconds = time.monotonic() - start
    rates = [(stream.received_bytes - bytes_before) / seconds
             for stream, bytes_before in zip(streams, before)]
    device.link.close()
    return sum(rates), rates


def _fairness(rates):
    """Jain's index."""
    squares = sum(rate * rate for rate in rates)
    return sum(rates) ** 2 / (len(rates) * squares) if squares else 0.0


def _upload(env):
    device, server = env.device(), env.server(discard)
    stream = device.connect(server.endpoint)
    peer = env.accept(server)
    write = env.codec.data(stream.id, bytes(MAX_WRITE))
    start = time.monotonic()
    while time.monotonic() - start < SECONDS:
        device.wait(lambda: stream.writes - stream.acks < CREDIT, "an acknowledgement")
        room = CREDIT - (stream.writes - stream.acks)
        stream.writes += room
        device.link.send(write * room)
    stream.wait_acks()
    env.wait(lambda: peer.received_bytes == stream.writes * MAX_WRITE, "all bytes at the server")
    return peer.received_bytes / (time.monotonic() - start)


def _round_trips(device, env, count, queues=None):
    """Milliseconds from a byte of the device to its echo. |queues| gets how many bytes
    the companion has written and the device not yet read."""
    stream = device.connect(env.server(echo).endpoint)
    times = []
    for _ in range(count):
        before, start = stream.received_bytes, time.monotonic()
        stream.write(b"x")
        device.wait(lambda: stream.received_bytes > before, "echo")
        times.append((time.monotonic() - start) * 1000)
        if queues is not None:
            unread = fcntl.ioctl(device.link.sock, termios.FIONREAD, bytes(4))
            queues.append(int.from_bytes(unread, sys.byteorder))
    return times


def _under_load(env, count, pace=None, queues=None):
    device = env.device()
    device.decoder.checks_payload = False
    bulk = device.connect(env.server(source).endpoint)
    if pace:
        _Shaper(env.loop, device.link, pace)
        env.loop.pause(SECONDS)  # what was sent at full speed, and time to learn the pace
    device.wait(lambda: len(bulk.received) > 0, "bulk bytes")
    times = _round_trips(device, env, count, queues)
    device.link.close()
    return times


def _latency(name, times):
    yield f"latency {name}, median", statistics.median(times), "ms"
    yield f"latency {name}, worst", max(times), "ms"


class _Shaper:
    """Lets a link be read at a pace; the kernel's own queue is made small."""

    def __init__(self, loop, link: Channel, pace):
        link.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._link, self._pace, self._last = link, pace, time.monotonic()
        link.reading = False
        loop.tick = 0.002
        self._loop = loop
        loop.add(self)

    def fileno(self):
        return self._link.fileno()

    def wants(self):
        """Asked in each turn of the loop; never wants to be called."""
        now = time.monotonic()
        allowed = int((now - self._last) * self._pace)
        if self._link.fileno() < 0:
            self._loop.remove(self)
        elif allowed >= 200:
            self._last = now
            self._link.read_once(min(allowed, 4096))
        return 0
