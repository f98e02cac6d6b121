"""What the two ends tell each other beside the traffic."""

from .. import codec_v2
from .. import message as m
from ..outcome import Skipped, expect
from ..protobuf import encode, varint
from ..registry import check


@check(("Streams", "Streams"), "Package names come at any time, also empty ones, and again. "
       "Nothing is answered.")
def package_names(env):
    device, server = env.device(), env.server()
    for name in (b"com.example", b"", b"com.example", "größe.\x07".encode(), b"\xff\xfe",
                 b"n" * 255, b"n" * 16000):
        device.send(env.codec.names((10123, name)))
    device.send(env.codec.names(*((uid, b"com.example.%d" % uid) for uid in range(10000, 10020))))
    device.connect(server.endpoint)
    env.accept(server)
    device.probe()
    expect(not [message for message in device.messages
                if message.kind not in (m.HANDSHAKE_ACK, m.NETWORK, m.DNS_SERVERS)],
           "something answers a package name")


@check(("Messages", "Streams"), "A stream may have no owner that is known.")
def unknown_owner(env):
    device = env.device()
    server = env.server()
    for count, uid in enumerate((0xFFFFFFFF, 0, 65535), 1):
        stream = device.adopt(count)
        device.send(env.codec.connect(count, server.endpoint, uid))
        peer = env.accept(server, count)
        stream.write(b"x")
        device.wait(lambda: peer.received == b"x", "the byte at the server")


@check(("Messages", "Network state"), "The network that you use now is told after the handshake, "
       "and again when it changes.")
def network_state(env):
    device = env.device()
    device.probe()
    if not device.of_kind(m.NETWORK):
        raise Skipped("the companion tells no network")


@check(("Messages", "Messages"), "Unknown fields are ignored, in the header and in a message. "
       "The order of fields is free, and a number may have more bytes than it needs.", (20,))
def unknown_fields(env):
    device, server = env.device(), env.server()
    strange = (encode((900, 7), (901, b"text")) + varint(902 << 3 | 1) + bytes(8) +
               varint(903 << 3 | 5) + bytes(4))
    remote = codec_v2.endpoint(server.endpoint)
    padded_id = b"\x08\x81\x80\x00"  # stream 1 in three bytes
    forms = (
        encode((1, 5), (204, encode((1, 1), (2, remote), (3, 10123)) + strange)) + strange,
        strange + encode((204, encode((3, 10123), (2, remote), (1, 1))), (1, 5)),
        encode((1, 5), (204, padded_id + encode((2, remote)))),
    )
    for count, header in enumerate(forms, 1):
        stream = device.adopt(1)
        device.send(codec_v2.frame(header))
        peer = env.accept(server, count)
        stream.write(b"x")
        device.wait(lambda: peer.received == b"x", "the byte at the server")
        stream.close()
        device.probe()
