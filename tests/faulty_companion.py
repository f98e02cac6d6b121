"""faulty_companion.py DIRECTORY: companions with one fault each, the example one and
one of protocols 1 and 5 made of it, each at a socket file of its name; and the latter
without a fault. FAULTS says which check has to find each fault, and what it says."""

import asyncio
import contextlib
import socket
import struct
import sys

from examples import companion as example
from examples.companion import Companion, TCP_CLOSE, TCP_CONNECT
from examples.companion import TCP_WRITE, TCP_WRITE_ACK, UDP_FAILURE, UDP_SEND

FAULTS = {}  # name -> (protocol, check, words of its reason, class)


def fault(check, words, protocol=20):
    def register(made):
        FAULTS[made.__name__] = (protocol, check, words, made)
        return made
    return register


class V1(Companion):
    """The example over protocol 5; over protocol 1 with |version| 1."""
    version = 5
    max_size = 65535
    sizes = {1: 12, 2: 4, 3: 6, 4: 8, 5: 4, 8: 8, 10: 4, 12: 8, 13: 6, 14: 16, 16: 6, 18: 6}
    without_length = (1, 2, 5, 8, 12)

    async def receive(self):
        kind = (await self.reader.readexactly(1))[0]
        if kind not in self.sizes:
            raise EOFError("unknown type")
        fixed = await self.reader.readexactly(self.sizes[kind])
        length = 0 if kind in self.without_length else int.from_bytes(fixed[-2:], "big")
        return kind, fixed, await self.reader.readexactly(length)

    async def shake_hands(self):
        if self.version == 5:
            kind, fixed, _ = await self.receive()
            self.writer.write(b"\x11" + struct.pack(">IH", 5, 0))
            if kind != 16 or fixed[3] != 5:
                raise EOFError("no handshake")

    def on_message(self, kind, fixed, payload):
        fields = {1: int.from_bytes(fixed[:4], "big")}
        if kind == 1:
            super().on_message(TCP_CONNECT, {**fields, 2: self.widen(fixed[4:10])}, b"")
        elif kind in (2, 3):
            super().on_message({2: TCP_CLOSE, 3: TCP_WRITE}[kind], fields, payload)
        elif kind in (4, 14):
            ends = (b"", fixed[:6]) if kind == 4 else (fixed[:6], fixed[6:12])
            self.on_datagram(tuple(map(self.widen, ends)), payload)
        elif kind == 5:
            self.writer.write(b"\5" + fixed)
        elif kind == 8:
            self.on_pull(fixed[:4], int.from_bytes(fixed[4:], "big"))

    def on_pull(self, request, size):
        while size:
            self.writer.write(b"\x09" + request + struct.pack(">H", min(size, 5000)) +
                              bytes(min(size, 5000)))
            size -= min(size, 5000)

    @staticmethod
    def widen(wire):
        return wire and example.encode((1, wire[:4]), (2, int.from_bytes(wire[4:], "big")))

    @staticmethod
    def narrow(endpoint):
        host, port = example.parse_endpoint(endpoint)
        return socket.inet_aton(host) + struct.pack(">H", port)

    def send(self, kind, *fields, payload=b""):
        length = struct.pack(">H", len(payload))
        if kind in (TCP_CLOSE, TCP_WRITE_ACK):
            self.writer.write({TCP_CLOSE: b"\2", TCP_WRITE_ACK: b"\6"}[kind] +
                              struct.pack(">I", fields[0][1]))
        elif kind == TCP_WRITE:
            self.writer.write(b"\3" + struct.pack(">I", fields[0][1]) + length + payload)
        elif kind in (UDP_SEND, UDP_FAILURE):
            self.write_datagram(kind, [value for _, value in fields], length + payload)

    def write_datagram(self, kind, ends, tail):
        if self.version == 1:
            return self.writer.write((b"\4" if kind == UDP_SEND else b"\7") +
                                     self.narrow(ends[1]) + tail)
        uid = b"\xff\xff" if kind == UDP_SEND else b""
        self.writer.write((b"\x0e" if kind == UDP_SEND else b"\x0f") +
                          self.narrow(ends[0]) + self.narrow(ends[1]) + uid + tail)


