"""What no device sends. A companion may survive it or end the link; it must not
act on it, and never hang."""

import random

from .. import codec_v2
from ..codec_v1 import encode as encode_v1
from ..outcome import expect
from ..protobuf import encode
from ..registry import V1, check

SECTION = ("Errors", "Errors")
RULE = ("A companion skips what it cannot use, as the device does, or ends the link. It does not "
        "act on it, and it never hangs.")
SEED = 20


def _try_each(env, cases, look_after=None):
    """Sends each of {name: bytes} over a link that works; after an end over a new one."""
    device = None
    for name, data in cases.items():
        if not device:
            device = env.device()
            device.probe()
        device.send(data, f"bad: {name}")
        if not device.serves_or_ends():
            device = None
        if look_after:
            look_after()
    env.check_next_link()


@check(SECTION, RULE + " After a wrong magic nothing can be decoded any more: the link ends.",
       (20,))
def bad_magic(env):
    for magic in (b"NV", b"\0\0", b"vn"):
        device, server = env.device(), env.server()
        wrong = magic + env.codec.connect(1, server.endpoint)[2:]
        device.send(wrong + bytes(20000), "a frame with a wrong magic, and more")
        env.wait(lambda: device.link.ended, "the end of a link that cannot be decoded")
        expect(not server.peers, "a frame with a wrong magic is obeyed")
    env.check_next_link()


@check(SECTION, RULE + " A frame with a wrong header checksum is skipped by its sizes.", (20,))
def bad_header_checksum(env):
    server = env.server()
    frame = env.codec.connect(1, server.endpoint)
    wrong = frame[:6] + bytes([frame[6] ^ 1]) + frame[7:]
    header = encode((1, 8), (2, codec_v2.crc32c(b"VN")), (207, encode((1, 1))))
    cases = {"a header checksum off by one bit": wrong,
             "no header checksum": frame[:6] + b"\0\0" + frame[8:],
             "a wrong header checksum before a payload":
                 codec_v2.PREAMBLE.pack(b"VN", len(header), 2, 0) + header + b"VN"}
    _try_each(env, cases, lambda: expect(
        not server.peers, "a frame with a wrong header checksum is obeyed"))


@check(SECTION, RULE + " The payload is skipped when its checksum is wrong or absent.", (20,))
def bad_payload_checksum(env):
    def write(*checksum):
        header = encode((1, 8), *checksum, (207, encode((1, 1))))
        return codec_v2.frame(header, b"payload")

    for name, data in {"a wrong payload checksum": write((2, codec_v2.crc32c(b"payloaD"))),
                       "no payload checksum": write()}.items():
        device, server = env.device(), env.server()
        stream = device.connect(server.endpoint)
        peer = env.accept(server)
        stream.writes += 1  # an answer to it is as good as none
        device.send(data, f"bad: {name}")
        device.serves_or_ends()
        expect(not peer.received, f"bytes with {name} reach the remote")
    env.check_next_link()


@check(SECTION, RULE + " Header and payload have at most 16384 bytes each.", (20,))
def bad_sizes(env):
    header = encode((1, 7), (206, encode((1, 77))))
    checksum = codec_v2.short_crc32c
    long_header = header + encode((900, bytes(16400)))
    _try_each(env, {
        "a header of more than 16384 bytes": codec_v2.frame(long_header),
        "a payload of more than 16384 bytes":
            codec_v2.PREAMBLE.pack(b"VN", len(header), 65535, checksum(header)) + header +
            bytes(65535),
        "a frame without a header": codec_v2.PREAMBLE.pack(b"VN", 0, 0, 0),
        "a payload where none belongs": codec_v2.encode("TCP_CLOSE", (1, 77), payload=b"payload"),
    })


@check(SECTION, RULE + " A header may be no protobuf message.", (20,))
def bad_header(env):
    _try_each(env, {name: codec_v2.frame(header) for name, header in {
        "an endless number": b"\xff" * 30,
        "a field that is longer than the header": encode((1, 7)) + b"\xf2\x0c\x7f\x08\x01",
        "a group": b"\x08\x07\x0b\x0c",
        "a type of the wrong kind": encode((1, b"five")),
        "a message of the wrong kind": encode((1, 7), (206, 5)),
        "field 0": b"\x00\x00",
    }.items()})


