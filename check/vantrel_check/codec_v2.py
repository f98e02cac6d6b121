"""Protocol 20, as docs/protocol-v2.md has it."""

import socket
import struct

from . import message as m
from . import protobuf, rules
from .crc32c import crc32c, short_crc32c

HANDSHAKE_VERSION = 1
HANDSHAKE_REFUSED = 65535
MAX_PAYLOAD = 16384
MAX_HEADER = 16384
PREAMBLE = struct.Struct("<2sHHH")
NO_OWNER = 0xFFFFFFFF

_TYPES = {
    1: (m.TEARDOWN, "TEARDOWN"), 2: (m.HANDSHAKE, "HANDSHAKE_START"),
    3: (m.HANDSHAKE_ACK, "HANDSHAKE_ACK"), 4: (m.HANDSHAKE_DONE, "HANDSHAKE_DONE"),
    5: (m.CONNECT, "TCP_CONNECT"), 6: (m.CONNECT_ACK, "TCP_CONNECT_ACK"),
    7: (m.CLOSE, "TCP_CLOSE"), 8: (m.DATA, "TCP_WRITE"), 9: (m.ACK, "TCP_WRITE_ACK"),
    10: (m.DATAGRAM, "UDP_SEND"), 11: (m.FAILURE, "UDP_FAILURE"),
    12: (m.DNS_SERVERS, "DNS_SERVERS"), 13: (m.NAMES, "PACKAGE_NAMES"),
    14: (m.NETWORK, "NETWORK_STATE"),
}
_NUMBERS = {name: number for number, (_, name) in _TYPES.items()}
# The fields of each sub-message that is not an endpoint or a list.
_FIELDS = {
    m.TEARDOWN: [(1, "reason", b"")],
    m.HANDSHAKE: [(1, "version", 0), (2, "build", b"")],
    m.HANDSHAKE_ACK: [(1, "version", 0), (2, "build", b""), (3, "error", b"")],
    m.HANDSHAKE_DONE: [(1, "version", 0)],
    m.CONNECT: [(1, "stream", 0), (2, "remote", ()), (3, "uid", NO_OWNER)],
    m.CONNECT_ACK: [(1, "stream", 0)], m.CLOSE: [(1, "stream", 0)],
    m.DATA: [(1, "stream", 0)], m.ACK: [(1, "stream", 0)],
    m.DATAGRAM: [(1, "local", ()), (2, "remote", ())],
    m.FAILURE: [(1, "local", ()), (2, "remote", ())],
    m.NETWORK: [(1, "network", 0)],
}


def _endpoint(wire):
    fields = protobuf.decode(wire)
    address = protobuf.get(fields, 1, b"")
    family = {4: socket.AF_INET, 16: socket.AF_INET6}.get(len(address))
    host = socket.inet_ntop(family, address) if family else f"no address ({address.hex()})"
    return host, protobuf.get(fields, 2, 0)


def endpoint(remote):
    """An endpoint (host, port) as a sub-message."""
    return protobuf.encode((1, socket.inet_aton(remote[0])), (2, remote[1]))


def frame(header, payload=b""):
    preamble = PREAMBLE.pack(b"VN", len(header), len(payload), short_crc32c(header))
    return preamble + header + payload


def encode(name, *fields, payload=b""):
    """A message by the name in the document, with the fields of its sub-message."""
    number = _NUMBERS[name]
    checksum = [(2, crc32c(payload))] if payload else []
    header = protobuf.encode((1, number), *checksum,
                             (199 + number, protobuf.encode(*fields)))
    return frame(header, payload)