class V1First(V1):
    version = 1


PLAIN = {"plain-1": V1First, "plain-5": V1}


async def read_loosely(reader):
    """As read_message(), but trusts every checksum."""
    _, header_size, payload_size, _ = example.PREAMBLE.unpack(await reader.readexactly(8))
    top = example.decode(await reader.readexactly(header_size))
    payload = await reader.readexactly(payload_size)
    return top[1], example.decode(top.get(199 + top[1], b"")), payload


@fault("handshake", "version 2")
class AnswersAnotherVersion(Companion):
    async def shake_hands(self):
        await self.receive()
        self.send(example.HANDSHAKE_ACK, (1, 2))


@fault("handshake", "second acknowledgement")
class AnswersTwice(Companion):
    async def shake_hands(self):
        await super().shake_hands()
        self.send(example.HANDSHAKE_ACK, (1, 1))


@fault("handshake", "before the acknowledgement")
class SpeaksFirst(Companion):
    async def shake_hands(self):
        self.send(14, (1, 7))
        await super().shake_hands()


@fault("handshake", "24 bytes wait .* sizes little-endian.*Frames")
class SendsBigEndianSizes(Companion):
    def send(self, kind, *fields, payload=b""):
        frame = example.frame(kind, *fields, payload=payload)
        self.writer.write(struct.pack("<2sHHH", *struct.unpack_from(">2sHHH", frame)) + frame[8:])


@fault("handshake", "look like protocol 5")
class SpeaksProtocol5(Companion):
    async def shake_hands(self):
        await self.receive()
        self.writer.write(b"\x11" + struct.pack(">IH", 5, 0))


@fault("handshake", "the connection header, see --header")
class SendsTheConnectionHeader(Companion):
    async def shake_hands(self):
        self.writer.write(bytes(24))
        await super().shake_hands()


@fault("handshake-pieces", "the link ended")
class WantsWholeReads(Companion):
    async def receive(self):
        read = self.reader.read

        async def read_once(size):
            data = await read(size) if size else b""
            if len(data) < size:
                raise EOFError("short read")
            return data
        self.reader.readexactly = read_once
        return await super().receive()


@fault("handshake-early-messages", "a connection from the companion")
class DropsEarlyMessages(Companion):
    async def shake_hands(self):
        await super().shake_hands()
        while (await self.receive())[0] != example.HANDSHAKE_DONE:
            pass


@fault("handshake-version", "which does not exist")
class AcceptsAnyVersion(Companion):
    async def shake_hands(self):
        self.send(example.HANDSHAKE_ACK, (1, (await self.receive())[1][1]))


@fault("handshake-none", "without a handshake", 1)
class WaitsForHandshake(V1):
    pass


@fault("stream-open", "never opened")
class MistakesStreams(Companion):
    async def send_data(self, stream, data):
        self.send(TCP_WRITE, (1, stream.id + 100), payload=data)


@fault("stream-open", "wrong header checksum.*Frames")
class SendsWrongChecksums(Companion):
    def send(self, kind, *fields, payload=b""):
        frame = bytearray(example.frame(kind, *fields, payload=payload))
        frame[6] ^= kind == TCP_WRITE
        self.writer.write(frame)


@fault("stream-open", "no payload checksum")
class SendsNoPayloadChecksum(Companion):
    def send(self, kind, *fields, payload=b""):
        header = example.encode((1, kind), (199 + kind, example.encode(*fields)))
        self.writer.write(example.PREAMBLE.pack(b"VN", len(header), len(payload),
                                                example.short_crc32c(header)) + header + payload)


@fault("stream-remote-first", "greeting")
class WaitsForTheApplication(Companion):
    async def send_data(self, stream, data):
        while not getattr(stream, "has_written", False):
            await asyncio.sleep(0.01)
        await super().send_data(stream, data)


@fault("stream-early-data", "acknowledgement")
class DropsEarlyData(Companion):
    def on_message(self, kind, fields, payload):
        if kind != TCP_WRITE or fields.get(1) not in self.streams or (
                self.streams[fields[1]].carrying):
            super().on_message(kind, fields, payload)