@check(SECTION, RULE)
def bad_type(env):
    if env.protocol == 20:
        unknown = {f"type {number}": codec_v2.frame(encode((1, number)))
                   for number in (0, 15, 16, 100, 0xFFFFFFFF)}
        unknown["no type at all"] = codec_v2.frame(encode((2, 0)))
        wrong = {"TEARDOWN": ((1, b"enough"),), "HANDSHAKE_ACK": ((1, 1),),
                 "TCP_CONNECT_ACK": ((1, 1),), "TCP_WRITE_ACK": ((1, 1),),
                 "NETWORK_STATE": ((1, 7),), "DNS_SERVERS": ()}
        wrong = {name: codec_v2.encode(name, *fields) for name, fields in wrong.items()}
    else:
        unknown = {f"type {number}": bytes([number]) for number in (0, 19, 255)}
        wrong = {"TCP_WRITE_ACK": encode_v1("TCP_WRITE_ACK", 1),
                 "PULL_DATA": encode_v1("PULL_DATA", 1, payload=b"data"),
                 "ACTIVE_NETWORK_STATE": encode_v1("ACTIVE_NETWORK_STATE", 7, 1),
                 "HANDSHAKE_ACK": encode_v1("HANDSHAKE_ACK", 5, payload=b"more")}
    _try_each(env, {**unknown, **wrong})


@check(SECTION, RULE + " A link begins with the handshake.", (5, 20))
def bad_order(env):
    first = {"a stream before the handshake": env.codec.connect(1, env.echo_endpoint),
             "the end of the handshake first": env.codec.handshake_done(),
             "data of no stream first": env.codec.data(1, b"first")}
    for name, data in first.items():
        device = env.open_link()
        device.adopt(1)
        device.send(data, f"bad: {name}")
        device.link.end_writing()
        env.wait(lambda: device.link.ended, f"the end of a link after {name}")
        device.faults.clear()  # on a link that is no link nothing is right or wrong
    env.check_next_link()


@check(SECTION, RULE)
def bad_second_handshake(env):
    device = env.device()
    device.probe()
    device.send(env.codec.handshake_done() if env.codec.has_handshake else
                encode_v1("HANDSHAKE_DONE", 5), "bad: another end of the handshake")
    device.serves_or_ends()
    env.check_next_link()


@check(("Messages", "Frames"), "Messages come in any pieces: cut at every place.")
def cut_everywhere(env):
    device, server = env.device(), env.server()
    first, whole = device.adopt(1), b""
    first.writes = 1
    for part in (env.codec.connect(1, server.endpoint), env.codec.names((10123, b"com.example")),
                 env.codec.data(1, b"payload"), env.codec.close(1)):
        whole += part
    cuts = range(1, len(whole))
    for count, cut in enumerate(cuts, 1):
        first.writes += 1
        device.send_piece(whole[:cut], f"messages up to byte {cut}")
        device.send(whole[cut:], "the rest of them")
        peer = env.accept(server, count)
        env.wait(lambda: peer.ended, "the end at the remote")
        expect(peer.received == b"payload", f"cut at {cut}, the remote has got other bytes")
    device.probe()


@check(SECTION, RULE)
def bad_noise(env):
    noise = random.Random(SEED)
    for size in (1, 7, 100, 3000, 40000, 100, 100, 100):
        device = env.device()
        device.send(noise.randbytes(size), f"{size} random bytes")
        device.link.end_writing()
        env.wait(lambda: device.link.ended, "the end of a link whose device has gone")
        device.faults.clear()
    env.check_next_link()


@check(("Messages", "Frames"), "The largest messages are as good as others.")
def largest_message(env):
    device, server = env.device(), env.server()
    stream, size = device.connect(server.endpoint), env.codec.max_payload
    peer = env.accept(server)
    stream.write(bytes(size))
    stream.wait_acks()
    device.wait(lambda: len(peer.received) == size, f"{size} bytes at the server")


@check(("Messages", "Frames"), RULE, V1)
def unfinished_message(env):
    device = env.device()
    device.probe()
    device.send(encode_v1("TCP_DATA", 1, payload=bytes(65535))[:40000], "a part of a message")
    device.link.close()
    env.check_next_link()
