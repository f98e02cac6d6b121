"""The little of protobuf that the headers of protocol 20 need."""


class Malformed(Exception):
    pass


def varint(value):
    out = bytearray()
    while value > 0x7F:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


def encode(*fields):
    """(number, int or bytes) pairs, in the order given."""
    out = b""
    for number, value in fields:
        if isinstance(value, int):
            out += varint(number << 3) + varint(value)
        else:
            out += varint(number << 3 | 2) + varint(len(value)) + value
    return out


def decode(data):
    """[(number, int or bytes)] of all fields, in order."""
    fields, pos = [], 0
    while pos < len(data):
        tag, pos = _take_varint(data, pos)
        number, wire_type = tag >> 3, tag & 7
        if wire_type == 0:
            value, pos = _take_varint(data, pos)
        else:
            if wire_type == 2:
                size, pos = _take_varint(data, pos)
            else:
                size = {1: 8, 5: 4}.get(wire_type, -1)
            if number == 0 or size < 0 or size > len(data) - pos:
                raise Malformed()
            value, pos = bytes(data[pos:pos + size]), pos + size
        fields.append((number, value))
    return fields


def _take_varint(data, pos):
    value = 0
    for shift in range(0, 70, 7):
        if pos >= len(data):
            break
        value |= (data[pos] & 0x7F) << shift
        pos += 1
        if data[pos - 1] < 0x80:
            return value, pos
    raise Malformed()


def get(fields, number, default):
    """The last value of a field, or |default|, whose type it must have."""
    values = [value for key, value in fields if key == number]
    if values and not isinstance(values[-1], type(default)):
        raise Malformed()
    return values[-1] if values else default
