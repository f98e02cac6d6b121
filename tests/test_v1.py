"""Protocol 1 in both forms, byte by byte, with a scripted companion."""

import random
import socket
import struct
import subprocess

import pytest

from testbed import wire
from testbed.device import BROWSER_UID, MAIL_UID
from testbed.processes import end_process
from testbed.programs import Daemon
from testbed.waiting import wait_until


NOBODY = 0xFFFFFFFF
REMOTE = socket.inet_aton("198.51.100.7")


def by_hand(text, payload=b""):
    return bytes.fromhex(text) + payload


class Link:
    """The companion's end, bytes in and out, both counted."""

    def __init__(self, daemon):
        self.sock = daemon.companion.sock
        self.take = daemon.companion.take
        self.daemon = daemon

    def send(self, text, payload=b""):
        self.sock.sendall(by_hand(text, payload))

    def expect(self, text, payload=b""):
        wanted = by_hand(text, payload)
        got = self.take(len(wanted))
        assert got == wanted, f"{got[:80].hex()} is not {wanted[:80].hex()}"

    def take_stream_data(self):
        """(stream, length) of the message that comes next, a stream's data."""
        kind, stream, length = struct.unpack(">BIH", self.take(7))
        assert kind == 3
        self.take(length)
        return stream, length


@pytest.fixture
def connect_link(device, start):
    """connect_link(version) gives a started daemon's link after its handshake."""
    def make(version):
        daemon = start(args=(version,))
        link = Link(daemon)
        if version == "5":
            link.expect("10 00000005 0000")
            link.send("11 00000005 0000")
            link.expect("12 00000005 0000")
        daemon.ports()
        return link
    return make


def udp_app(device, port):
    return device.socket(socket.SOCK_DGRAM, bind=("", port))


def stats(record):
    """{uid: (received, sent)} of the one record that follows the start word."""
    assert record[:5] == b"\0\0\0\0\2"
    size, = struct.unpack("<H", record[5:7])
    report, pos = {}, 7
    while pos < 7 + size:
        assert record[pos] == 0x0A
        entry = wire.decode(record[pos + 2:pos + 2 + record[pos + 1]])
        report[entry[1]] = (entry[2], entry[3])
        pos += 2 + record[pos + 1]
    assert pos == len(record)
    return report


@pytest.mark.parametrize("version", ["1", "5"])
def test_bytes_and_what_they_are_charged_to(device, connect_link, version):
    """Every byte that crosses the link is in the report, at its UID."""
    link = connect_link(version)
    app = device.connect("198.51.100.7", 80)
    link.expect("01 00000001 C6336407 0050 0000")
    link.expect("0A 0000 0014", b"com.example.settings")
    app.sendall(b"question")
    link.expect("03 00000001 0008", b"question")
    link.send("06 00000001")
    link.send("03 00000001 0006", b"answer")
    assert app.recv(100) == b"answer"
    sent, received = 13 + 25 + 15, 13

    datagram = udp_app(device, 5000)
    datagram.connect(("198.51.100.53", 53))  # an unconnected one has no owner
    datagram.send(b"123456789")
    if version == "1":
        link.expect("04 C6336435 0035 0009", b"123456789")
        link.send("04 C6336435 0035 0003", b"yes")
        sent, received = sent + 18, received + 12
    else:
        link.expect("0E C0A8A7EF 1388 C6336435 0035 0000 0009", b"123456789")
        link.send("0E C0A8A7EF 1388 C6336435 0035 FFFF 0003", b"yes")
        sent, received = sent + 26, received + 20
    assert datagram.recv(100) == b"yes"

    app.close()
    link.expect("02 00000001")
    app = device.connect("198.51.100.7", 81)
    link.expect("01 00000002 C6336407 0051 0000")  # and no second name
    link.send("02 00000002")
    assert app.recv(100) == b""
    sent, received = sent + 5 + 13, received + 5
    link.send("0B 00000007 00")  # network 7, not metered
    wait_until(lambda: link.daemon.status()[4:] == b"\1\7\0\0\0\0", "the network")
    daemon = link.daemon
    assert end_process(daemon.process) == 0
    expected = {0: (received, sent), NOBODY: (5 + 6, 0)}
    if version == "5":
        expected[NOBODY] = (5 + 6 + 7, 7 + 7)
    assert stats(daemon.status()[:4] + daemon.status()[10:]) == expected
    assert link.sock.recv(100) == b""  # the end, and nothing before it


def test_owners_of_both_kinds_of_flow(needs_root, device, connect_link):
    link = connect_link("5")
    for uid, name in (BROWSER_UID, b"com.example.browser"), (MAIL_UID, b"com.example.mail"):
        for _ in range(2):  # announced with every stream: the bytes differ
            app = subprocess.Popen(device.command(
                ["bash", "-c", "read -r </dev/tcp/198.51.100.7/80"], uid))
            header = link.take(13)
            assert header[0] == 1 and header[11:] == struct.pack(">H", uid)
            link.expect(f"0A {uid:04X} {len(name):04X}", name)
            link.send("02" + header[1:5].hex())
            app.wait(10)
        app = subprocess.Popen(device.command(
            ["bash", "-c", "exec 3<>/dev/udp/198.51.100.7/9; echo -n x >&3; head -c 3 <&3"],
            uid), stdout=subprocess.DEVNULL)
        header = link.take(18)
        # The one little-endian field of this protocol.
        little = struct.pack("<H", uid)
        assert header[7:] == REMOTE + b"\0\x09" + little + b"\0\1x"
        link.send("0E" + header[1:13].hex() + "0000 0003", b"ok\n")
        assert app.wait(10) == 0
    assert end_process(link.daemon.process) == 0
    report = stats(link.daemon.status())
    assert report[BROWSER_UID] == (5 * 2 + 20, (13 + 5 + 19) * 2 + 18)
    assert report[MAIL_UID] == (5 * 2 + 20, (13 + 5 + 16) * 2 + 18)