@fault("stream-refused", "the close of stream")
class HidesRefusal(Companion):
    def end_stream(self, stream):
        if stream.carrying:
            super().end_stream(stream)


@fault("stream-never-answers", "the connection of stream")
class ConnectsOneByOne(Companion):
    async def receive(self):
        while not all(stream.carrying for stream in self.streams.values()):
            await asyncio.sleep(0.01)
        return await super().receive()


@fault("stream-sizes", "different from byte")
class LosesTheEndOfLargeReads(Companion):
    async def send_data(self, stream, data):
        await super().send_data(stream, data[:16000])
        if len(data) > 16000:
            await super().send_data(stream, bytes(len(data) - 16000))


@fault("stream-empty-write", "acknowledgement")
class EndsAtAnEmptyWrite(Companion):
    def on_message(self, kind, fields, payload):
        super().on_message(kind, fields, payload or None)


@fault("stream-ids", "never opened")
class CutsIds(Companion):
    def send(self, kind, *fields, payload=b""):
        super().send(kind, *((number, value & 0xFFFF if isinstance(value, int) else value)
                             for number, value in fields), payload=payload)


@fault("stream-unknown", "a second TCP_CLOSE|never opened")
class AnswersUnknownStreams(Companion):
    def on_message(self, kind, fields, payload):
        if kind == TCP_WRITE and fields[1] not in self.streams:
            self.send(TCP_CLOSE, (1, fields[1]))
        super().on_message(kind, fields, payload)


@fault("stream-many", "acknowledgement|echo")
class HasFiftyStreams(Companion):
    def on_message(self, kind, fields, payload):
        if kind != TCP_CONNECT or len(self.streams) < 50:
            super().on_message(kind, fields, payload)


@fault("stream-beside-bulk", "the echo of 5 bytes on stream")
class FinishesOneStreamFirst(Companion):
    async def send_data(self, stream, data):
        while next(iter(self.streams)) != stream.id:
            await asyncio.sleep(0.01)
        await super().send_data(stream, data)


@fault("ack-each-write", "acknowledgement")
class AcknowledgesEverySecond(Companion):
    def acknowledge(self, stream):
        stream.count = getattr(stream, "count", 0) + 1
        if stream.count % 2 == 0:
            super().acknowledge(stream)


@fault("handshake-version", "acknowledgement 1 on .* the next link does not work.*Streams")
class AcknowledgesNothing(Companion):
    def acknowledge(self, stream):
        pass


@fault("ack-each-write", "credit grows")
class AcknowledgesTwice(Companion):
    def acknowledge(self, stream):
        super().acknowledge(stream)
        super().acknowledge(stream)


@fault("ack-own-stream", "acknowledgement")
class AcknowledgesAnotherStream(Companion):
    def acknowledge(self, stream):
        super().acknowledge(list(self.streams.values())[-1])


@fault("ack-only-delivered", "bytes acknowledged of which")
class AcknowledgesEarly(Companion):
    def acknowledge(self, stream):
        pass

    def on_message(self, kind, fields, payload):
        if kind != TCP_WRITE:
            return super().on_message(kind, fields, payload)
        self.streams[fields[1]].queue.put_nowait(payload)
        super().acknowledge(self.streams[fields[1]])


@fault("device-stops-reading", "memory grows")
class TakesAllOfTheRemote(Companion):
    async def send_data(self, stream, data):
        self.writer.write(b"" if self.writer.transport.get_write_buffer_size() > 1 << 20 else
                          example.frame(TCP_WRITE, (1, stream.id), payload=data))


@fault("device-reads-slowly", "all bytes")
class DropsWhenTheLinkIsFull(Companion):
    async def send_data(self, stream, data):
        # So that it is, however slow we are.
        self.writer.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
        if self.writer.transport.get_write_buffer_size() == 0:
            self.send(TCP_WRITE, (1, stream.id), payload=data)


@fault("close-by-remote", "after the close")
class ClosesTooEarly(Companion):
    async def send_data(self, stream, data):
        asyncio.get_running_loop().call_later(0.05, self.send, TCP_WRITE, (1, stream.id))
        await super().send_data(stream, data)


