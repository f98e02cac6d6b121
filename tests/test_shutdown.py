"""Every way a running daemon ends, and that it always ends the same way."""

import signal
import socket

import pytest

from testbed import wire
from testbed.processes import end_process
from testbed.programs import DAY


END = [
    "D Sending transfer stats before vantrel shuts down",
    "D OnTransferStatsResult, transfer stats length 0",
    "D Vantrel finished.",
]
CLOSING = "W [B] Closing ProxySocketV2: "
TOO_LARGE = "E [ME] Message payload is too large 16385"
UNABLE = ("W [B] ProxySocketV2 unable to serialize message: type=10,"
          " payload_size=16385")


def assert_ends_in_order(daemon, reason_lines, stats=b"\2\0\0"):
    started = [n for n, line in enumerate(daemon.log()) if "started on ports" in line][0]
    assert daemon.wait() == 0
    assert daemon.status() == b"\0\0\0\0" + stats
    lines = [line for line in daemon.log()[started + 1:]
             if "HandshakeAck" not in line and "Ready to tunnel" not in line]
    assert lines[:-1] == [*reason_lines, *END]
    assert lines[-1].startswith("D [B] Total bytes RX/TX: ")
    when = {line: seconds for seconds, line in daemon.timed_log()}
    assert 1.0 <= (when[END[2]] - when[END[1]]) % DAY < 9  # a busy machine takes longer
    for table in "nat", "mangle":
        assert daemon.device.rules(table) == []


def oversized_datagram(daemon):
    app = daemon.device.socket(socket.SOCK_DGRAM)
    app.sendto(bytes(16385), ("198.51.100.53", 4000))


def gone_in_mid_message(daemon):
    daemon.companion.sock.sendall(wire.message(wire.TEARDOWN, (1, b"never seen"))[:-1])
    daemon.companion.sock.close()


# After the handshake: what happens, and the lines that it adds before the end.
ENDINGS = {
    "SIGTERM": (lambda d: d.process.send_signal(signal.SIGTERM), []),
    "SIGINT": (lambda d: d.process.send_signal(signal.SIGINT), []),
    "companion gone in mid-message": (gone_in_mid_message, []),
    "teardown": (lambda d: d.companion.send(wire.TEARDOWN, (1, b"battery low")),
                 [CLOSING + "TEARDOWN. Reason: battery low"]),
    # The stream is given up; what follows only fills the buffer.
    "wrong magic": (lambda d: d.companion.sock.sendall(b"NV" + bytes(16390)),
                    ["W [MD] Error decoding: 'Wrong magic', param=22094"]),
    "oversized datagram": (oversized_datagram, [
        TOO_LARGE, UNABLE, CLOSING + "Unable to serialize message. Reason: "]),
}


@pytest.mark.parametrize("ending", ENDINGS)
def test_end_of_a_running_link(connected, ending):
    act, lines = ENDINGS[ending]
    act(connected)
    assert_ends_in_order(connected, lines)


@pytest.mark.parametrize("answer, line", [
    ((wire.HANDSHAKE_ACK, (1, 2)), CLOSING + "Unexpected remote protocol version. Reason: "),
    ((wire.HANDSHAKE_ACK, (1, 65535), (3, b"too old")),
     CLOSING + "Remote site reported handshake error. Reason: too old"),
    ((wire.TEARDOWN, (1, b"busy")), CLOSING + "TEARDOWN. Reason: busy"),
], ids=["version 2", "error", "teardown"])
def test_handshake_that_fails(start, answer, line):
    daemon = start()
    daemon.ports()
    daemon.companion.expect(wire.HANDSHAKE_START)
    daemon.companion.send(*answer)
    assert_ends_in_order(daemon, [line])
    with pytest.raises(EOFError):  # no HANDSHAKE_DONE, nothing else either
        daemon.companion.receive()


def test_applications_see_that_their_connection_was_cut(device, connected):
    """And not a complete stream. What the companion has ended stays ended."""
    companion = connected.companion
    apps = []
    for stream in 1, 2, 3, 4:
        apps.append(device.socket(socket.SOCK_STREAM))
        apps[-1].setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        apps[-1].connect(("198.51.100.7", 80))
        assert companion.expect(wire.TCP_CONNECT).fields[1] == stream
        if stream == 1:
            companion.expect(wire.PACKAGE_NAMES)
    waiting, downloading, ended, unread = apps
    companion.send(wire.TCP_WRITE, (1, 2), payload=bytes(1000))
    companion.send(wire.TCP_WRITE, (1, 3), payload=b"all of it")
    companion.send(wire.TCP_CLOSE, (1, 3))
    for _ in range(512):  # 8 MiB, more than both sockets hold
        companion.send(wire.TCP_WRITE, (1, 4), payload=bytes(16384))
    companion.send(wire.TCP_CLOSE, (1, 4))
    companion.send(wire.TCP_WRITE, (1, 1), payload=b"x")
    assert waiting.recv(100) == b"x"  # so all of the above has been taken
    assert end_process(connected.process) == 0
    for app in waiting, downloading, unread:
        with pytest.raises(ConnectionResetError):
            while app.recv(65536):
                pass
    assert ended.recv(100) == b"all of it" and ended.recv(100) == b""


def test_rules_removed_by_somebody_else_are_reported(device, connected):
    device.run("iptables-legacy", "-w", "-t", "nat", "-F", "OUTPUT")
    connected.process.send_signal(signal.SIGTERM)
    assert_ends_in_order(connected, [
        "E Command failed with exit code 256: /system/bin/iptables-wrapper-1.0 -w"
        " -t nat -D OUTPUT -o lo -p tcp -j oem_PROXY_TCP",
        "E @@@ VANTREL TEARDOWN FAILED",
    ])
