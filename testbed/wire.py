"""Protocol 20 as a companion sees it, written apart from the daemon's code: its
own checksum, its own field encoding, so that a shared mistake cannot hide."""

import socket
import struct
from typing import NamedTuple

from testbed.waiting import PATIENCE

TEARDOWN, HANDSHAKE_START, HANDSHAKE_ACK, HANDSHAKE_DONE = 1, 2, 3, 4
TCP_CONNECT, TCP_CONNECT_ACK, TCP_CLOSE, TCP_WRITE, TCP_WRITE_ACK = 5, 6, 7, 8, 9
UDP_SEND, UDP_FAILURE, DNS_SERVERS, PACKAGE_NAMES, NETWORK_STATE = 10, 11, 12, 13, 14

# Channel 5, companion 01:02:03:04:05:06, status 0, both sizes 990: what the device's
# Bluetooth stack puts before the first byte of the link.
CONNECTION_HEADER = bytes.fromhex(
    "05000000 0000 010203040506 00000000 00000000 DE03 DE03".replace(" ", ""))


def _crc32c_of_byte(byte):
    for _ in range(8):
        byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
    return byte


_CRC32C = [_crc32c_of_byte(byte) for byte in range(256)]


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ _CRC32C[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFFFFFF


def varint(value):
    out = b""
    while value > 0x7F:
        out += bytes([value & 0x7F | 0x80])
        value >>= 7
    return out + bytes([value])


def encode(*fields):
    """(number, int or bytes) pairs, in the order given."""
    out = b""
    for number, value in fields:
        if isinstance(value, int):
            out += varint(number << 3) + varint(value)
        else:
            out += varint(number << 3 | 2) + varint(len(value)) + value
    return out


def decode(data):
    """Field number to int or bytes. A repeated field keeps its last value."""
    fields, pos = {}, 0

    def take_varint():
        nonlocal pos
        value = shift = 0
        while True:
            byte = data[pos]
            pos += 1
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                return value

    while pos < len(data):
        tag = take_varint()
        value = take_varint()
        if tag & 7 == 2:
            value, pos = data[pos:pos + value], pos + value
        fields[tag >> 3] = value
    return fields


def endpoint(address, port):
    return encode((1, socket.inet_aton(address)), (2, port))


def frame(header, payload=b""):
    crc = crc32c(header)
    return struct.pack("<2sHHH", b"VN", len(header), len(payload),
                       (crc ^ crc >> 16) & 0xFFFF) + header + payload


def message(kind, *fields, payload=b""):
    checksum = [(2, crc32c(payload))] if payload else []
    header = encode((1, kind), *checksum, (199 + kind, encode(*fields)))
    return frame(header, payload)


class Frame(NamedTuple):
    kind: int
    fields: dict
    payload: bytes
    raw: bytes


class ScriptedCompanion:
    """The companion's end of a link, one frame at a time."""

    def __init__(self, sock):
        self.sock = sock
        self.sock.settimeout(10 * PATIENCE)

    def send(self, kind, *fields, payload=b""):
        self.sock.sendall(message(kind, *fields, payload=payload))

    def take(self, count):
        data = b""
        while len(data) < count:
            piece = self.sock.recv(count - len(data))
            if not piece:
                raise EOFError("the daemon closed the link")
            data += piece
        return data

    def receive(self):
        preamble = self.take(8)
        magic, header_size, payload_size, _ = struct.unpack("<2sHHH", preamble)
        assert magic == b"VN"
        header = self.take(header_size)
        payload = self.take(payload_size)
        top = decode(header)
        assert top.get(2, 0) == (crc32c(payload) if payload else 0)
        raw = preamble + header + payload
        assert raw == frame(header, payload), "header checksum"
        return Frame(top[1], decode(top.get(199 + top[1], b"")), payload, raw)

    def expect(self, kind):
        got = self.receive()
        assert got.kind == kind, f"expected message type {kind}, got {got}"
        return got

    def shake_hands(self):
        self.expect(HANDSHAKE_START)
        self.send(HANDSHAKE_ACK, (1, 1), (2, b"bench"))
        self.expect(HANDSHAKE_DONE)