@fault("close-at-accept", "a second TCP_CLOSE")
class ClosesTwice(Companion):
    def end_stream(self, stream):
        super().end_stream(stream)
        self.send(TCP_CLOSE, (1, stream.id))


@fault("close-half-by-remote", "the close of stream")
class IgnoresTheEndOfRemotes(Companion):
    def end_stream(self, stream):
        pass


@fault("close-by-reset", "the link ended")
class EndsTheLinkAtAReset(Companion):
    def end_stream(self, stream):
        self.writer.close()


@fault("close-by-device", "a connection from|bytes for 32768")
class DropsWhatWaitsAtAClose(Companion):
    def on_message(self, kind, fields, payload):
        if kind == TCP_CLOSE and fields[1] in self.streams:
            self.streams[fields[1]].task.cancel()
        super().on_message(kind, fields, payload)
        if kind == TCP_CONNECT:  # takes a while to connect, so that something waits
            stream = self.streams[fields[1]]
            stream.task.cancel()
            stream.task = asyncio.create_task(self.run_late(stream, fields[2]))

    async def run_late(self, stream, remote):
        await asyncio.sleep(0.2)
        await stream.run(remote)


@fault("close-by-device", "was answered")
class AnswersCloses(Companion):
    def on_message(self, kind, fields, payload):
        if kind == TCP_CLOSE:
            self.send(TCP_CLOSE, (1, fields[1]))
        super().on_message(kind, fields, payload)


@fault("close-beside-bulk", "the end at a remote")
class GoesOnAfterAClose(Companion):
    def on_message(self, kind, fields, payload):
        if kind != TCP_CLOSE:
            super().on_message(kind, fields, payload)


@fault("close-crossing", "the link ended")
class EndsTheLinkAtAnUnknownStream(Companion):
    def on_message(self, kind, fields, payload):
        if kind == TCP_CLOSE and fields[1] not in self.streams:
            raise EOFError("unknown stream")
        super().on_message(kind, fields, payload)


@fault("datagram-echo", "an answer from")
class SwapsEndpoints(Companion):
    def send_datagram(self, kind, ends, payload):
        super().send_datagram(kind, ends[::-1], payload)


@fault("datagram-sizes", "others came back")
class CutsDatagrams(Companion):
    def send_datagram(self, kind, ends, payload):
        super().send_datagram(kind, ends, payload[:1472])


@fault("datagram-empty", "datagram 1")
class DropsEmptyDatagrams(Companion):
    def on_datagram(self, ends, payload):
        if payload:
            super().on_datagram(ends, payload)


@fault("datagram-too-large", "a frame of")
class SendsOversizeFrames(Companion):
    def on_datagram(self, ends, payload):
        super().on_datagram(ends, payload)
        self.send_datagram(UDP_SEND, ends, bytes(16385))


@fault("datagram-flows", "has an answer")
class ConfusesApplications(Companion):
    def on_datagram(self, ends, payload):
        self.first = getattr(self, "first", ends[0])
        super().on_datagram((self.first, ends[1]), payload)


