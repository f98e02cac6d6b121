"""Moves the bytes of all sockets while a check waits for something.

One thread does everything: a check says what it waits for, and meanwhile the
link is read, servers accept and answer. So the device never stops reading
because the checker is busy elsewhere, and no check needs a lock.
"""

import fcntl
import select
import socket
import struct
import termios
import time

READ, WRITE = select.POLLIN, select.POLLOUT
CHUNK = 65536
# What checks may look at later, of all ends together. A companion that sends without an
# end is no reason to keep it all.
_KEPT = 64 << 20


class Loop:
    def __init__(self):
        self._watched = []
        self._room = _KEPT
        self.tick = 0.05  # seconds; a condition may depend on the time, too

    def add(self, watched):
        """|watched| has fileno(), wants() -> READ | WRITE and on_ready(events)."""
        self._watched.append(watched)

    def remove(self, watched):
        if watched in self._watched:
            self._watched.remove(watched)

    def keep(self, kept, data, most=_KEPT):
        """Appends to |kept| what of |data| has room, in |most| bytes and beside all that
        is kept elsewhere."""
        count = max(min(len(data), most - len(kept), self._room), 0)
        kept += data[:count]
        self._room -= count

    def forget(self, kept):
        self._room += len(kept)
        kept.clear()

    def reserve(self, size):
        """Whether |size| more bytes may be kept; they are counted then."""
        if size > self._room:
            return False
        self._room -= size
        return True

    def wait(self, condition, seconds):
        """Whether |condition()| came true within |seconds|."""
        deadline = time.monotonic() + seconds
        while not condition():
            left = deadline - time.monotonic()
            if left <= 0:
                return False
            self._turn(left)
        return True

    def pause(self, seconds):
        """Lets everything go on for |seconds|."""
        self.wait(lambda: False, seconds)

    def _turn(self, seconds):
        poller, by_fd = select.poll(), {}
        for watched in self._watched:
            # Without a wish an end or an error would be reported without pause.
            if watched.wants():
                poller.register(watched, watched.wants())
                by_fd[watched.fileno()] = watched
        for fd, events in poller.poll(min(seconds, self.tick) * 1000):
            if by_fd[fd] in self._watched:
                by_fd[fd].on_ready(events)


class Channel:
    """A connected stream socket with buffers in both directions.

    |received| is emptied by whoever reads it, and what has no room there is only
    counted; |on_data| is called when it has more. |ended| is "" while the other end may
    still send, then the reason. |source|, if there is one, is asked for more bytes
    whenever all are written. Nothing is read while |max_unsent| bytes wait to be
    written.
    """

    def __init__(self, loop, sock):
        self.sock = sock
        self.reading = True
        self.max_unsent = None
        self.received = bytearray()
        self.received_bytes = self.sent_bytes = 0
        self.ended = ""
        self.source = self.on_data = None
        self._out = bytearray()
        self._ends_writing = False
        self._loop = loop
        sock.setblocking(False)
        if sock.family in (socket.AF_INET, socket.AF_INET6):
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        loop.add(self)

    def fileno(self):
        return self.sock.fileno()

    def wants(self):
        has_more = self._out or self.source or self._ends_writing
        reads = self.reading and not self.ended and (
            self.max_unsent is None or len(self._out) < self.max_unsent)
        return (READ if reads else 0) | (WRITE if has_more else 0)

    def on_ready(self, events):
        if events & WRITE and (self._out or self.source or self._ends_writing):
            self._write()
        if self.reading and not self.ended and events & ~WRITE:
            self.read_once()

    def read_once(self, size=CHUNK):
        """Takes what is there, at most |size| bytes; returns how many."""
        try:
            data = self.sock.recv(size)
        except (BlockingIOError, InterruptedError):
            return 0
        except OSError as error:
            self.ended = error.strerror or str(error)
            return 0
        if not data:
            self.ended = "closed"
            return 0
        self._loop.keep(self.received, data)
        self.received_bytes += len(data)
        if self.on_data:
            self.on_data()
        return len(data)

    def take(self):
        """All that was received and not taken before."""
        data = bytes(self.received)
        self._loop.forget(self.received)
        return data

    def send(self, data):
        self._out += data
        if self._out:
            self._write()

    def _write(self):
        if not self._out and self.source:
            self._out += self.source()
        try:
            count = self.sock.send(self._out) if self._out else 0
        except (BlockingIOError, InterruptedError):
            return
        except OSError as error:
            self.ended = self.ended or error.strerror or str(error)
            self._out.clear()
            self.source = None
            self._ends_writing = False
            return
        self.sent_bytes += count
        del self._out[:count]
        if self._ends_writing and not self._out and not self.source:
            self._ends_writing = False
            self.sock.shutdown(socket.SHUT_WR)

    def is_taken(self):
        """Whether the other end has read all that was sent, where that can be known."""
        if self.sock.family != socket.AF_UNIX:
            return not self._out
        return not self._out and not any(fcntl.ioctl(self.sock, termios.TIOCOUTQ, bytes(4)))

    def end_writing(self):
        """The end of this direction, behind everything that was sent."""
        self._ends_writing = True

    def reset(self):
        """Closes at once, over TCP with a reset."""
        if self.sock.family in (socket.AF_INET, socket.AF_INET6):
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()

    def close(self):
        self._loop.remove(self)
        self.sock.close()