class Codec:
    """What a device sends, and a decoder of what it receives."""

    has_handshake = drops_before_handshake = True
    framing = rules.FRAME
    handshake_version = HANDSHAKE_VERSION
    max_datagram = max_payload = MAX_PAYLOAD
    datagram_names = ("UDP_SEND", "UDP_FAILURE")
    names_of = dict(_TYPES.values())

    def decoder(self):
        return Decoder()

    def handshake(self, version=HANDSHAKE_VERSION):
        return encode("HANDSHAKE_START", (1, version), (2, b""))

    def handshake_done(self):
        return encode("HANDSHAKE_DONE", (1, HANDSHAKE_VERSION))

    def connect(self, stream, remote, uid=10123):
        return encode("TCP_CONNECT", (1, stream), (2, endpoint(remote)), (3, uid))

    def close(self, stream):
        return encode("TCP_CLOSE", (1, stream))

    def data(self, stream, payload):
        return encode("TCP_WRITE", (1, stream), payload=payload)

    def datagram(self, local, remote, payload):
        return encode("UDP_SEND", (1, endpoint(local)), (2, endpoint(remote)), payload=payload)

    def names(self, *entries):
        return encode("PACKAGE_NAMES", *((1, protobuf.encode((1, uid), (2, name)))
                                         for uid, name in entries))


class Decoder(m.Decoder):
    """A BAD message is what a device skips or drops."""

    checks_payload = True  # the slow part, which figures leave out

    def _next(self):
        magic = bytes(self._held[:2])
        if not b"VN".startswith(magic):
            return self._lose(f"a frame with the magic {magic.hex()}", rules.FRAME)
        if len(self._held) < PREAMBLE.size:
            return None
        _, header_size, payload_size, checksum = PREAMBLE.unpack_from(self._held)
        size = PREAMBLE.size + header_size + payload_size
        if len(self._held) < size:
            return None
        raw = bytes(self._held[:size])
        del self._held[:size]
        header = raw[PREAMBLE.size:PREAMBLE.size + header_size]
        if header_size > MAX_HEADER or payload_size > MAX_PAYLOAD:
            return _bad(f"a frame of {header_size} + {payload_size} bytes", raw, rules.FRAME)
        if checksum != short_crc32c(header):
            return _bad(f"a frame with a wrong header checksum ({checksum:#06x}, not "
                        f"{short_crc32c(header):#06x})", raw, rules.FRAME)
        try:
            return self._decode(protobuf.decode(header), raw[PREAMBLE.size + header_size:], raw)
        except protobuf.Malformed:
            return _bad("a header that is no such message", raw, rules.MESSAGE)

    def _waits_for(self):
        if len(self._held) < PREAMBLE.size:
            return "a frame"
        _, header_size, payload_size, _ = PREAMBLE.unpack_from(self._held)
        text = f"a header of {header_size} bytes and a payload of {payload_size} bytes"
        swapped = sum(struct.unpack_from(">2xHH", self._held))
        return text + (": sizes little-endian?" if PREAMBLE.size + swapped <= len(self._held)
                       else "")

    def _decode(self, header, payload, raw):
        number = protobuf.get(header, 1, 0)
        if number not in _TYPES:
            return _bad(f"a message of the unknown type {number}", raw, rules.MESSAGE)
        kind, name = _TYPES[number]
        has_checksum = any(key == 2 for key, _ in header)
        if has_checksum != bool(payload):
            return _bad(f"{name} with {'a' if has_checksum else 'no'} payload checksum and "
                        f"{len(payload)} bytes of payload", raw, rules.PAYLOAD_CHECKSUM)
        checksum = protobuf.get(header, 2, 0)
        if payload and self.checks_payload and checksum != crc32c(payload):
            return _bad(f"{name} with a wrong payload checksum ({checksum:#010x}, not "
                        f"{crc32c(payload):#010x})", raw, rules.PAYLOAD_CHECKSUM)
        fields = protobuf.decode(protobuf.get(header, 199 + number, b""))
        values = {}
        for key, label, default in _FIELDS.get(kind, ()):
            if default == ():
                values[label] = _endpoint(protobuf.get(fields, key, b""))
            elif any(number == key for number, _ in fields) or label in ("stream", "version"):
                value = protobuf.get(fields, key, default)
                values[label] = value.decode(errors="replace") if default == b"" else value
        return m.Message(kind, name, values, payload, raw)


def _bad(what, raw, rule):
    return m.Message(m.BAD, what, {}, b"", raw, rule)
