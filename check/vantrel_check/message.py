"""What both codecs make of the bytes of a link."""

from typing import NamedTuple

from . import guess

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
    rule: object = None  # which a BAD one breaks

    def in_words(self):
        parts = [f"{key} {in_words(value)}" for key, value in self.fields.items()]
        if self.payload:
            parts.append(f"{len(self.payload)} bytes")
        return f"{self.name}  {', '.join(parts)}".rstrip()


class Decoder:
    """Cuts bytes into the messages of either end. Each codec has its own _next(): the
    next whole message at the front of _held, or None."""

    def __init__(self):
        self._held = bytearray()
        self._is_lost = False
        self._is_first = True

    def feed(self, data):
        if self._is_lost:
            return
        self._held += data
        while not self._is_lost and (message := self._next()):
            self._is_first = False
            yield message

    def undecoded(self):
        """(what these bytes are the beginning of, the bytes), or nothing."""
        return (self._waits_for(), bytes(self._held)) if self._held else None

    def _next(self):
        raise NotImplementedError

    def _waits_for(self):
        raise NotImplementedError

    def _lose(self, what, rule):
        """The BAD message behind which nothing can be told apart any more."""
        held, self._held, self._is_lost = bytes(self._held), bytearray(), True
        likeness = guess.likeness(held) if self._is_first else ""
        hint = f"; these bytes look like {likeness}" if likeness else ""
        return Message(BAD, what + hint, {}, b"", held, rule)


def in_words(value):
    """A field as people write it; an endpoint as host:port."""
    return f"{value[0]}:{value[1]}" if isinstance(value, tuple) else repr(value)
