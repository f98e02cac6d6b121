"""The end of a stream, from either side, with bytes under way."""

from ..device import CREDIT, MAX_WRITE
from ..outcome import expect
from ..registry import check
from ..servers import close_at_once, echo, greet_and_half_close, source
from .streams import differs, pattern

SECTION = "Streams"
YOURS = "Your TCP_CLOSE takes effect after everything that you sent before."
BOTH_DIRECTIONS = "TCP_CLOSE ends a stream in both directions and is not answered."


@check(SECTION, YOURS)
def close_by_remote(env):
    data = pattern(150000)

    def send_and_close(peer):
        peer.send(data)
        peer.end_writing()

    device = env.device()
    for _ in range(3):
        stream = device.connect(env.server(send_and_close).endpoint)
        stream.wait_close()
        expect(stream.received == data, differs(data, stream.received))
    device.probe()


@check(SECTION, YOURS)
def close_at_accept(env):
    device, server = env.device(), env.server(close_at_once)
    for _ in range(5):
        stream = device.connect(server.endpoint)
        stream.write(b"nobody reads this")
        stream.wait_close()
    device.probe()


@check(SECTION, "There is no half-closed state: when the remote ends its direction, the stream "
       "ends, and what the device had written is still handed on.")
def close_half_by_remote(env):
    device, server = env.device(), env.server(greet_and_half_close, reading=False)
    stream = device.connect(server.endpoint)
    for _ in range(CREDIT):
        stream.write(b"on its way ")
    peer = env.accept(server)
    stream.wait_close()
    expect(stream.received == b"greeting", "the bytes before the end are not the server's")
    peer.reading = True
    env.wait(lambda: peer.ended, "the end at a remote that has ended its own direction")
    expect(stream.acks * len(b"on its way ") <= len(peer.received),
           "bytes acknowledged that the server never got")
    device.probe()


@check(SECTION, "A connection that breaks ends its stream, and no other.")
def close_by_reset(env):
    device, server = env.device(), env.server()
    other = device.connect(env.server(echo).endpoint)
    for count in range(1, 4):
        stream = device.connect(server.endpoint)
        stream.write(b"question")
        peer = env.accept(server, count)
        device.wait(lambda: peer.received, "the question at the server")
        peer.reset()
        stream.wait_close()
    other.write(b"still there")
    device.wait(lambda: other.received == b"still there", "the echo on another stream")


@check(SECTION, BOTH_DIRECTIONS + " What the device wrote before reaches the remote.")
def close_by_device(env):
    device, server = env.device(), env.server(reading=False)
    data = pattern(MAX_WRITE * CREDIT)
    stream = device.connect(server.endpoint)
    stream.write_all(data)
    stream.close()
    peer = env.accept(server)
    device.probe()
    peer.reading = True
    env.wait(lambda: peer.ended, "the end at the remote")
    expect(peer.received == data, differs(data, peer.received))
    peer.close()
    device.probe()
    expect(stream.closes == 0, "the device's close was answered")


@check(SECTION, BOTH_DIRECTIONS)
def close_beside_bulk(env):
    device, server = env.device(), env.server(source)
    for count in range(1, 4):
        stream = device.connect(server.endpoint)
        device.wait(lambda: stream.received_bytes > 50000, "bulk bytes")
        stream.close()
        peer = env.accept(server, count)
        env.wait(lambda: peer.ended, "the end at a remote that still sends")
        device.probe()
        before = stream.received_bytes
        device.probe()
        expect(stream.received_bytes == before, "bytes of a stream that the device has closed")


@check(SECTION, "Both ends may close at once; messages for a stream that is not open are "
       "ignored, and nothing of it appears on a later stream with its id.")
def close_crossing(env):
    device, server = env.device(), env.server()
    for count in range(1, 11):
        stream = device.connect(server.endpoint, 5)
        peer = env.accept(server, count)
        expect(not stream.received, "bytes of an older stream")
        peer.send(b"last words")
        peer.close()
        if count % 2:  # the companion learns of both ends in one order or the other
            stream.wait_close()
        stream.close()
        device.probe()
