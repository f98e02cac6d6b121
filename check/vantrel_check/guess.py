"""What the first bytes of a link look like that are not of the protocol judged."""

HEADER_SIZE = 24
# The answer to a handshake of protocol 5; an acknowledgement, a close, data and a network,
# each with a number that is small.
_ANSWER_5 = b"\x11\0\0\0"
_FIRST_1 = (b"\6\0\0", b"\2\0\0", b"\3\0\0", b"\x0b\0\0")


def likeness(data):
    """In words, or ""."""
    if data[:2] == b"VN":
        return "protocol 20"
    if data[:4] == _ANSWER_5:
        return "protocol 5"
    if data.startswith(_FIRST_1):
        return "protocol 1 or 5"
    # A channel, two unused bytes, and behind the address four more and the status.
    if len(data) >= HEADER_SIZE and not any(data[1:6]) and not any(data[16:20]):
        behind = likeness(data[HEADER_SIZE:])
        return "the connection header, see --header" + (f"; then {behind}" if behind else "")
    return ""
