"""The dissector's reading of what crossed the link, against what was sent.

The exchange is a script: this test is the companion, a script in the daemon's
place sends the rest, and vantrel-launch records between the two. tshark then
reads the file with wireshark/vantrel.lua."""

import socket
import subprocess
import xml.etree.ElementTree

import pytest

from testbed import wire
from testbed.programs import BIN_DIR, SOURCE_DIR

IN, OUT = 1, 2

# Reads the connection header, sends its side, waits for the other side.
DAEMON = """#!/usr/bin/python3
import os, socket
link = socket.socket(fileno=0)
link.recv(24, socket.MSG_WAITALL)
link.sendall({out!r})
os.write(1, bytes(4))
link.recv({size}, socket.MSG_WAITALL)
"""


def record(tmp_path, protocol, chunk, exchange):
    """Lets |exchange| happen in pieces of |chunk| bytes; the capture's path."""
    sent = {side: b"".join(data for to, data, _ in exchange if to == side)
            for side in (IN, OUT)}
    daemon = tmp_path / "daemon"
    daemon.write_text(DAEMON.format(out=sent[OUT], size=len(sent[IN])))
    daemon.chmod(0o755)
    capture = tmp_path / "link.pcapng"
    link, far_end = socket.socketpair()
    with link, far_end:
        launcher = subprocess.Popen(
            [BIN_DIR / "vantrel-launch", "--protocol", protocol,
             "--daemon", daemon, "--lock", tmp_path / "lock", "--capture", capture,
             "--shape", f"rate=100Mbit,chunk={chunk}",
             f"fd:{far_end.fileno()}"], pass_fds=[far_end.fileno()], stdout=subprocess.DEVNULL)
        link.settimeout(20)
        link.sendall(sent[IN])
        assert link.makefile("rb").read(len(sent[OUT])) == sent[OUT]
        assert launcher.wait(timeout=20) == 0
    return capture


def dissect(capture, *options):
    """By direction, the messages in order: name of a field to its values."""
    pdml = subprocess.run(
        ["tshark", "-X", f"lua_script:{SOURCE_DIR}/wireshark/vantrel.lua", "-r", capture, "-T", "pdml", *options],
        check=True, timeout=120, capture_output=True)
    assert b"Lua" not in pdml.stderr, pdml.stderr
    assert b"Lua Error" not in pdml.stdout
    messages = {IN: [], OUT: []}
    for packet in xml.etree.ElementTree.fromstring(pdml.stdout):
        for message in packet.findall("proto[@name='vantrel']"):
            shown = {}
            for field in message.iter("field"):
                name = field.get("name").removeprefix("vantrel.")
                shown.setdefault(name, []).append(
                    field.get("value") if name in ("payload", "skipped") else field.get("show"))
            if "pending" not in shown:
                messages[int(shown["direction"][0])].append(shown)
    return messages


def bad(data, at):
    at %= len(data)
    return data[:at] + bytes([data[at] ^ 1]) + data[at + 1:]


