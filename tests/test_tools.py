"""The control port at the wire, and the programs a person works with."""

import os
import pathlib
import re
import signal
import socket
import struct
import subprocess

import pytest

import bench
import wire
from bench import BIN_DIR, program_environment, wait_until


def test_control_packets(make_device):
    device = make_device(debuggable=True)
    daemon = bench.Daemon(device, args=("5",))
    link = daemon.companion
    assert link.take(7) == bytes.fromhex("10000000050000")
    link.sock.sendall(bytes.fromhex("11000000050000"))
    assert link.take(7) == bytes.fromhex("12000000050000")
    assert daemon.ports()[0] == 2374
    started = len(daemon.log())
    control = device.socket(socket.SOCK_DGRAM)
    for packet in b"", b"\7", b"\0abc", b"\4\0\0\0", b"\5\0\x10\0", b"\2":
        control.sendto(packet, ("127.0.0.1", 2374))
    for packet, sent in (
            (b"\5\0\x10\0\0 and more",
             bytes.fromhex("0C 00000000 00001000 0D 00000000 1000") + b"a" * 4096),
            (b"\4\3\0\0\0", bytes.fromhex("08 00000000 00000003"))):
        control.sendto(packet, ("127.0.0.1", 2374))
        assert link.take(len(sent)) == sent
    # Asked for: all of it charged to nobody. At the end: nothing since then.
    report = (b"\x0a\x0b\x08\xff\xff\xff\xff\x0f\x10\x07\x18"
              + wire.varint(7 + 7 + 9 + 7 + 4096 + 9))
    report = b"\0\0\0\0\2" + struct.pack("<H", len(report)) + report
    control.sendto(b"\6", ("127.0.0.1", 2374))
    wait_until(lambda: daemon.status() == report, "the report")
    control.sendto(b"\1", ("127.0.0.1", 2374))
    assert daemon.wait() == 0
    assert daemon.status() == report + b"\2\0\0"
    log = daemon.log()[started:]
    assert log[:4] == [
        "W [C] Unknown packet type 7 (len = 1)",
        "W [C] Unknown packet type 0 (len = 4)",
        "E [C] Invalid packet length for TYPE_PULL: 4",
        "E [C] Invalid packet length for TYPE_PUSH: 4",
    ]
    assert log[4:6] == ["D ----------- VANTREL DUMP -----------",
                        "D Bluetooth socket state:"]
    end = log.index("D -------------------------------------")
    assert log[end - 2].startswith("D UID Usage:") and log[end - 1] == "D "
    assert "D [C] Received STOP message." in log
    assert "D uid usage empty" in log
    daemon.close()


def listening_companion(device):
    log = device.dir / "companion.log"
    with open(log, "wb") as output:
        companion = subprocess.Popen(
            [BIN_DIR / "vantrel-companion", "--protocol", "5", "--network", "7",
             "--listen", f"unix:{device.dir}/link"],
            stderr=output, env=program_environment(device.dir))
    # The socket's file is there a moment before anybody listens on it.
    wait_until(lambda: "listening on" in log.read_text(), "the companion")
    return companion


@pytest.fixture
def launch(make_device, tmp_path):
    """launch(*options): the launcher on a debuggable device, its companion
    listening beside the internet's servers."""
    running = []

    def make(*options):
        device = make_device(debuggable=True)
        env = program_environment(tmp_path)
        companion = listening_companion(device)
        running.append(companion)
        out = device.dir / "status.txt"
        with open(out, "wb") as status:
            launcher = subprocess.Popen(
                device.command([BIN_DIR / "vantrel-launch", "--protocol", "5",
                                "--daemon", BIN_DIR / "vantrel", *options,
                                f"unix:{device.dir}/link"]),
                stdout=status, stderr=subprocess.DEVNULL,
                env={**env, "VANTREL_LOG_FILE": f"{device.dir}/daemon.log"})
        running.append(launcher)
        wait_until(lambda: "started" in out.read_text(), "the start")
        return device, launcher, companion, out

    yield make
    for process in running:
        bench.end_process(process)


