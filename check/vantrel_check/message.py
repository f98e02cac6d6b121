"""What both codecs make of the bytes of a link."""

from typing import NamedTuple

# One name for the same thing in both protocols. A codec knows what its
# protocol's document calls it.
HANDSHAKE, HANDSHAKE_ACK, HANDSHAKE_DONE = "handshake", "handshake-ack", "handshake-done"
CONNECT, CONNECT_ACK, CLOSE, DATA, ACK = "connect", "connect-ack", "close", "data", "ack"
DATAGRAM, FAILURE, NAMES, NETWORK = "datagram", "failure", "names", "network"
TEARDOWN, DNS_SERVERS = "teardown", "dns-servers"
PING, PULL_REQUEST, PULL_DATA = "ping", "pull-request", "pull-data"
PUSH_REQUEST, PUSH_DATA = "push-request", "push-data"
BAD = "bad"

# What only the device sends.
FROM_DEVICE = {HANDSHAKE, HANDSHAKE_DONE, CONNECT, NAMES, PULL_REQUEST, PUSH_REQUEST, PUSH_DATA}


class Message(NamedTuple):
    kind: str
    name: str  # in the protocol's document; of a BAD one what is wrong with it
    fields: dict  # stream, version, local, remote and so on; endpoints are (host, port)
    payload: bytes
    raw: bytes

    def in_words(self):
        parts = [f"{key} {in_words(value)}" for key, value in self.fields.items()]
        if self.payload:
            parts.append(f"{len(self.payload)} bytes")
        return f"{self.name}  {', '.join(parts)}".rstrip()


class Decoder:
    """Cuts bytes into the messages of either end. Each codec has its own _next(): the
    next whole message at the front of _held, or None. It sets _is_lost where nothing
    more can be told apart."""

    def __init__(self):
        self._held = bytearray()
        self._is_lost = False

    def feed(self, data):
        self._held += data
        while not self._is_lost and (message := self._next()):
            yield message

    def _next(self):
        raise NotImplementedError


def in_words(value):
    """A field as people write it; an endpoint as host:port."""
    return f"{value[0]}:{value[1]}" if isinstance(value, tuple) else repr(value)
