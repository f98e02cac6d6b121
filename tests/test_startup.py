"""From the first descriptor to the start-up word, and every way to fail."""

import os
import pathlib
import re
import socket
import struct
import subprocess

import pytest

from testbed import wire
from testbed.device import MANGLE_RULES, NAT_RULES
from testbed.processes import end_process
from testbed.programs import BIN_DIR, DAY, Daemon


START_UP_V2 = [
    "D Vantrel launched, version=20.",
    "D connect: fd: 3",
    "D [B] connect:select...",
    "D [B] Connect: read header...",
    "D [B] Connect: read 24:24 header size: 24",
    "I [B] Connected to 01:02:03:04:05:06 on channel 5.",
    "I [B] Expected max_tx_size 990 max_rx_size 990",
    "D control_server started",
    "D tcmp_server listening.",
    "D udp_server listening.",
    "D iptables setup complete.",
]


def assert_aborts(daemon, code):
    assert daemon.wait() == code, daemon.log()
    assert daemon.status() == struct.pack("<i", code)
    assert daemon.log()[-1] == f"D Aborting with exit code {code}"
    assert daemon.device.rules("nat") == daemon.device.rules("mangle") == []


@pytest.mark.parametrize("args, code, before", [
    ((), 20, []),
    (("20", "extra"), 20, []),
    (("2",), 21, ["D Vantrel launched, version=2."]),
    (("abc",), 21, ["D Vantrel launched, version=0."]),
])
def test_bad_command_line(start, args, code, before):
    daemon = start(args=args)
    assert_aborts(daemon, code)
    assert daemon.log()[:-1] == before


CLOSED = "E [B] Error reading from Bluetooth socket: "


@pytest.mark.parametrize("header, lines", [
    (b"", ["D [B] Connect: read header...", CLOSED]),
    (wire.CONNECTION_HEADER[:10], [
        "D [B] Connect: read 10:10 header size: 24", "D [B] connect:select...",
        "D [B] Connect: read header...", CLOSED]),
    (wire.CONNECTION_HEADER[:16] + b"\1\0\0\0" + wire.CONNECTION_HEADER[20:], [
        "D [B] Connect: read 24:24 header size: 24",
        "E [B] Connection status error: 1"]),
], ids=["closed", "closed after 10 bytes", "refused"])
def test_link_that_does_not_stand(start, header, lines):
    daemon = start(header=header)
    daemon.companion.sock.shutdown(socket.SHUT_WR)
    assert_aborts(daemon, 1)
    log = daemon.log()[-len(lines) - 1:-1]
    assert log[:-1] == lines[:-1]
    # An end of file leaves errno, and with it the rest of that line, to chance.
    assert log[-1] == lines[-1] or lines[-1] == CLOSED and log[-1].startswith(CLOSED)


def test_link_that_was_not_handed_over():
    result = subprocess.run(["bash", "-c", 'exec 0<&-; exec "$0" 20', BIN_DIR / "vantrel"],
                            capture_output=True, timeout=10)
    assert (result.returncode, result.stdout, result.stderr) == (1, b"\1\0\0\0", b"")


def test_what_the_daemon_takes_over_and_hands_on(device, start):
    # An ignored SIGCHLD would make every command of the rules look failed.
    daemon = start(wrap=["env", "--ignore-signal=CHLD"])
    _, tcp, _ = daemon.ports()
    assert device.rules("nat") == [rule.format(tcp=tcp) for rule in NAT_RULES]
    app = device.connect("198.51.100.7", 80)
    daemon.companion.expect(wire.HANDSHAKE_START)
    daemon.companion.expect(wire.TCP_CONNECT)
    kept = {}
    for entry in pathlib.Path(f"/proc/{daemon.process.pid}/fdinfo").iterdir():
        flags = re.search(r"flags:\s+(\d+)", entry.read_text())[1]
        if int(entry.name) > 2 and not int(flags, 8) & os.O_CLOEXEC:
            kept[entry.name] = os.readlink(entry.parent.parent / "fd" / entry.name)
    app.close()
    assert kept == {}  # the shells that change the rules get none of them
    rights = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text()
    # 10, 12 and 13: low ports, net_admin, net_raw.
    assert {int(value, 16) for value in re.findall(r"Cap(?:Prm|Eff|Bnd):\s+(\w+)", rights)} == {
        1 << 10 | 1 << 12 | 1 << 13}
    assert end_process(daemon.process) == 0
    assert [line for line in daemon.log() if line.startswith("E ")] == []


def test_silent_link(start):
    daemon = start(header=wire.CONNECTION_HEADER[:23])
    assert_aborts(daemon, 1)
    assert daemon.log()[-2] == "E [B] Timed out waiting for connection header."
    times = [seconds for seconds, _ in daemon.timed_log()]
    assert 4.9 <= (times[-1] - times[0]) % DAY < 20  # a busy machine takes longer


def test_listeners_that_fail(make_device):
    def abort_of(device, code, **kwargs):
        daemon = Daemon(device, **kwargs)
        assert_aborts(daemon, code)
        daemon.close()
        return daemon.log()

    device = make_device(debuggable=True)
    taken = device.socket(socket.SOCK_DGRAM, bind=("127.0.0.1", 2374))
    assert "E [C] Error binding server socket: Address already in use" in \
        abort_of(device, 2)
    taken.close()

    # Three standard descriptors, the link, the status channel and the log make
    # six: the TCP listener is the seventh, its reserve would be the eighth.
    device = make_device()
    assert "E [S] Error creating TCP socket: Too many open files" in \
        abort_of(device, 3, max_descriptors=6)
    assert "E [U] Error creating UDP socket: Too many open files" in \
        abort_of(device, 4, max_descriptors=7)


def test_start(device, start):
    daemon = start()
    control, tcp, udp = daemon.ports()
    assert control == 0
    daemon.companion.shake_hands()
    daemon.wait_for_log("I [B] ProxySocketV2 HandshakeAck: version=1, build_info=bench")
    assert daemon.log() == [
        *START_UP_V2,
        f"D Vantrel started on ports C:0, T:{tcp}, U:{udp}.",
        "I [B] ProxySocketV2 HandshakeAck: version=1, build_info=bench",
    ]
    assert daemon.status() == b"\0\0\0\0"
    assert device.rules("nat") == [rule.format(tcp=tcp) for rule in NAT_RULES]
    assert device.rules("mangle") == [
        rule.format(udp=udp) for rule in MANGLE_RULES]
    assert "inet 192.168.167.239/32 " in device.run(
        "ip", "-4", "address", "show", "ifb0").stdout


def test_start_of_a_debuggable_build(make_device):
    device = make_device(debuggable=True)
    daemon = Daemon(device)
    control, tcp, udp = daemon.ports()
    assert control == 2374
    expected = [*START_UP_V2, f"D Vantrel started on ports C:2374, T:{tcp}, U:{udp}."]
    expected.insert(expected.index("D control_server started"),
                    "D Userdebug build detected. Listening on control port.")
    assert daemon.log() == expected
    device.socket(socket.SOCK_DGRAM).sendto(b"\1", ("127.0.0.1", 2374))
    assert daemon.wait() == 0
    assert "D [C] Received STOP message." in daemon.log()
    daemon.close()


def test_rules_of_a_killed_run_are_replaced(device, start):
    first = start()
    first.ports()
    first.process.kill()
    first.wait()
    assert device.rules("nat") != []
    _, tcp, udp = start().ports()
    assert device.rules("nat") == [rule.format(tcp=tcp) for rule in NAT_RULES]
    assert device.rules("mangle") == [
        rule.format(udp=udp) for rule in MANGLE_RULES]
