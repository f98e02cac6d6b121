"""Streams: opening them, bytes in both directions, their ids."""

from .. import codec_v2, rules
from ..device import BULK, CREDIT, MAX_WRITE
from ..outcome import NoServer, expect
from ..registry import check
from ..servers import echo, source, unused_endpoint

SECTION = "Streams"
OPEN = rules.OPEN.says
MANY = 100
SIZES = (1, 2, 3, 255, 256, 1460, 4095, 4096, 4097, 16383, 16384, 16385, 65535, 65536, 200000)


def pattern(size, seed=0):
    """Bytes of all values, of which no two places look alike for long."""
    return bytes((i * 7 + (i >> 8) * 13 + seed) & 0xFF for i in range(size))


def differs(expected, got):
    """What is wrong with the bytes that came, or nothing."""
    if got == expected:
        return ""
    place = next((i for i, (a, b) in enumerate(zip(expected, got)) if a != b),
                 min(len(expected), len(got)))
    return f"{len(got)} bytes for {len(expected)}, different from byte {place} on"


@check(SECTION, OPEN, needs_server=False)
def reach_server(env):
    device, server = env.device(), env.server()
    stream = device.connect(server.endpoint)
    stream.write(b"anybody?")
    env.loop.wait(lambda: server.peers or stream.closes or device.faults or device.link.ended,
                  env.timeout)
    if stream.closes and not server.peers:
        raise NoServer(f"the companion refuses {env.address}: it answers TCP_CLOSE and makes no "
                       "connection; see --server-address here, and --allow there")
    if not (server.peers or device.faults or device.link.ended):
        raise NoServer(f"no connection to {env.address} for TCP_CONNECT within "
                       f"{env.timeout:g} s; can the companion reach this machine there? See "
                       "--server-address")
    env.accept(server)


@check(SECTION, OPEN)
def stream_open(env):
    device, first, second = env.device(), env.server(), env.server()
    streams = [device.connect(first.endpoint), device.connect(second.endpoint)]
    for stream, server in zip(streams, (first, second)):
        peer = env.accept(server)
        stream.write(b"question %d" % stream.id)
        stream.wait_acks()
        device.wait(lambda: peer.received == b"question %d" % stream.id,
                    "the question at its server")
        peer.send(b"answer %d" % stream.id)
        device.wait(lambda: len(stream.received) >= 8, "the answer at the device")
        expect(stream.received == b"answer %d" % stream.id, "the answer is another one")


@check(SECTION, "Bytes of the remote go to the device at once, also when the application has "
       "written nothing.")
def stream_remote_first(env):
    device = env.device()
    stream = device.connect(env.server(lambda peer: peer.send(b"220 ready\r\n")).endpoint)
    device.wait(lambda: stream.received == b"220 ready\r\n", "the greeting of the server")


@check(SECTION, "Writes may arrive before your connection stands: keep them.")
def stream_early_data(env):
    device, server = env.device(), env.server()
    stream = device.adopt(1)
    chunks = [pattern(MAX_WRITE, seed) for seed in range(CREDIT)]
    stream.writes = len(chunks)
    device.send(env.codec.connect(1, server.endpoint) +
                b"".join(env.codec.data(1, chunk) for chunk in chunks))
    peer = env.accept(server)
    stream.wait_acks()
    device.wait(lambda: len(peer.received) >= MAX_WRITE * CREDIT, "the early bytes at the server")
    expect(peer.received == b"".join(chunks), differs(b"".join(chunks), peer.received))


@check(SECTION, OPEN)
def stream_refused(env):
    _expect_no_connection(env, [unused_endpoint(env.address)])


@check(SECTION, OPEN)
def stream_unreachable(env):
    # No system opens a TCP connection to these, and no packet leaves it.
    _expect_no_connection(env, [("255.255.255.255", 80), ("224.0.0.1", 80), (env.address, 0)])


def _expect_no_connection(env, endpoints):
    device = env.device()
    for endpoint in endpoints:
        stream = device.adopt(1 + len(device.streams))
        stream.writes = 1
        device.send(env.codec.connect(stream.id, endpoint) + env.codec.data(stream.id, b"early"))
        stream.wait_close()
        device.probe()
        expect(stream.acks == 0, "bytes acknowledged that nobody has received")
        expect(not stream.received, "bytes from nowhere")


@check((SECTION, "Messages"), "A destination that cannot be read or used is one that cannot be "
       "reached: TCP_CLOSE.", (20,))
