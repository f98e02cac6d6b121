"""Credit: one acknowledgement for each write, once its bytes have been handed on."""

from .. import rules
from ..device import BULK, CREDIT, MAX_WRITE
from ..outcome import Warned, expect
from ..registry import check
from ..servers import echo, source
from .streams import differs, pattern

SECTION = "Streams"
CREDIT_RULE = rules.CREDIT.says
# More than the kernels between companion and server hold.
TOO_MUCH = 12 << 20
TOO_MUCH_AHEAD = 16 << 20


@check(SECTION, CREDIT_RULE)
def ack_each_write(env):
    device, server = env.device(), env.server()
    stream, expected = device.connect(server.endpoint), b""
    peer = env.accept(server)
    for turn in range(10):  # each alone: the next write waits for it
        stream.write(pattern(1 + turn * 400, turn))
        stream.wait_acks()
        expected += pattern(1 + turn * 400, turn)
    for turn in range(10):  # as many as the credit allows, at once
        device.link.send(b"".join(env.codec.data(stream.id, b"%d" % i) for i in range(CREDIT)))
        stream.writes += CREDIT
        stream.wait_acks()
        expected += b"01234567"
    device.wait(lambda: len(peer.received) >= len(expected), "all bytes at the server")
    expect(peer.received == expected, differs(expected, peer.received))
    device.probe()


@check(SECTION, CREDIT_RULE)
def ack_own_stream(env):
    device, server = env.device(), env.server(echo)
    streams = [device.connect(server.endpoint) for _ in range(5)]
    for turn in range(5):
        for stream in streams[turn:]:
            for _ in range(1 + turn):
                stream.write(b"write")
        for stream in streams:
            stream.wait_acks()


def _has_credit(env, device, stream):
    """Whether an acknowledgement comes, however busy the companion is."""
    def has_credit():
        return stream.writes - stream.acks < CREDIT

    if not env.loop.wait(has_credit, 0.2):
        device.probe()
    return has_credit()


@check(SECTION, "Acknowledging early only moves the queue to you: bytes are handed on when the "
       "remote's socket has taken them.")
def ack_only_delivered(env):
    device, server = env.device(), env.server(receive_buffer=4096, reading=False)
    stream, chunk = device.connect(server.endpoint), pattern(MAX_WRITE)
    peer = env.accept(server)
    while stream.writes * MAX_WRITE < TOO_MUCH and not stream.closes and (
            _has_credit(env, device, stream)):
        stream.write(chunk)
    held = stream.acks * MAX_WRITE
    expect(held < TOO_MUCH - CREDIT * MAX_WRITE,
           f"{held} bytes acknowledged of which the server has read nothing")
    expect(not stream.closes, "a stream closed because its remote does not read")
    peer.reading = True
    device.wait(lambda: len(peer.received) >= stream.writes * MAX_WRITE, "all bytes at the server",
                BULK)
    expect(peer.received == chunk * stream.writes, "the server has got other bytes")
    stream.wait_acks()


@check(SECTION, "What the device has not taken yet must not grow without a bound: leave it in "
       "the remote's socket.")
def device_stops_reading(env):
    device = env.device()
    server = env.server(source)
    stream = device.connect(server.endpoint)
    device.wait(lambda: stream.received, "bytes of the server")
    device.link.reading = False
    peer, taken = server.peers[0], 0
    while peer.sent_bytes < TOO_MUCH_AHEAD and env.loop.wait(
            lambda: peer.sent_bytes > taken, 1.5):
        taken = peer.sent_bytes
    device.link.reading = True
    stream.close()
    device.decoder.checks_payload = False
    device.probe()
    if peer.sent_bytes >= TOO_MUCH_AHEAD:
        raise Warned(f"{peer.sent_bytes >> 20} MiB taken from a remote while the device read "
                     "nothing: the companion's memory grows")


@check(SECTION, "A slow device gets all bytes in order.")
def device_reads_slowly(env):
    data = pattern(800000)
    device, server = env.device(), env.server(lambda peer: peer.send(data))
    stream = device.connect(server.endpoint)
    env.accept(server)
    device.link.reading = False
    env.loop.tick = 0.002

    def read_a_little():
        device.link.read_once(4000)
        return len(stream.received) >= len(data)

    device.wait(read_a_little, "all bytes at a slow device", BULK)
    device.link.reading = True
    expect(stream.received == data, differs(data, stream.received))
    device.probe()
