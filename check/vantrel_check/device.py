"""The device's end of one link."""

from . import message as m
from . import rules
from .loop import Channel
from .outcome import Failed, NoHandshake

# How much longer many bytes may take than an answer.
BULK = 6
# A device sends at most so many writes of a stream without an acknowledgement,
# and so many bytes in each.
CREDIT = 8
MAX_WRITE = 4096
APPLICATION = ("192.168.167.239", 40000)
_FIRST_PROBE = 0x70000001  # ids that no check uses for its own streams
_PROBE = b"probe"
_SETTLE_TIME = 0.3  # seconds
# What is kept of a companion that sends without an end.
_MAX_STREAM_BYTES = 2 << 20
_MAX_MESSAGES = 20000
_MAX_FAULTS = 100


class Stream:
    """One stream as the device knows it. Of many bytes the first are in |received|,
    all of them are counted."""

    def __init__(self, device, stream_id):
        self.id = stream_id
        self.received = bytearray()
        self.received_bytes = 0
        self.writes = self.acks = self.closes = 0
        self.is_closed_by_device = False
        self._device = device

    def write(self, data):
        """One message, whatever the credit is."""
        self.writes += 1
        self._device.send(self._device.codec.data(self.id, data))

    def write_all(self, data):
        """In chunks as a device makes them, each when there is credit for it."""
        for start in range(0, len(data), MAX_WRITE):
            self._device.wait(lambda: self.writes - self.acks < CREDIT, self.missing_ack)
            self.write(data[start:start + MAX_WRITE])

    def wait_acks(self):
        self._device.wait(lambda: self.acks == self.writes, self.missing_ack)

    def missing_ack(self):
        """For Device.wait()."""
        return f"acknowledgement {self.acks + 1} on stream {self.id}", rules.CREDIT

    def wait_close(self):
        self._device.wait(lambda: self.closes > 0, f"the close of stream {self.id}")

    def close(self):
        self.is_closed_by_device = True
        self._device.send(self._device.codec.close(self.id))