def only_child(process):
    children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
    return int(wait_until(children.read_text, "the daemon"))


def test_a_session(launch):
    device, launcher, companion, out = launch("--metrics", "/tmp/vantrel-metrics")
    log = device.dir / "daemon.log"

    def control(*args):
        return device.run(BIN_DIR / "vantrelctl", *args, "--log", log).stdout

    assert re.search(r"\d+ ms", control("ping"))
    assert "Bluetooth socket state:" in control("dump")
    assert re.search(r"[0-9.]+ kB/s", control("push", "20M"))
    assert re.search(r"[0-9.]+ kB/s", control("pull", "20M"))
    rules = device.run(BIN_DIR / "vantrelctl", "rules", "status").stdout
    assert len(rules.splitlines()) == 10
    device.run(BIN_DIR / "vantrelctl", "stats")
    wait_until(lambda: "stats: uid 4294967295 (nobody" in out.read_text(), "the report")
    device.run(BIN_DIR / "vantrelctl", "stop")
    assert launcher.wait(10) == 0
    lines = out.read_text().splitlines()
    assert lines[:2] == ["started", "network 7, not metered"]
    assert lines[-1] == "daemon ended: exit status 0"
    metrics = pathlib.Path("/tmp/vantrel-metrics").read_text()
    received = int(re.search(
        r'^vantrel_uid_received_bytes_total{uid="4294967295".*} (\d+)$', metrics, re.M)[1])
    assert received >= 65536
    assert device.run(BIN_DIR / "vantrelctl", "rules", "status").stdout == ""


def test_no_rules_stay_when_the_daemon_is_killed(launch):
    device, launcher, _, out = launch()
    assert device.rules("nat") and device.rules("mangle")
    os.kill(only_child(launcher), signal.SIGKILL)
    assert launcher.wait(10) == 128 + signal.SIGKILL
    assert out.read_text().endswith("daemon ended: killed by signal 9 (Killed)\n")
    assert device.rules("nat") == [] and device.rules("mangle") == []

    # Killed together with its launcher: the tool removes what is left.
    device, launcher, _, _ = launch()
    daemon = only_child(launcher)
    launcher.kill()
    os.kill(daemon, signal.SIGKILL)
    launcher.wait()
    assert device.rules("nat") and device.rules("mangle")
    device.run(BIN_DIR / "vantrelctl", "rules", "teardown")
    assert device.rules("nat") == [] and device.rules("mangle") == []


def test_restart_when_the_link_ends(launch):
    device, launcher, companion, out = launch("--restart")
    companion.kill()  # its socket's file is left behind, and in the next one's way
    companion.wait(10)
    wait_until(lambda: "daemon ended: exit status 0" in out.read_text(), "the end")
    again = listening_companion(device)
    wait_until(lambda: out.read_text().count("started\n") == 2, "the second start", 20)
    launcher.send_signal(signal.SIGTERM)
    assert launcher.wait(10) == 0
    bench.end_process(again)


@pytest.mark.parametrize("program, line, status, words", [
    ("vantrelctl", "fly", 2, "vantrelctl: "),
    ("vantrelctl", "push 1X", 2, "vantrelctl: 1X: expected a number of bytes"),
    ("vantrel-launch", "unix:/none --shape rate=x", 2, 'vantrel-launch: --shape: "rate=x"'),
    ("vantrel-launch", "unix:/none --daemon /bin/true", 1,
     "vantrel-launch: cannot connect unix:/none: No such file or directory"),
    ("vantrel-launch", "rfcomm:00:11:22:33:44:55/31", 2, "vantrel-launch: rfcomm:"),
    ("vantrel-companion", "--listen tcp:nowhere", 2, "vantrel-companion: --listen: "),
])
def test_wrong_command_lines(program, line, status, words):
    result = subprocess.run([BIN_DIR / program, *line.split()], capture_output=True,
                            text=True, timeout=10)
    assert result.returncode == status and result.stdout == ""
    assert result.stderr.startswith(words) and result.stderr.count("\n") == 1
