"""The exchange of one check, in words and hex."""

import collections
import time

_KEPT = 40
_KEPT_AFTER_FAULT = 8
_HEX_BYTES = 32
_MAX_WORDS = 200


class Trace:
    def __init__(self):
        self._start = time.monotonic()
        self._events = collections.deque(maxlen=_KEPT)
        self._count = 0
        self._room = None  # for how many more events, once there was a fault

    def sent(self, data, words, codec):
        self._add("device    ->", words or (lambda: _describe(data, codec)), data)

    def received(self, message):
        words = message.name if message.kind == "bad" else message.in_words
        self._add("companion ->", words, message.raw)

    def note(self, text):
        self._add("note", text, b"")

    def fault(self, text):
        """What follows a fault tells less than what came before it."""
        self._add("FAULT", text, b"")
        self._room = self._room or _KEPT_AFTER_FAULT

    def _add(self, who, words, data):
        if self._room == 1:
            return
        self._room = self._room and self._room - 1
        self._count += 1
        excerpt = data[:_HEX_BYTES]
        self._events.append((time.monotonic() - self._start, who, words, excerpt, len(data)))

    def lines(self):
        left_out = self._count - len(self._events)
        lines = [f"({left_out} earlier messages left out)"] if left_out else []
        for seconds, who, words, excerpt, length in self._events:
            text = words() if callable(words) else words
            lines.append(f"{seconds:7.3f} {who} {text[:_MAX_WORDS]}")
            lines += _hex(excerpt, length)
        return lines


def describe_undecoded(decoder):
    """The bytes that are no whole message yet, in a form for the end of lines()."""
    if not decoder.undecoded():
        return []
    waits_for, data = decoder.undecoded()
    return [f"  still companion -> bytes that wait to be {waits_for}",
            *_hex(data[:_HEX_BYTES], len(data))]


def _hex(excerpt, length):
    more = f" ... ({length} bytes)" if length > len(excerpt) else ""
    return [f"        {excerpt.hex(' ')}{more}"] if excerpt else []


def _describe(data, codec):
    return "; ".join(message.in_words() for message in codec.decoder().feed(data))
