#!/usr/bin/python3
"""A small companion for protocol 20: companion.py unix:PATH | tcp:HOST:PORT

It opens whatever connections a device asks for, also to this machine itself:
run it only where that does no harm. docs/writing-a-companion.md explains it.
"""

import asyncio
import socket
import struct
import sys

TEARDOWN, HANDSHAKE_START, HANDSHAKE_ACK, HANDSHAKE_DONE, TCP_CONNECT = range(1, 6)
TCP_CLOSE, TCP_WRITE, TCP_WRITE_ACK, UDP_SEND, UDP_FAILURE = range(7, 12)
VERSION, REFUSED = 1, 65535
MAX_SIZE, CREDIT, MAX_FLOWS = 16384, 8, 256
PREAMBLE = struct.Struct("<2sHHH")
BAD = (KeyError, OSError, OverflowError, TypeError, ValueError)  # what strange fields raise


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ TABLE[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFFFFFF if data else 0


def short_crc32c(data):
    crc = crc32c(data)
    return (crc ^ crc >> 16) & 0xFFFF


TABLE = list(range(256))
for _ in range(8):
    TABLE = [entry >> 1 ^ (0x82F63B78 if entry & 1 else 0) for entry in TABLE]


def varint(value):
    out = b""
    while value > 127:
        out, value = out + bytes([value & 127 | 128]), value >> 7
    return out + bytes([value])


def encode(*fields):
    """Protobuf: (number, int or bytes) pairs."""
    return b"".join(varint(number << 3) + varint(value) if isinstance(value, int) else
                    varint(number << 3 | 2) + varint(len(value)) + value
                    for number, value in fields)


def decode(data):
    """{number: int or bytes}. Bytes that are no protobuf are a ValueError."""
    fields, pos = {}, 0

    def take_varint():
        nonlocal pos
        value = shift = 0
        while pos < len(data) and shift < 70:
            value, shift, pos = value | (data[pos] & 127) << shift, shift + 7, pos + 1
            if data[pos - 1] < 128:
                return value
        raise ValueError("a number without an end")

    while pos < len(data):
        number, wire_type = divmod(take_varint(), 8)
        if wire_type == 0:
            fields[number] = take_varint()
            continue
        size = take_varint() if wire_type == 2 else {1: 8, 5: 4}.get(wire_type, MAX_SIZE)
        if size > len(data) - pos:
            raise ValueError("a field without an end")
        fields[number], pos = data[pos:pos + size], pos + size
    return fields


def frame(kind, *fields, payload=b""):
    checksum = [(2, crc32c(payload))] if payload else []
    header = encode((1, kind), *checksum, (199 + kind, encode(*fields)))
    return PREAMBLE.pack(b"VN", len(header), len(payload), short_crc32c(header)) + header + payload


async def read_message(reader):
    """(kind, fields, payload). Kind 0 is a frame to skip. At the end an EOFError."""
    magic, header_size, payload_size, checksum = PREAMBLE.unpack(await reader.readexactly(8))
    if magic != b"VN":
        raise EOFError("bad magic")
    header = await reader.readexactly(header_size)
    payload = await reader.readexactly(payload_size)
    if max(header_size, payload_size) <= MAX_SIZE and checksum == short_crc32c(header):
        try:
            top = decode(header)
            if top.get(2, 0) == crc32c(payload):
                return top[1], decode(top.get(199 + top[1], b"")), payload
        except BAD:
            pass
    return 0, {}, b""


def parse_endpoint(wire):
    fields = decode(wire)
    return socket.inet_ntoa(fields[1]), fields[2]


class Stream:
    """One TCP connection. Its remote's bytes go to the link, its queue to the remote."""

    def __init__(self, companion, stream_id):
        self.companion, self.id = companion, stream_id
        self.queue = asyncio.Queue()  # of writes, at most the credit; None is the end
        self.carrying = None

    async def run(self, remote):
        try:
            reader, writer = await asyncio.open_connection(*parse_endpoint(remote))
        except BAD:
            return self.companion.end_stream(self)
        writer.transport.set_write_buffer_limits(high=0)  # drain() waits for the kernel
        self.carrying = asyncio.create_task(self.carry(reader))
        try:
            while (data := await self.queue.get()) is not None:
                writer.write(data)
                await writer.drain()
                self.companion.acknowledge(self)
        except OSError:  # the remote takes no more, but what it said may still come
            await self.carrying
        finally:
            self.carrying.cancel()
            writer.close()

    async def carry(self, reader):
        try:
            while data := await reader.read(self.companion.max_size):
                await self.companion.send_data(self, data)
        except OSError:
            pass
        self.companion.end_stream(self)

    def finish(self):
        """Nothing more to the device; what waits still goes to the remote."""
        self.queue.put_nowait(None)
        if self.carrying:
            self.carrying.cancel()


class Flow:
    """The datagrams between one application and one remote."""

    def __init__(self, companion, ends):
        self.companion, self.ends, self.request = companion, ends, b""
        self.socket = socket.socket(type=socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        # A connected socket takes answers of this remote only, and hears of failures.
        self.socket.connect(parse_endpoint(ends[1]))
        asyncio.get_running_loop().add_reader(self.socket, self.receive)

    def send(self, payload):
        self.request = payload
        try:
            self.socket.send(payload)
        except OSError:
            self.companion.send_datagram(UDP_FAILURE, self.ends, payload)

    def receive(self):
        try:
            payload = self.socket.recv(65536)
        except OSError:
            return self.companion.send_datagram(UDP_FAILURE, self.ends, self.request)
        if len(payload) <= self.companion.max_size:
            self.companion.send_datagram(UDP_SEND, self.ends, payload)

    def close(self):
        asyncio.get_running_loop().remove_reader(self.socket)
        self.socket.close()


class Companion:
    """One link."""
    max_size = MAX_SIZE

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer
        self.streams, self.flows = {}, {}

    async def receive(self):
        return await read_message(self.reader)

    def send(self, kind, *fields, payload=b""):
        self.writer.write(frame(kind, *fields, payload=payload))

    async def send_data(self, stream, data):
        self.send(TCP_WRITE, (1, stream.id), payload=data)
        await self.writer.drain()  # who does not read the link stops the remotes

    def acknowledge(self, stream):
        if self.streams.get(stream.id) is stream:
            self.send(TCP_WRITE_ACK, (1, stream.id))

    def end_stream(self, stream):
        if self.streams.get(stream.id) is stream:
            self.send(TCP_CLOSE, (1, stream.id))
            self.streams.pop(stream.id).finish()

    def send_datagram(self, kind, ends, payload):
        self.send(kind, (1, ends[0]), (2, ends[1]), payload=payload)

    def on_message(self, kind, fields, payload):
        stream_id = fields.get(1, 0)
        if kind == TCP_CONNECT and stream_id not in self.streams:
            stream = self.streams[stream_id] = Stream(self, stream_id)
            stream.task = asyncio.create_task(stream.run(fields.get(2, b"")))
        elif kind == TCP_WRITE and stream_id in self.streams:
            stream = self.streams[stream_id]
            stream.queue.put_nowait(payload)
            if stream.queue.qsize() > CREDIT:  # no device does that
                self.end_stream(stream)
        elif kind == TCP_CLOSE and stream_id in self.streams:
            self.streams.pop(stream_id).finish()
        elif kind == UDP_SEND:
            self.on_datagram((fields.get(1, b""), fields.get(2, b"")), payload)

    def on_datagram(self, ends, payload):
        if ends not in self.flows:
            try:
                self.flows[ends] = Flow(self, ends)
            except BAD:
                return self.send_datagram(UDP_FAILURE, ends, payload)
            if len(self.flows) > MAX_FLOWS:
                self.flows.pop(next(iter(self.flows))).close()
        self.flows[ends].send(payload)

    async def shake_hands(self):
        kind, fields, _ = await self.receive()
        if kind != HANDSHAKE_START or fields.get(1, 0) != VERSION:
            self.send(HANDSHAKE_ACK, (1, REFUSED), (3, b"another protocol or version"))
            raise EOFError("no handshake")
        self.send(HANDSHAKE_ACK, (1, VERSION), (2, b"example"))

    async def run(self):
        try:
            await self.shake_hands()
            while True:
                self.on_message(*await self.receive())
                await self.writer.drain()
        except EOFError as error:  # bad bytes, or the device has gone and hears nothing
            self.send(TEARDOWN, (1, str(error).encode()))
        except OSError:
            pass
        for part in self.streams.values():
            part.finish()
        for part in self.flows.values():
            part.close()
        self.writer.close()


async def serve(address, companion=Companion):
    kind, _, where = address.partition(":")
    if kind == "unix":
        server = await asyncio.start_unix_server(lambda *ends: companion(*ends).run(), where)
    else:
        host, _, port = where.rpartition(":")
        server = await asyncio.start_server(lambda *ends: companion(*ends).run(), host, port)
    await server.serve_forever()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    asyncio.run(serve(sys.argv[1]))
