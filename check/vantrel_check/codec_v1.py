"""Protocols 1 and 5, as docs/protocol-v1.md has them."""

import socket
import struct
from typing import NamedTuple

from . import message as m
from . import rules

HANDSHAKE_VERSION = 5
MAX_PAYLOAD = 65535
MAX_DATAGRAM = 65507  # what UDP over IPv4 carries; the link itself could carry more
NO_OWNER = 65535


class _Layout(NamedTuple):
    kind: str
    name: str
    format: str  # of the fields behind the type byte
    fields: tuple  # "length" is that of the payload, which follows

    @property
    def size(self):
        return 1 + struct.calcsize(self.format)


_LAYOUTS = {
    1: _Layout(m.CONNECT, "TCP_CONNECT", ">I6sH", ("stream", "remote", "uid")),
    2: _Layout(m.CLOSE, "TCP_CLOSE", ">I", ("stream",)),
    3: _Layout(m.DATA, "TCP_DATA", ">IH", ("stream", "length")),
    4: _Layout(m.DATAGRAM, "UDP_DATAGRAM", ">6sH", ("remote", "length")),
    5: _Layout(m.PING, "PING_ECHO", ">I", ("milliseconds",)),
    6: _Layout(m.ACK, "TCP_WRITE_ACK", ">I", ("stream",)),
    7: _Layout(m.FAILURE, "UDP_FAILURE", ">6sH", ("remote", "length")),
    8: _Layout(m.PULL_REQUEST, "PULL_REQUEST", ">II", ("request", "bytes")),
    9: _Layout(m.PULL_DATA, "PULL_DATA", ">IH", ("request", "length")),
    10: _Layout(m.NAMES, "PACKAGE_NAME", ">HH", ("uid", "length")),
    11: _Layout(m.NETWORK, "ACTIVE_NETWORK_STATE", ">iB", ("network", "metered")),
    12: _Layout(m.PUSH_REQUEST, "PUSH_REQUEST", ">II", ("request", "bytes")),
    13: _Layout(m.PUSH_DATA, "PUSH_DATA", ">IH", ("request", "length")),
    14: _Layout(m.DATAGRAM, "UDP_DATAGRAM_V2", ">6s6s2sH", ("local", "remote", "uid", "length")),
    15: _Layout(m.FAILURE, "UDP_FAILURE_V2", ">6s6sH", ("local", "remote", "length")),
    16: _Layout(m.HANDSHAKE, "HANDSHAKE", ">IH", ("version", "length")),
    17: _Layout(m.HANDSHAKE_ACK, "HANDSHAKE_ACK", ">IH", ("version", "length")),
    18: _Layout(m.HANDSHAKE_DONE, "HANDSHAKE_DONE", ">IH", ("version", "length")),
}
_TYPES = {layout.name: number for number, layout in _LAYOUTS.items()}


def _endpoint(wire):
    return socket.inet_ntoa(wire[:4]), int.from_bytes(wire[4:], "big")


def _encode_endpoint(endpoint):
    return socket.inet_aton(endpoint[0]) + endpoint[1].to_bytes(2, "big")


def encode(name, *values, payload=b""):
    """A message by the name in the document; |values| are its fields without the length."""
    number = _TYPES[name]
    layout = _LAYOUTS[number]
    has_length = "length" in layout.fields
    wire = [_encode_endpoint(value) if isinstance(value, tuple) else value for value in values]
    wire += [len(payload)] if has_length else []
    return bytes([number]) + struct.pack(layout.format, *wire) + payload


class Codec:
    """What a device of one version, 1 or 5, sends, and a decoder of what it receives."""

    drops_before_handshake = False
    framing = rules.MESSAGE

    def __init__(self, version):
        self.has_handshake = version == 5
        self._names_application = version == 5
        self.handshake_version = HANDSHAKE_VERSION
        self.max_datagram = MAX_DATAGRAM
        self.max_payload = MAX_PAYLOAD
        self.datagram_names = (("UDP_DATAGRAM_V2", "UDP_FAILURE_V2") if version == 5 else
                               ("UDP_DATAGRAM", "UDP_FAILURE"))
        self.names_of = {layout.kind: layout.name for layout in _LAYOUTS.values()}
        self.names_of.update(zip((m.DATAGRAM, m.FAILURE), self.datagram_names))

    def decoder(self):
        return Decoder()

    def handshake(self, version=HANDSHAKE_VERSION):
        return encode("HANDSHAKE", version)

    def handshake_done(self):
        return encode("HANDSHAKE_DONE", HANDSHAKE_VERSION)

    def connect(self, stream, remote, uid=10123):
        return encode("TCP_CONNECT", stream, remote, uid & 0xFFFF)

    def close(self, stream):
        return encode("TCP_CLOSE", stream)

    def data(self, stream, payload):
        return encode("TCP_DATA", stream, payload=payload)

    def datagram(self, local, remote, payload):
        if not self._names_application:
            return encode("UDP_DATAGRAM", remote, payload=payload)
        uid = NO_OWNER.to_bytes(2, "little")
        return encode("UDP_DATAGRAM_V2", local, remote, uid, payload=payload)

    def names(self, *entries):
        return b"".join(encode("PACKAGE_NAME", uid & 0xFFFF, payload=name)
                        for uid, name in entries)


class Decoder(m.Decoder):
    """After a BAD message nothing more can be told apart."""

    def _next(self):
        if not self._held:
            return None
        layout = _LAYOUTS.get(self._held[0])
        if not layout:
            return self._lose(f"a message of the unknown type {self._held[0]}", rules.MESSAGE)
        if len(self._held) < layout.size:
            return None
        values = struct.unpack_from(layout.format, self._held, 1)
        fields = dict(zip(layout.fields, values))
        size = layout.size + fields.pop("length", 0)
        if len(self._held) < size:
            return None
        raw = bytes(self._held[:size])
        del self._held[:size]
        for key in fields.keys() & {"local", "remote"}:
            fields[key] = _endpoint(fields[key])
        return m.Message(layout.kind, layout.name, fields, raw[layout.size:], raw)

    def _waits_for(self):
        layout = _LAYOUTS[self._held[0]]
        if len(self._held) < layout.size:
            return f"a {layout.name} of {layout.size} bytes"
        length = bytes(self._held[layout.size - 2:layout.size])
        text = (f"a {layout.name} of {layout.size} bytes with a payload of "
                f"{int.from_bytes(length, 'big')} bytes")
        fits = layout.size + int.from_bytes(length, "little") <= len(self._held)
        return text + (": length big-endian?" if fits else "")