class UnconnectedFlow(example.Flow):
    def __init__(self, companion, ends):
        super().__init__(companion, ends)
        self.close()
        self.socket = socket.socket(type=socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        asyncio.get_running_loop().add_reader(self.socket, self.receive)

    def send(self, payload):
        self.socket.sendto(payload, example.parse_endpoint(self.ends[1]))


@fault("datagram-stranger", "in the name of the server")
class TakesAnswersOfStrangers(Companion):
    def on_datagram(self, ends, payload):
        self.flows.setdefault(ends, UnconnectedFlow(self, ends)).send(payload)


@fault("datagram-failure", "payload of the failure")
class ReportsFailuresWithoutRequest(Companion):
    def send_datagram(self, kind, ends, payload):
        super().send_datagram(kind, ends, b"" if kind == UDP_FAILURE else payload)


@fault("datagram-failure", "nothing reports")
class ReportsNoFailures(Companion):
    def send_datagram(self, kind, ends, payload):
        if kind != UDP_FAILURE:
            super().send_datagram(kind, ends, payload)


@fault("package-names", "the link has ended")
class DislikesEmptyNames(Companion):
    def on_message(self, kind, fields, payload):
        if kind == 13 and not example.decode(fields.get(1, b"")).get(2):
            raise EOFError("no name")
        super().on_message(kind, fields, payload)


@fault("bad-magic", "the end of a link that cannot be decoded")
class HangsAtABadMagic(Companion):
    async def receive(self):
        try:
            return await super().receive()
        except EOFError:
            await asyncio.sleep(60)


@fault("bad-header-checksum", "is obeyed")
class TrustsHeaders(Companion):
    async def receive(self):
        return await read_loosely(self.reader)


@fault("bad-payload-checksum", "reach the remote")
class TrustsPayloads(TrustsHeaders):
    pass


@fault("bad-type", "neither serves the link nor ends it")
class HangsAtUnknownTypes(Companion):
    async def receive(self):
        kind, fields, payload = await super().receive()
        if kind > 14:
            await asyncio.sleep(60)
        return kind, fields, payload


@fault("device-ends", "the end of a remote's connection")
class LeavesRemotesOpen(Companion):
    async def receive(self):
        try:
            return await super().receive()
        except (EOFError, OSError):
            LEFT_OPEN.append(self.streams)
            self.streams = {}
            raise


LEFT_OPEN = []


@fault("connect-again", "a connection from the companion")
class RemembersOldStreams(Companion):
    known = set()

    def on_message(self, kind, fields, payload):
        if kind != TCP_CONNECT or fields[1] not in self.known:
            self.known.add(fields.get(1))
            super().on_message(kind, fields, payload)


@fault("teardown", "without a reason")
class EndsWithoutAReason(Companion):
    def send(self, kind, *fields, payload=b""):
        super().send(kind, *(() if kind == example.TEARDOWN else fields), payload=payload)


@fault("ping", "another ping", 5)
class ChangesPings(V1):
    def on_message(self, kind, fixed, payload):
        super().on_message(kind, fixed[::-1] if kind == 5 else fixed, payload)


@fault("pull", "asked for", 1)
class SendsOneByteMore(V1First):
    def on_pull(self, request, size):
        super().on_pull(request, size + 1)


@fault("push", "the link ended|neither|no answer", 5)
class TakesSmallPushes(V1):
    async def receive(self):
        kind, fixed, payload = await super().receive()
        if len(payload) > 16384:
            raise EOFError("too long")
        return kind, fixed, payload


@fault("datagram-echo", "the form of another version", 5)
class AnswersInTheFirstForm(V1):
    def write_datagram(self, kind, ends, tail):
        self.version = 1
        super().write_datagram(kind, ends, tail)


@fault("datagram-failure", "bytes wait to be a UDP_FAILURE_V2", 5)
class FailsWithAnOwner(V1):
    def write_datagram(self, kind, ends, tail):
        super().write_datagram(kind, ends, b"\xff\xff" + tail if kind == UDP_FAILURE else tail)


class Floods(Companion):
    """Sends without an end once a stream is asked for."""
    def on_message(self, kind, fields, payload):
        if kind == TCP_CONNECT:
            asyncio.create_task(self.send_all(fields[2]))

    async def choose(self, remote):
        return self.writer

    async def send_all(self, remote):
        with contextlib.suppress(OSError):
            writer = await self.choose(remote)
            while True:
                writer.write(self.flood)
                await writer.drain()


@fault("stream-open", "the magic 0000")
class FloodsWithJunk(Floods):
    flood = bytes(65536)


@fault("stream-open", "messages that belong to no stream")
class FloodsWithNetworks(Floods):
    flood = 3000 * example.frame(14, (1, 7))


@fault("stream-open", "acknowledgement 1")
class FloodsServers(Floods):
    flood = bytes(65536)

    async def choose(self, remote):
        return (await asyncio.open_connection(*example.parse_endpoint(remote)))[1]


async def serve_all(directory):
    made = {**PLAIN, **{name: fault[3] for name, fault in FAULTS.items()}}
    await asyncio.gather(*(example.serve(f"unix:{directory}/{name}", companion)
                           for name, companion in made.items()))


if __name__ == "__main__":
    asyncio.run(serve_all(sys.argv[1]))
