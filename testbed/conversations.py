"""Both ends of random TCP streams and datagrams between a device and the internet
beside it, in one thread, and what must hold of every byte that they exchange.

Bytes of a stream are told by their place in it, so one that is lost, doubled or
moved is seen when it arrives. What must have arrived at the end depends on who
ended the stream and when, see Stream.check().
"""
import contextlib
import random
import select
import socket
import struct
import time

STREAM_PORT, SLOW_STREAM_PORT, DATAGRAM_PORT = 7000, 7001, 4000
NOBODYS_PORT = 9
MAX_STREAMS = 240  # one address of the internet each, so that its server knows it
# When a stream is ended: before all is written, when its ender has written all that it
# wants to, or when all has arrived at both.
WHENS = ["at once", "sent", "complete"]
# Receive buffers of slow readers. One that holds less than a segment, of 64 KiB on the
# device, would only wait for the kernel's timers.
APPLICATION_BUFFER, REMOTE_BUFFER = 70000, 4096
# Longer than any piece, and a prime, so that no two places near each other agree.
PATTERN = random.Random(1).randbytes(131071)


def pattern(place, count):
    """|count| bytes, at most one pattern, of the endless one from |place| on."""
    place %= len(PATTERN)
    return (PATTERN[place:place + count] + PATTERN)[:count]


def limit_buffer(sock, size):
    """Before it is connected, or later it would hold more already."""
    if size:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)


def listen(port, buffer):
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    limit_buffer(listener, buffer)
    listener.bind(("", port))
    listener.listen(256)
    listener.setblocking(False)
    return listener


class End:
    """One end of a stream. It sends |wanted| bytes in all and reads when |reads|."""

    def __init__(self, rng, buffer):
        self.offset = rng.randrange(len(PATTERN))
        self.wanted = self.sent = self.got = 0
        self.sock = None
        self.reads = True
        self.saw = None  # "end" or "reset", when the other end is over
        self.ended_by = None  # "close", "shutdown" or "reset"
        self.bite = rng.choice([1 << 16, 1 << 16, 5000, 700])
        self.buffer = rng.choice([None, buffer])

    def take(self, sock):
        sock.setblocking(False)
        self.sock = sock

    def interest(self):
        if not self.sock:
            return 0
        sends = self.sent < self.wanted and not self.ended_by
        return select.POLLIN * self.reads | select.POLLOUT * sends

    def send(self):
        piece = pattern(self.offset + self.sent, min(self.wanted - self.sent, 1 << 16))
        with self.noticing():
            self.sent += self.sock.send(piece)

    def receive(self, other):
        with self.noticing():
            piece = self.sock.recv(self.bite)
            if not piece:
                self.saw = "end"
            assert self.got + len(piece) <= other.sent, "more bytes than were sent"
            assert piece == pattern(other.offset + self.got, len(piece)), (
                f"wrong bytes from {self.got} on")
            self.got += len(piece)

    @contextlib.contextmanager
    def noticing(self):
        """A stream that is over is no error; nothing is sent or read on it any more."""
        try:
            yield
        except BlockingIOError:
            pass
        except OSError:
            self.saw = "reset"
        if self.saw:
            self.close()

    def close(self):
        if self.sock:
            self.sock.close()
            self.sock = None

    def end(self, how):
        """There is no half-closed connection: this is the end of both directions."""
        self.ended_by = how
        if not self.sock:
            return
        if how == "shutdown":
            with self.noticing():
                self.sock.shutdown(socket.SHUT_WR)
            return
        if how == "reset":
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()


class Stream:
    def __init__(self, number, rng):
        self.number = number
        self.address = f"198.51.100.{number + 2}"
        self.app = End(rng, APPLICATION_BUFFER)
        self.remote = End(rng, REMOTE_BUFFER)
        self.senders = rng.choice([[self.app], [self.remote], [self.app, self.remote]])
        self.was_accepted = False
        self.was_cut = False  # the link was, while this stream was open
        self.port = SLOW_STREAM_PORT if self.remote.buffer else STREAM_PORT
        if rng.random() < .05:
            self.port = NOBODYS_PORT
        self.ending = None  # (who ends it, how, when: see WHENS)
        self.must = None  # what has to hold at the end, see _note_what_must_hold()

    def ends(self):
        return (self.app, self.remote), (self.remote, self.app)

    def is_complete(self):
        return all(end.got == other.wanted for end, other in self.ends())

    def end_if_due(self):
        if not self.ending or self.app.ended_by or self.remote.ended_by:
            return
        who, how, when = self.ending
        is_due = when == "at once" or self.is_complete() or (
            when == "sent" and who.sent == who.wanted)
        if who.sock and is_due:
            self.must = self._note_what_must_hold(who, how)
            who.end(how)

    def _note_what_must_hold(self, who, how):
        other = self.remote if who is self.app else self.app
        if how == "reset":
            return "everything" if self.is_complete() else None
        if self.is_complete():
            return "everything and a clean end"
        if who is self.remote:
            # With bytes of the application on their way it would be reset.
            is_clean = self.remote.got == self.app.wanted
            return "all that the remote sent" if is_clean else None
        if self.port == NOBODYS_PORT:
            return None
        # A closed socket that gets more is reset by the kernel.
        is_quiet = who.got == other.sent == other.wanted
        return "all that the application sent" if how == "shutdown" or is_quiet else None

    def is_over(self):
        if self.app.sock or not self.app.ended_by and not self.app.saw:
            return False
        # One that has sent nothing may not have been connected yet.
        may_not_come = (self.was_cut or self.port == NOBODYS_PORT or
                        self.app.ended_by == "reset" or self.app.sent == 0)
        return not self.remote.sock and (self.was_accepted or may_not_come)

    def check(self):
        """At the end of a stream that the link's end did not cut."""
        must = self.must or ""
        if must.startswith("everything"):
            assert self.is_complete(), f"not {must}"
        if must == "everything and a clean end":
            other = self.app if self.remote.ended_by else self.remote
            assert other.saw == "end", f"{other.saw} in place of an end"
        if must == "all that the remote sent":
            assert self.app.got == self.remote.sent, f"not {must}"
        if must == "all that the application sent":
            assert self.remote.got == self.app.sent, f"not {must}"

    def __str__(self):
        ends = ", ".join(
            f"{name}: wanted {end.wanted} sent {end.sent} got {end.got} saw {end.saw} ended by "
            f"{end.ended_by}{'' if end.sock else ', closed'}"
            for name, end in (("application", self.app), ("remote", self.remote)))
        return f"stream {self.number}: {ends}; must hold: {self.must}; cut: {self.was_cut}"


