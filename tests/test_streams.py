"""TCP connections over the link, byte by byte, with a scripted companion."""

import contextlib
import socket
import struct
import subprocess

import pytest

from testbed import wire
from testbed.device import BROWSER_UID, MAIL_UID
from testbed.programs import Daemon
from testbed.waiting import wait_until


# Stream 1 of UID 0 to 198.51.100.7:80, written out by hand.
CONNECT = "08 05  E2 0C 0E  08 01  12 08 0A 04 C6 33 64 07 10 50  18 00"
# UID 0 is com.example.settings.
NAME = "08 0D  A2 0D 1A  0A 18  08 00  12 14" + b"com.example.settings".hex()
# Stream 1, and the checksum of the payload "123456789": E3069283.
WRITE = "08 08  10 83 A5 9A 98 0E  FA 0C 02  08 01"
CLOSE = "08 07  F2 0C 02  08 01"


def by_hand(header, payload=b""):
    return wire.frame(bytes.fromhex(header), payload)


def announced(companion):
    """The id of the stream that the companion is told of next."""
    frame = companion.receive()
    if frame.kind == wire.PACKAGE_NAMES:
        frame = companion.receive()
    assert frame.kind == wire.TCP_CONNECT
    return frame.fields[1]


def test_the_bytes_of_a_stream(device, start):
    daemon = start()
    daemon.ports()
    companion = daemon.companion
    # All of it literal once; the preambles after this one are built by by_hand.
    assert companion.receive().raw.hex() == "564e090000003795" "0802ca0c0408011200"
    companion.send(wire.HANDSHAKE_ACK, (1, 1))
    assert companion.receive().raw == by_hand("08 04  DA 0C 02  08 01")
    app = device.connect("198.51.100.7", 80)
    assert companion.receive().raw == by_hand(CONNECT)
    assert companion.receive().raw == by_hand(NAME)
    app.sendall(b"123456789")
    assert companion.receive().raw == by_hand(WRITE, b"123456789")
    companion.sock.sendall(by_hand("08 09  82 0D 02  08 01"))  # acknowledged
    companion.sock.sendall(by_hand(WRITE, b"123456789"))
    assert app.recv(100) == b"123456789"
    app.close()
    assert companion.receive().raw == by_hand(CLOSE)

    # The next one of the same application: a new id and no second name.
    app = device.connect("198.51.100.7", 80)
    assert companion.receive().raw == by_hand(CONNECT.replace("08 01", "08 02"))
    companion.sock.sendall(by_hand(CLOSE.replace("08 01", "08 02")))
    assert app.recv(100) == b""
    assert daemon.frames_before_later_ones() == []  # a close is not answered
    assert "D [T:2] Closed stream. RX/TX: 0/0" in daemon.log()


def test_credit_paces_the_application(device, connected):
    companion = connected.companion
    app = device.connect("198.51.100.7", 80)
    announced(companion)
    companion.expect(wire.PACKAGE_NAMES)
    data = bytes(range(256)) * 1024
    app.setblocking(False)
    sent = app.send(data)
    got = b"".join(companion.expect(wire.TCP_WRITE).payload for _ in range(8))
    assert connected.frames_before_later_ones() == []
    while len(got) < sent:  # one more for each acknowledgement, and only then
        companion.send(wire.TCP_WRITE_ACK, (1, 1))
        frame = companion.expect(wire.TCP_WRITE)
        assert frame.fields == {1: 1} and 1 <= len(frame.payload) <= 4096
        got += frame.payload
    assert got == data[:sent]


@pytest.mark.parametrize("ending", ["close", "shutdown", "reset", "end of the link"])
def test_the_end_of_an_application_waits_for_its_bytes(device, connected, ending):
    """What was written goes first, without credit as soon as there is some."""
    companion = connected.companion
    app = device.connect("198.51.100.7", 80)
    announced(companion)
    companion.expect(wire.PACKAGE_NAMES)
    for _ in range(8):
        app.sendall(b"sent")
        assert companion.expect(wire.TCP_WRITE).payload == b"sent"
    data = bytes(range(256)) * 80  # more than the four chunks that the daemon holds
    app.sendall(data)
    if ending == "shutdown":
        app.shutdown(socket.SHUT_WR)
        companion.send(wire.TCP_WRITE, (1, 1), payload=b"meanwhile")
        assert app.recv(100) == b"meanwhile"
    elif ending == "reset":
        # Bytes that a closed socket gets are answered by a reset.
        app.close()
        companion.send(wire.TCP_WRITE, (1, 1), payload=b"late")
    elif ending == "close":
        app.close()
    assert connected.frames_before_later_ones() == []
    if ending == "end of the link":
        app.close()
        companion.sock.close()
        assert connected.wait() == 0
        assert sum("[T:1] Closed stream" in line for line in connected.log()) == 1
        return
    got = b""
    while len(got) < len(data):
        companion.send(wire.TCP_WRITE_ACK, (1, 1))
        got += companion.expect(wire.TCP_WRITE).payload
    assert got == data
    assert companion.expect(wire.TCP_CLOSE).fields == {1: 1}
    companion.send(wire.TCP_WRITE_ACK, (1, 1))  # late ones hurt nobody
    companion.send(wire.TCP_WRITE, (1, 1), payload=b"late")
    assert connected.frames_before_later_ones() == []