class Device:
    """Reads and judges all that comes; what no message may ever be like goes into
    |faults|. A check sends, waits, and looks at streams and |messages|."""

    def __init__(self, env, sock, codec):
        self.codec = codec
        self.decoder = self.codec.decoder()
        self.messages = []  # of the kinds that no stream takes
        self.faults = []  # a Failed each
        self.streams = {}
        self.has_shaken_hands = not self.codec.has_handshake
        self.link = Channel(env.loop, sock)
        self.link.on_data = self._on_data
        self._env = env
        self._probe = None
        self._probe_peers = 0  # of the server, once the probe is connected
        self._next_probe = _FIRST_PROBE

    # What goes out.

    def send(self, data, words=None):
        """Whole messages, or anything else with |words| for it."""
        self._env.trace.sent(data, words, self.codec)
        self.link.send(data)

    def send_piece(self, data, words):
        """As send(); what is sent next is most likely read apart."""
        self.send(data, words)
        self._env.loop.tick = 0.002
        self._env.loop.wait(lambda: self.link.is_taken() or self.link.ended, 1)
        self._env.loop.pause(0.002)

    def shake_hands(self):
        if self.has_shaken_hands:
            return self
        self.send(self.codec.handshake())
        self.wait_handshake_ack()
        return self

    def wait_handshake_ack(self):
        """Ends the handshake, after the acknowledgement has come."""
        try:
            answer = self.wait_message(m.HANDSHAKE_ACK, rule=rules.HANDSHAKE)
        except Failed as failure:
            hint = ("" if self.link.received_bytes else
                    f"; is it protocol {self._env.protocol} that the companion speaks?")
            raise NoHandshake(f"{failure}{hint}", failure.rule) from None
        if answer.fields["version"] != self.codec.handshake_version:
            raise NoHandshake(f"the acknowledgement has version {answer.fields['version']}, "
                              f"not {self.codec.handshake_version}", rules.HANDSHAKE)
        self.has_shaken_hands = True
        self.send(self.codec.handshake_done())

    def connect(self, endpoint, stream_id=None):
        """Announces a stream; ids begin at 1 and grow unless one is given."""
        stream = self.adopt(1 + len(self.streams) if stream_id is None else stream_id)
        self.send(self.codec.connect(stream.id, endpoint))
        return stream

    def adopt(self, stream_id):
        """Knows a stream that is announced by other means."""
        self.streams[stream_id] = Stream(self, stream_id)
        return self.streams[stream_id]

    # What comes in.

    def wait(self, condition, what, times=1, rule=None):
        """Until |condition()|. It fails when something else is wrong, when the link
        ends, or when that takes longer than an answer may; |times| as long where many
        bytes come over a slow link. |what| says what has not come, or is a function
        that gives (what, rule) then; |rule| is the one that asks for it."""
        seconds = times * self._env.timeout
        self._env.loop.wait(lambda: condition() or self.faults or self.link.ended, seconds)
        if self.faults:
            raise self.faults[0]
        if condition():
            return
        what, rule = what() if callable(what) else (what, rule)
        undecoded = self.decoder.undecoded()
        held = f"; {len(undecoded[1])} bytes wait to be {undecoded[0]}" if undecoded else ""
        rule = self.codec.framing if undecoded else rule
        if self.link.ended:
            raise Failed(f"the link ended ({self.link.ended}) before {what}{held}", rule)
        raise Failed(f"{what}: not within {seconds:g} s{held}", rule)

    def wait_message(self, kind, count=1, rule=None):
        """The |count|th message of a kind."""
        name = self.codec.names_of[kind]
        self.wait(lambda: len(self.of_kind(kind)) >= count,
                  name if count == 1 else f"{count} {name}", rule=rule)
        return self.of_kind(kind)[count - 1]

    def of_kind(self, kind):
        return [message for message in self.messages if message.kind == kind]

    def probe(self):
        """Two round trips on a stream of their own: the companion has handled what
        was sent before, and its answers had time to come."""
        server = self._env.probe_server
        if self._probe is None or self._probe.closes:
            self._env.trace.note("a stream that shows whether the link serves")
            self._probe_peers = len(server.peers) + 1
            self._probe = self.connect(server.endpoint, self._next_probe)
            self._next_probe += 1
        for _ in range(2):
            before = self._probe.received_bytes
            self._probe.write(_PROBE)
            self.wait(lambda: self._probe.received_bytes == before + len(_PROBE) and
                      self._probe.acks == self._probe.writes,
                      lambda: self._missing_of_probe(before))

    def _missing_of_probe(self, received_before):
        stream, server = self._probe, self._env.probe_server
        if len(server.peers) < self._probe_peers:
            where = f"stream {stream.id} to {m.in_words(server.endpoint)}"
            return f"the connection of {where}", rules.OPEN
        if stream.acks < stream.writes:
            return stream.missing_ack()
        echoed = stream.received_bytes - received_before
        return (f"the echo of {len(_PROBE)} bytes on stream {stream.id}, of which {echoed} "
                "have come", rules.BYTES)

    def settle(self):
        """As probe(), where it does not matter whether streams work already."""
        if not self._env.has_server:
            self._env.loop.pause(_SETTLE_TIME)
        else:
            try:
                self.probe()
            except Failed:
                pass
        if self.faults:
            raise self.faults[0]
        if self.link.ended:
            raise Failed(f"the link ended ({self.link.ended}) after the handshake")

    def serves_or_ends(self):
        """After input that no device sends: True if the link still serves, False if
        it has ended. Neither of both is a hang."""
        try:
            self.probe()
        except Failed as failure:
            if self.faults:
                raise
            if not self.link.ended:
                raise Failed(f"{failure}; the companion neither serves the link nor ends "
                             "it") from None
        return not self.link.ended

    def _on_data(self):
        for message in self.decoder.feed(self.link.take()):
            self._env.trace.received(message)
            self._handle(message)

    def _fault(self, text, rule):
        if len(self.faults) < _MAX_FAULTS:
            self.faults.append(Failed(text, rule))
        self._env.trace.fault(text)

    def _handle(self, message):
        if message.kind == m.BAD:
            self._fault(f"the companion sent {message.name}", message.rule)
        elif message.kind in m.FROM_DEVICE:
            self._fault(f"the companion sent {message.name}, which only a device sends",
                        rules.MESSAGE)
        elif self.codec.drops_before_handshake and not self.messages and (
                message.kind not in (m.HANDSHAKE_ACK, m.TEARDOWN)):
            self._fault(f"{message.name} before the acknowledgement of the handshake",
                        rules.HANDSHAKE)
        elif message.kind == m.HANDSHAKE_ACK and not self.codec.has_handshake:
            self._fault("an acknowledgement without a handshake: it ends the link",
                        rules.HANDSHAKE)
        elif message.kind == m.HANDSHAKE_ACK and self.of_kind(m.HANDSHAKE_ACK):
            self._fault("a second acknowledgement of the handshake", rules.HANDSHAKE)
        elif message.kind in (m.DATA, m.ACK, m.CLOSE):
            return self._handle_stream(message)
        elif message.kind in (m.DATAGRAM, m.FAILURE) and (
                message.name not in self.codec.datagram_names):
            self._fault(f"the companion sent {message.name}, the form of another version",
                        rules.DATAGRAM)
        size = len(message.raw) + len(message.payload)
        if len(self.messages) < _MAX_MESSAGES and self._env.loop.reserve(size):
            self.messages.append(message)
        else:
            self._fault(f"after {len(self.messages)} messages that belong to no stream still "
                        f"one more, {message.name}", rules.MESSAGE)

    def _handle_stream(self, message):
        stream = self.streams.get(message.fields["stream"])
        if not stream:
            self._fault(f"{message.name} for stream {message.fields['stream']}, "
                        "which the device never opened", rules.STREAM)
        elif message.kind == m.DATA:
            if stream.closes:
                self._fault(f"{message.name} after the close of stream {stream.id}: "
                            "its bytes are lost", rules.STREAM)
            self._env.loop.keep(stream.received, message.payload, _MAX_STREAM_BYTES)
            stream.received_bytes += len(message.payload)
        elif message.kind == m.ACK:
            stream.acks += 1
            if stream.acks > stream.writes:
                self._fault(f"{stream.acks} acknowledgements for {stream.writes} "
                            f"writes of stream {stream.id}: the credit grows for good",
                            rules.CREDIT)
        else:
            stream.closes += 1
            if stream.closes > 1:
                self._fault(f"a second {message.name} for stream {stream.id}", rules.STREAM)