class Correspondent:
    """An application's datagrams to echoing remotes. Some may be lost; none may be
    changed, doubled, or answered from elsewhere."""

    def __init__(self, sock):
        sock.setblocking(False)
        self.sock = sock
        self.waiting = {}  # (remote, answer): how often
        self.answered = self.sent = 0

    def send(self, remote, payload):
        with contextlib.suppress(BlockingIOError):
            self.sock.sendto(payload, remote)
            key = remote, payload[::-1]
            self.waiting[key] = self.waiting.get(key, 0) + 1
            self.sent += 1

    def receive(self):
        answer, remote = self.sock.recvfrom(1 << 16)
        assert self.waiting.get((remote, answer)), f"an answer of {remote} that nobody waits for"
        self.waiting[remote, answer] -= 1
        self.answered += 1


class Conversations:
    """All of them on |device|. Servers are in the network of the caller."""

    def __init__(self, device, correspondents):
        self.device = device
        self.streams = {}  # by the address of the remote
        self._listeners = [listen(STREAM_PORT, None), listen(SLOW_STREAM_PORT, REMOTE_BUFFER)]
        self._remotes = []
        for number in range(correspondents):
            remote = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            remote.bind((f"198.51.100.{MAX_STREAMS + number + 3}", DATAGRAM_PORT))
            remote.setblocking(False)
            self._remotes.append(remote)
        self.remotes = [remote.getsockname() for remote in self._remotes]
        self.nobody = ("198.51.100.254", NOBODYS_PORT)  # takes datagrams, and does not answer
        self.correspondents = [Correspondent(device.socket(socket.SOCK_DGRAM))
                               for _ in range(correspondents)]

    def open(self, rng):
        stream = Stream(len(self.streams), rng)
        self.streams[stream.address] = stream
        app = self.device.socket(socket.SOCK_STREAM)
        limit_buffer(app, stream.app.buffer)
        stream.app.take(app)
        app.connect_ex((stream.address, stream.port))
        return stream

    def all(self):
        return list(self.streams.values())

    def cut(self):
        """The link is over, and with it every stream that is open now."""
        for stream in self.all():
            if not stream.is_over():
                stream.was_cut = True
                for end, _ in stream.ends():
                    end.reads = True

    def pump(self, seconds):
        """Everybody does what he can for so long."""
        end = time.monotonic() + seconds
        while True:
            poll = select.poll()
            handlers = {}
            self._watch(poll, handlers)
            left = max(0, end - time.monotonic())
            for fd, events in poll.poll(left * 1e3):
                handlers[fd](events)
            for stream in self.all():
                stream.end_if_due()
            if not left:
                return

    def _watch(self, poll, handlers):
        def watch(sock, events, handler):
            poll.register(sock, events)
            handlers[sock.fileno()] = handler

        for listener in self._listeners:
            watch(listener, select.POLLIN, lambda _, listener=listener: self._accept(listener))
        for remote in self._remotes:
            watch(remote, select.POLLIN, lambda _, remote=remote: self._echo(remote))
        for one in self.correspondents:
            watch(one.sock, select.POLLIN, lambda _, one=one: one.receive())
        for stream in self.all():
            for end, other in stream.ends():
                if events := end.interest():
                    watch(end.sock, events,
                          lambda events, pair=(end, other): self._serve(*pair, events))

    @staticmethod
    def _serve(end, other, events):
        if events & select.POLLOUT:
            end.send()
        # An error or a hang-up is told by the next read.
        if events & ~select.POLLOUT and end.sock and end.reads:
            end.receive(other)

    def _accept(self, listener):
        sock, _ = listener.accept()
        stream = self.streams[sock.getsockname()[0]]
        assert not stream.was_accepted, f"{stream} was opened twice"
        stream.was_accepted = True
        stream.remote.take(sock)

    @staticmethod
    def _echo(remote):
        payload, sender = remote.recvfrom(1 << 16)
        remote.sendto(payload[::-1], sender)

    def close(self):
        for stream in self.all():
            for end, _ in stream.ends():
                end.close()
        for sock in [*self._listeners, *self._remotes,
                     *(one.sock for one in self.correspondents)]:
            sock.close()