def test_close_by_the_companion_with_data_pending(device, connected):
    companion = connected.companion
    app = device.connect("198.51.100.7", 80)
    announced(companion)
    companion.expect(wire.PACKAGE_NAMES)
    block = bytes(range(256)) * 64
    for _ in range(512):  # 8 MiB, more than the application's socket holds
        companion.send(wire.TCP_WRITE, (1, 1), payload=block)
    companion.send(wire.TCP_CLOSE, (1, 1))
    # The link is read to its end while the application has not read a byte.
    other = device.connect("198.51.100.7", 81)
    assert companion.expect(wire.TCP_CONNECT).fields[1] == 2
    companion.send(wire.TCP_WRITE, (1, 2), payload=b"overtakes")
    assert other.recv(100) == b"overtakes"
    got = bytearray()
    while piece := app.recv(65536):
        got += piece
    assert got == block * 512
    connected.wait_for_log(f"D [T:1] Closed stream. RX/TX: 0/{512 * len(block)}")
    assert connected.frames_before_later_ones() == []


def test_connection_made_straight_to_the_listener(device, connected):
    companion = connected.companion
    _, tcp, _ = connected.ports()
    straight = device.connect("127.0.0.1", tcp)
    assert straight.recv(100) == b""
    wait_until(lambda: any(line.startswith(
        "E [T:1] Unable to get original destination: ") for line in connected.log()),
        "the refusal")
    device.connect("198.51.100.7", 80)
    assert announced(companion) == 2  # the id is used up


def test_streams_before_the_handshake(device, start):
    daemon = start()
    daemon.ports()
    companion = daemon.companion
    companion.expect(wire.HANDSHAKE_START)
    app = device.connect("198.51.100.7", 80)
    assert announced(companion) == 1
    companion.expect(wire.PACKAGE_NAMES)
    companion.send(wire.TCP_WRITE, (1, 1), payload=b"too early")
    companion.send(wire.HANDSHAKE_ACK, (1, 1))
    companion.expect(wire.HANDSHAKE_DONE)
    companion.send(wire.TCP_WRITE, (1, 1), payload=b"in time")
    assert app.recv(100) == b"in time"
    assert ("W [B] Unexpected message: 'ProxySocketV2 handshake not complete',"
            " type=8") in daemon.log()


def test_messages_that_are_no_stream_s(connected):
    companion = connected.companion
    companion.sock.sendall(by_hand("08 0E  AA 0D 02  08 07"))  # network 7
    companion.send(wire.NETWORK_STATE, (1, 0xFFFFFFFF), (2, 5))
    companion.send(wire.TCP_CONNECT_ACK, (1, 1))
    companion.send(wire.DNS_SERVERS, (1, b"192.0.2.1"))
    companion.send(wire.PACKAGE_NAMES)
    broken = bytearray(wire.message(wire.TEARDOWN, (1, b"never seen")))
    broken[-1] ^= 1
    companion.sock.sendall(broken)  # skipped; the frame after it counts
    companion.send(wire.NETWORK_STATE, (1, 9))
    records = struct.pack("<iBiBBiBBiB", 0, 1, 7, 1, 1, -1, 1, 1, 9, 1)
    wait_until(lambda: connected.status() == records, "three network records")
    assert [line for line in connected.log() if line.startswith("W ")] == [
        "W [B] Unexpected message: 'ProxySocketV2 unexpected message type', type=13",
        f"W [MD] Error decoding: 'Header checksum incorrect', param={len(broken) - 8}",
    ]