def stream_no_host(env):
    device = env.device()
    destinations = [(), ((1, b"\x7f\0\0\1"), (2, 65536 + env.echo_endpoint[1])),
                    ((1, b"\x7f\0\1"), (2, 80)), ((2, 80),)]
    for destination in destinations:
        stream = device.adopt(1 + len(device.streams))
        fields = (2, codec_v2.protobuf.encode(*destination))
        device.send(codec_v2.encode("TCP_CONNECT", (1, stream.id), fields))
        stream.wait_close()
    device.probe()


@check(SECTION, "A remote that never answers holds up nothing else, and its writes are not "
       "acknowledged. The device may close such a stream.")
def stream_never_answers(env):
    device = env.device()
    stream = device.connect(env.silent_server().endpoint)
    for _ in range(CREDIT):
        stream.write(b"early")
    device.probe()
    expect(stream.acks == 0, "bytes acknowledged that nobody has received")
    expect(not stream.closes, "closed before a connect can have timed out")
    stream.close()
    server = env.server()
    again = device.connect(server.endpoint, stream.id)
    env.accept(server)
    again.write(b"another remote")
    again.wait_acks()


@check(SECTION, "All bytes arrive in both directions, in order, whatever their number.")
def stream_sizes(env):
    device, server = env.device(), env.server(echo)
    stream, expected = device.connect(server.endpoint), b""
    for size in SIZES:
        expected += pattern(size, size)
        stream.write_all(pattern(size, size))
        device.wait(lambda: len(stream.received) >= len(expected), f"the echo of {size} bytes",
                    BULK)
    expect(stream.received == expected, differs(expected, stream.received))


@check(("Messages", SECTION), "A write without bytes is a whole message, and is acknowledged.")
def stream_empty_write(env):
    device = env.device()
    stream = device.connect(env.echo_endpoint)
    for data in (b"", b"behind it", b""):
        stream.write(data)
        stream.wait_acks()
    device.wait(lambda: stream.received == b"behind it", "the bytes behind an empty write")


@check(SECTION, "Ids are 32-bit numbers; they wrap, so 0 is one, too. An id is free again "
       "when its stream has ended.")
def stream_ids(env):
    device, server = env.device(), env.server()
    for count, stream_id in enumerate((7, 3, 0xFFFFFFFF, 0, 0x80000000, 7, 7, 3), 1):
        stream = device.connect(server.endpoint, stream_id)
        peer = env.accept(server, count)
        stream.write(b"stream")
        stream.wait_acks()
        peer.send(b"answer")
        device.wait(lambda: stream.received == b"answer", f"the answer on stream {stream_id}")
        if count % 2:
            stream.close()
            env.wait(lambda: peer.ended, "the end at the remote")
        else:
            peer.close()
            stream.wait_close()
        device.probe()


@check(SECTION, "Ignore messages for streams that are not open, as the device does.")
def stream_unknown(env):
    device = env.device()
    ended = device.connect(env.echo_endpoint)
    ended.write(b"x")
    device.wait(lambda: ended.received == b"x", "the echo")
    ended.close()
    device.probe()
    # Answers for the others would be for streams that never were: a fault.
    for stream_id in (ended.id, 4242, 0):
        device.send(env.codec.data(stream_id, b"late") + env.codec.close(stream_id))
    device.probe()
    expect(ended.acks <= 1, "a write to an ended stream acknowledged")


@check(SECTION, f"Streams do not mix: {MANY} at the same time, each with its own bytes.")
def stream_many(env):
    device, server = env.device(), env.server(echo)
    streams = [device.connect(server.endpoint) for _ in range(MANY)]
    for turn in range(3):
        for stream in streams:
            stream.write(pattern(50 + turn, stream.id))
    for stream in streams:
        expected = b"".join(pattern(50 + turn, stream.id) for turn in range(3))
        device.wait(lambda: len(stream.received) >= len(expected),
                    f"the echo on stream {stream.id}")
        expect(stream.received == expected, f"stream {stream.id} has got other bytes")
        stream.wait_acks()
    for stream in streams[::2]:
        stream.close()
    for stream in streams[1::2]:
        stream.write(b"still there")
        stream.wait_acks()
    device.probe()


@check(SECTION, "To keep the link fair, send one message of each stream in turns: a busy "
       "stream holds up no other.")
def stream_beside_bulk(env):
    device = env.device()
    bulk = device.connect(env.server(source).endpoint)
    device.wait(lambda: bulk.received_bytes > 100000, "bulk bytes")
    for _ in range(3):
        device.probe()
    bulk.close()
    device.probe()