def test_two_applications_on_one_remote(device, connect_link):
    """This form names no application: answers go to the one that wrote last."""
    link = connect_link("1")
    first, second = udp_app(device, 5000), udp_app(device, 5001)
    for app in first, second:
        app.sendto(b"?", ("198.51.100.7", 4000))
        link.expect("04 C6336407 0FA0 0001", b"?")
    link.send("04 C6336407 0FA0 0001", b"2")
    assert second.recv(100) == b"2"
    first.sendto(b"?", ("198.51.100.7", 4000))
    link.expect("04 C6336407 0FA0 0001", b"?")
    link.send("04 C6336407 0FA0 0001", b"1")
    assert first.recvfrom(100) == (b"1", ("198.51.100.7", 4000))


@pytest.mark.parametrize("version, failure", [
    ("1", "07 C6336435 0035 000C"),
    ("5", "0F C0A8A7EF 1388 C6336435 0035 000C")])
def test_failures_and_the_129th_remote(device, connect_link, version, failure):
    link = connect_link(version)
    app = udp_app(device, 5000)
    query = by_hand("1234 0100 0001 0000 0000 0000")
    app.sendto(query, ("198.51.100.53", 53))
    header_size = 9 if version == "1" else 17
    link.take(header_size + len(query))
    link.send(failure, query)
    assert app.recvfrom(100) == (by_hand("1234 8105 0001 0000 0000 0000"),
                                 ("198.51.100.53", 53))
    for port in range(1, 129):
        app.sendto(b"", ("198.51.100.7", port))
    link.take(128 * header_size)
    local = "" if version == "1" else "C0A8A7EF 1388"
    kind, uid = ("04", "") if version == "1" else ("0E", "0000")
    link.send(failure, query)  # of the remote that is forgotten now
    link.send(f"{kind} {local} C6336407 0001 {uid} 0002", b"ok")
    assert app.recvfrom(100) == (b"ok", ("198.51.100.7", 1))
    evicted = [line for line in link.daemon.log() if "evicted" in line]
    assert len(evicted) == (0 if version == "1" else 1)


def test_streams_take_turns(device, connect_link):
    link = connect_link("5")
    apps = [device.connect("198.51.100.7", 80) for _ in range(3)]
    link.take(3 * 13 + 25)  # three announced, and the name of UID 0 once
    for app in apps:
        app.setblocking(False)
        app.send(bytes(65536))
    order = [link.take_stream_data()[0] for _ in range(24)]
    assert sorted(order) == [1] * 8 + [2] * 8 + [3] * 8
    for stream in 1, 2, 3, 1, 2, 3:
        link.send(f"06 {stream:08X}")
    data = [link.take_stream_data() for _ in range(6)]
    assert sorted(data) == [(1, 4096)] * 2 + [(2, 4096)] * 2 + [(3, 4096)] * 2
    # One at a time: what else the daemon had to send comes before the second.
    app = udp_app(device, 5000)
    for _ in range(2):
        app.sendto(b"", ("198.51.100.7", 9))
        link.expect("0E C0A8A7EF 1388 C6336407 0009 FFFF 0000")


def test_messages_that_the_write_limit_cuts(make_device):
    """65536 bytes and more left to write are cut to 16 bits: none may stall."""
    device = make_device(debuggable=True)
    daemon = Daemon(device, args=("5",), link_buffer=16384)
    link = Link(daemon)
    daemon.ports()
    link.expect("10 00000005 0000")
    app = udp_app(device, 5000)
    app.sendto(bytes(65507), ("198.51.100.7", 9))
    link.expect("0E C0A8A7EF 1388 C6336407 0009 FFFF FFE3", bytes(65507))
    control = device.socket(socket.SOCK_DGRAM)
    control.sendto(b"\5" + struct.pack("<I", 200000), ("127.0.0.1", 2374))
    link.expect("0C 00000000 00030D40")
    for size in 65535, 65535, 65535, 3395:
        link.expect(f"0D 00000000 {size:04X}", b"a" * size)
    wait_until(lambda: any("[B] Push 0 completed" in line for line in daemon.log()),
               "the push")
    daemon.close()


@pytest.mark.parametrize("version", ["1", "5"])
def test_no_input_ends_the_daemon_by_a_signal(device, start, version):
    random_bytes = random.Random(int(version))
    for _ in range(3):
        daemon = start(args=(version,))
        link = Link(daemon)
        daemon.ports()
        device.connect("198.51.100.7", 80)
        udp_app(device, 0).sendto(b"x", ("198.51.100.7", 9))
        try:
            for _ in range(1000):
                kind = random_bytes.choice([2, 3, 4, 5, 6, 7, 9, 11, 14, 15, 17, 200])
                link.sock.sendall(bytes([kind]) + random_bytes.randbytes(
                    random_bytes.choice([0, 4, 6, 16, 300])))
            link.sock.shutdown(socket.SHUT_WR)
        except (BrokenPipeError, ConnectionResetError):
            pass
        assert daemon.wait() == 0