def test_a_companion_that_does_not_read(make_device):
    """What waits for the link is bounded: the applications are held instead."""
    device = make_device(debuggable=True)
    daemon = Daemon(device, link_buffer=16384)
    daemon.companion.shake_hands()
    daemon.ports()
    apps = []
    for _ in range(20):
        apps.append(device.connect("198.51.100.7", 80))
        announced(daemon.companion)
    for app in apps:
        app.setblocking(False)
        app.send(bytes(65536))
    control = device.socket(socket.SOCK_DGRAM)

    def queued_frames():
        """The longest queue that the dumps so far have shown."""
        control.sendto(b"\2", ("127.0.0.1", 2374))
        return [int(line.split(": ")[1]) for line in daemon.log()
                if line.startswith("D   buf_length: ")]

    wait_until(lambda: queued_frames()[-1:] > [0], "a queue")
    # Not above 15 when a pass begins, and a pass adds one frame per stream.
    assert max(queued_frames()) <= 15 + len(apps)
    written = [daemon.companion.expect(wire.TCP_WRITE).fields[1] for _ in range(8 * 20)]
    assert {written.count(stream) for stream in range(1, 21)} == {8}
    assert daemon.frames_before_later_ones() == []
    daemon.close()


def test_more_connections_than_descriptors(make_device):
    """Those that find no descriptor are refused, one line each; then all goes on,
    and the commands that remove the rules find descriptors of their own."""
    device = make_device()
    daemon = Daemon(device, max_descriptors=40)
    daemon.companion.shake_hands()
    daemon.ports()
    apps = [device.socket(socket.SOCK_STREAM) for _ in range(60)]
    for n, app in enumerate(apps):
        try:
            app.connect(("198.51.100.7", 80))
        except ConnectionResetError:  # some see at once that they are refused
            apps[n] = None
    refusal = "W [S] Error accepting client socket: Too many open files"

    def count(text):
        return sum(text in line for line in daemon.log())

    wait_until(lambda: count("Establishing") + count(refusal) == 60, "all of them")
    refused = count(refusal)
    assert 10 < refused < 40
    for app in filter(None, apps[-refused:]):
        with pytest.raises(ConnectionResetError):
            app.recv(100)
    for app in apps[:-refused]:
        app.close()
    wait_until(lambda: count("Closed stream") == 60 - refused, "room again")
    app = device.connect("198.51.100.7", 80)
    wait_until(lambda: count("Establishing") == 60 - refused + 1, "one more")
    assert count(refusal) == refused
    apps = []
    with contextlib.suppress(ConnectionResetError):  # sometimes seen at once
        for _ in range(60):
            apps.append(device.connect("198.51.100.7", 80))
    wait_until(lambda: count(refusal) > refused, "a full table")
    daemon.close()
    assert not [line for line in daemon.log() if "failed" in line.lower()]
    assert device.rules("nat") == device.rules("mangle") == []


def test_a_port_taken_on_another_address_is_nobody_s(needs_root, device, connected):
    """An application that binds the port of another one does not pass for it."""
    mail = device.connect("198.51.100.7", 80)
    port = mail.getsockname()[1]
    assert connected.companion.expect(wire.TCP_CONNECT).fields[3] == 0
    connected.companion.expect(wire.PACKAGE_NAMES)
    script = f"""
import socket
with socket.socket() as app:
    app.bind(("127.0.0.1", {port}))
    app.connect(("198.51.100.7", 80))
"""
    device.run("/usr/bin/python3", "-c", script, uid=BROWSER_UID)
    assert connected.companion.expect(wire.TCP_CONNECT).fields[3] == 0xFFFFFFFF


def test_every_stream_says_whose_it_is(needs_root, device, connected):
    companion = connected.companion
    for uid, name in [(BROWSER_UID, b"com.example.browser"),
                      (MAIL_UID, b"com.example.mail"), (10999, b""),
                      (BROWSER_UID, None), (10999, None)]:
        app = subprocess.Popen(device.command(
            ["bash", "-c", "read -r </dev/tcp/198.51.100.7/80"], uid))
        connect = companion.expect(wire.TCP_CONNECT)
        assert connect.fields[3] == uid
        if name is not None:  # the first time only
            names = companion.expect(wire.PACKAGE_NAMES).fields
            assert wire.decode(names[1]) == {1: uid, 2: name}
        companion.send(wire.TCP_CLOSE, (1, connect.fields[1]))
        app.wait(10)
    log = connected.log()
    assert "E No packages for calling UID: 10999" in log
    assert any(line.startswith(
        "D [T:1] Establishing a new TCP stream to: 198.51.100.7:80 (uid=10123)"
        " (package=com.example.browser) (cookie=") for line in log)
