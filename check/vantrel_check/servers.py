"""The remotes that a companion connects to, with what each of them does. IPv4 only,
as the link."""

import contextlib
import socket
import struct

from .loop import READ, Channel

# More than any check asks for; what comes above that is dropped.
_MAX_PEERS = 512
_MAX_DATAGRAMS = 1000
_MAX_ECHO = 1 << 20  # what waits for a companion that writes and does not read


class TcpServer:
    """Accepts connections and hands each one, a Channel, to |serve|. |peers| has them
    in the order in which they came."""

    def __init__(self, loop, address, serve=None, receive_buffer=None, reading=True):
        self._loop = loop
        self._serve = serve
        self._reading = reading
        self.peers = []
        self._sock = socket.socket()
        if receive_buffer:
            self._sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self._sock.bind((address, 0))
        self._sock.listen(256)
        self._sock.setblocking(False)
        self.endpoint = self._sock.getsockname()[:2]
        loop.add(self)

    def fileno(self):
        return self._sock.fileno()

    def wants(self):
        return READ

    def on_ready(self, _events):
        try:
            sock, _ = self._sock.accept()
        except OSError:
            return
        if len(self.peers) == _MAX_PEERS:
            sock.close()
            return
        peer = Channel(self._loop, sock)
        peer.reading = self._reading
        self.peers.append(peer)
        if self._serve:
            self._serve(peer)

    def close(self):
        self._loop.remove(self)
        self._sock.close()
        for peer in self.peers:
            peer.close()


def echo(peer):
    peer.max_unsent = _MAX_ECHO
    peer.on_data = lambda: peer.send(peer.take())


def discard(peer):
    peer.on_data = peer.take


def source(peer):
    """Sends without an end."""
    peer.source = lambda: SOURCE_BYTES


def close_at_once(peer):
    peer.close()


def greet_and_half_close(peer):
    """Says something, ends its own direction and goes on reading."""
    peer.send(b"greeting")
    peer.end_writing()


SOURCE_BYTES = bytes(range(256)) * 64


class SilentServer:
    """Never answers a connect: its queue of connections is full."""

    def __init__(self, address):
        self._sock = socket.socket()
        self._sock.bind((address, 0))
        self._sock.listen(0)
        self.endpoint = self._sock.getsockname()[:2]
        self._fillers = []
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(self.endpoint)
            self._fillers.append(filler)

    def close(self):
        for sock in (*self._fillers, self._sock):
            sock.close()


class UdpServer:
    """Takes datagrams into |received|, (payload, sender) each. |answer| makes the
    list of payloads that go back; without it nothing does."""

    def __init__(self, loop, address, answer=None):
        self._loop = loop
        self._answer = answer
        self.received = []
        self.sock = socket.socket(type=socket.SOCK_DGRAM)
        self.sock.bind((address, 0))
        self.sock.setblocking(False)
        self.endpoint = self.sock.getsockname()[:2]
        loop.add(self)

    def fileno(self):
        return self.sock.fileno()

    def wants(self):
        return READ

    def on_ready(self, _events):
        try:
            payload, sender = self.sock.recvfrom(65536)
        except OSError:
            return
        if len(self.received) == _MAX_DATAGRAMS:
            return
        self.received.append((payload, sender))
        for answer in self._answer(payload) if self._answer else ():
            with contextlib.suppress(OSError):  # as any network loses some
                self.sock.sendto(answer, sender)

    def close(self):
        self._loop.remove(self)
        self.sock.close()


def echo_datagram(payload):
    return [payload]


DNS_QUESTION = b"\7example\7invalid\0" + struct.pack(">HH", 1, 1)  # its A record


def dns_query(query_id):
    return struct.pack(">6H", query_id, 0x0100, 1, 0, 0, 0) + DNS_QUESTION


def answer_dns(query):
    """The A record 192.0.2.1, for any name."""
    if len(query) < 12:
        return []
    header = query[:2] + struct.pack(">5H", 0x8180, 1, 1, 0, 0)
    record = b"\xc0\x0c" + struct.pack(">HHIH", 1, 1, 60, 4) + socket.inet_aton("192.0.2.1")
    return [header + query[12:] + record]


def unused_endpoint(address, kind=socket.SOCK_STREAM):
    """Where nobody listens: a connect is refused."""
    with socket.socket(type=kind) as sock:
        sock.bind((address, 0))
        return sock.getsockname()[:2]