WEB = wire.encode((1, bytes([198, 51, 100, 80])), (2, 443))
APP6 = wire.encode((1, bytes(15) + b"\1"), (2, 40000))
EXCHANGE_V2 = [
    (OUT, wire.message(2, (1, 1), (2, b"")), {"v2.type": "2", "version": "1", "build_info": ""}),
    (OUT, wire.message(5, (1, 7), (2, WEB), (3, 10123)),
     {"v2.type": "5", "stream": "7", "remote.ip": "198.51.100.80", "remote.port": "443", "uid": "10123"}),
    (OUT, wire.message(13, (1, wire.encode((1, 10123), (2, b"com.example")))),
     {"v2.type": "13", "uid": "10123", "package": "com.example"}),
    (OUT, wire.message(8, (1, 7), payload=b"GET /"),
     {"v2.type": "8", "stream": "7", "length": "5", "payload": b"GET /".hex()}),
    (OUT, wire.message(10, (1, APP6), (2, WEB), payload=b"\0"),
     {"local.ip6": "::1", "local.port": "40000", "remote.ip": "198.51.100.80"}),
    (IN, wire.message(3, (1, 65535), (3, b"no")), {"version": "65535", "error": "no"}),
    (IN, wire.message(8, (1, 7), payload=b"z" * 16384),
     {"v2.type": "8", "length": "16384", "payload": "7a" * 16384}),
    (IN, bad(wire.message(9, (1, 7)), 6), {"v2.type": "9", "bad_checksum": ""}),
    (IN, bad(wire.message(8, (1, 7), payload=b"abc"), -1), {"bad_checksum": ""}),
    (IN, wire.message(14, (1, 0xFFFFFFFF)), {"v2.type": "14", "network": "-1"}),
    (IN, wire.message(15), {"v2.type": "15", "unknown_type": ""}),
    (IN, wire.frame(wire.encode((1, 6), (205, b"\x08\x80"))), {"v2.type": "6", "malformed": ""}),
    (IN, wire.message(1, (1, b"bye")), {"v2.type": "1", "reason": "bye"}),
    (IN, b"VX and what follows", {"malformed": ""}),
]

EXCHANGE_V1 = [
    (OUT, b"\x10\0\0\0\5\0\0", {"v1.type": "16", "version": "5"}),
    (OUT, bytes.fromhex("01 00000007 C6336450 01BB 278B"),
     {"v1.type": "1", "stream": "7", "remote.ip": "198.51.100.80", "remote.port": "443", "uid": "10123"}),
    (OUT, b"\x0A\x27\x8B\0\3abc", {"v1.type": "10", "uid": "10123", "package": "abc"}),
    (OUT, bytes.fromhex("0E C0A8A7EF 9C40 C6336435 0035 8B27 0002 AABB"),
     {"v1.type": "14", "local.ip": "192.168.167.239", "local.port": "40000", "uid": "10123",
      "remote.port": "53", "payload": "aabb"}),
    (OUT, bytes.fromhex("08 00000001 00100000"), {"request": "1", "count": "1048576"}),
    (IN, b"\x11\0\0\0\5\0\0", {"v1.type": "17", "version": "5"}),
    (IN, b"\3\0\0\0\7\xFF\xFF" + b"z" * 65535, {"v1.type": "3", "stream": "7", "length": "65535"}),
    (IN, b"\0\1\x0D", {"skipped": "00010d", "unknown_type": ""}),
    (IN, bytes.fromhex("0F C0A8A7EF 9C40 C6336435 0035 0001 AA"), {"v1.type": "15", "remote.ip": "198.51.100.53"}),
    (IN, b"\x0B\xFF\xFF\xFF\xFE\1", {"network": "-2", "metered": "1"}),
    (IN, b"\3\0\0\0\7\0\0", {"v1.type": "3", "length": "0"}),
    (IN, b"\5\0\0\0\1\5", {"ping_time": "1"}),
]


@pytest.mark.parametrize("protocol,exchange", [("20", EXCHANGE_V2), ("5", EXCHANGE_V1)])
@pytest.mark.parametrize("chunk", [990, 60000])
def test_recorded_exchange(tmp_path, protocol, chunk, exchange):
    """Each message shows at least what the script says of it, and nothing is
    noted on a message unless the script says so."""
    capture = record(tmp_path, protocol, chunk, exchange)
    messages = dissect(capture)
    for side in (IN, OUT):
        expected = [fields for to, _, fields in exchange if to == side]
        assert len(messages[side]) == len(expected), messages[side]
        for fields, shown in zip(expected, messages[side]):
            for name, value in fields.items():
                assert shown.get(name) == [value], (name, shown)
            noted = {n for n in shown if n in ("bad_checksum", "unknown_type", "malformed")}
            assert noted == {n for n in fields if n in noted}, shown
    assert dissect(capture, "-2") == messages  # in two passes, as a person's program
