"""The control port at the wire, and the programs a person works with."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading

import pytest

from testbed import wire
from testbed.device import standing_rules
from testbed.processes import end_process
from testbed.programs import BIN_DIR, SOURCE_DIR, Daemon, Launch, program_environment
from testbed.waiting import wait_until


def test_control_packets(make_device):
    device = make_device(debuggable=True)
    daemon = Daemon(device, args=("5",))
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


def test_a_session(launch, tmp_path):
    metrics = tmp_path / "metrics.prom"
    run = launch("--metrics", metrics)
    device = run.device

    def control(*args, log=run.log, check=True):
        return device.run(BIN_DIR / "vantrelctl", *args, "--log", log, check=check)

    assert re.search(r"\d+ ms", control("ping").stdout)
    assert "Bluetooth socket state:" in control("dump").stdout
    assert re.search(r"[0-9.]+ kB/s", control("push", "20M").stdout)
    assert re.search(r"[0-9.]+ kB/s", control("pull", "20M").stdout)
    wrong = control("push", "20M", log=run.err, check=False)
    assert wrong.returncode == 1 and "is it the daemon's log?" in wrong.stderr
    rules = device.run(BIN_DIR / "vantrelctl", "rules", "status").stdout
    assert len(rules.splitlines()) == 10
    device.run(BIN_DIR / "vantrelctl", "stats")
    run.wait_for(run.out, "stats: uid 4294967295 (nobody")
    assert control("stop").stdout == "stopped\n"
    assert run.process.wait(10) == 0
    lines = run.out.read_text().splitlines()
    assert lines[:2] == ["started", "network 7, not metered"]
    assert lines[-1] == "daemon ended: exit status 0"
    assert run.err.read_text() == ""  # an ordered end, and all rules were there
    received = int(re.search(
        r'^vantrel_uid_received_bytes_total{uid="4294967295".*} (\d+)$',
        metrics.read_text(), re.M)[1])
    assert received >= 65536
    assert metrics.stat().st_mode & 0o777 == 0o644
    assert device.run(BIN_DIR / "vantrelctl", "rules", "status").stdout == ""
    with pytest.raises(ConnectionRefusedError):
        device.connect("198.51.100.80", 80)


def test_only_the_daemons_own_lines_count(launch):
    run = launch()
    run.companion.send_signal(signal.SIGSTOP)
    ping = subprocess.Popen(
        run.device.command([BIN_DIR / "vantrelctl", "ping", "--log", run.log]),
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert "sent ping" in ping.stderr.readline()
    with open(run.log, "a") as log:
        log.write("10-31 23:59:59.999     1     1 D vantrel: [B] PING TIME (ms): 99999\n")
    position = f"pos:\t{run.log.stat().st_size}\n"
    wait_until(lambda: any(position in descriptor.read_text() for descriptor in
                           pathlib.Path(f"/proc/{ping.pid}/fdinfo").iterdir()), "the reader")
    run.companion.send_signal(signal.SIGCONT)
    assert re.fullmatch(r"round trip: \d{1,4} ms\n", ping.communicate(timeout=10)[0])


def hang_up_on_each(listener):
    with contextlib.suppress(OSError):
        while True:
            listener.accept()[0].close()


def test_one_daemon_on_a_device_and_a_silent_companion(make_device):
    device = make_device()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{device.dir}/silent")
        listener.listen()
        first = Launch(device, link="silent")
        second = device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False)
        assert second.returncode == 75
        assert second.stderr == (f"vantrel-launch: a daemon of process {first.process.pid} "
                                 "runs on this device (/run/vantrel.lock)\n")
        refused = device.run(BIN_DIR / "vantrelctl", "rules", "teardown", check=False)
        assert refused.returncode == 1 and "--force" in refused.stderr
        assert len(standing_rules(device)) == 10
        device.run(BIN_DIR / "vantrelctl", "rules", "teardown", "--force")
        assert standing_rules(device) == []
        first.wait_for(first.err, "warning: the companion has not said anything yet")
        assert first.end() == 0
    notes = device.dir / "notes"
    notes.write_text("10 o'clock")
    wrong = device.run(BIN_DIR / "vantrel-launch", "--lock", notes, "unix:/none", check=False)
    assert wrong.returncode == 1 and "is no lock file" in wrong.stderr
    assert notes.read_text() == "10 o'clock"


def test_what_leads_past_the_daemon_or_ends_it_at_once(make_device):
    device = make_device()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{device.dir}/hasty")
        listener.listen()
        threading.Thread(target=hang_up_on_each, args=[listener], daemon=True).start()
        run = Launch(device, "--restart", link="hasty")
        run.wait_for(run.err, "connecting again in 1 s")
        device.run("ip", "route", "del", "local", "default")
        run.wait_for(run.err, "warning: there is no route to the daemon")
        run.wait_for(run.err, "connecting again in 2 s")
        device.run("sh", "-ec", "ip link add eth0 type ifb || ip link add eth0 type dummy; "
                   "ip link set eth0 up; ip route add default dev eth0")
        run.wait_for(run.err, "warning: the route to 192.0.2.1 leads through eth0, past")
        run.wait_for(run.err, "connecting again in 4 s")
        assert run.end() == 128 + signal.SIGTERM
    assert run.err.read_text().count("warning: ") == 2


def test_what_is_wrong_with_a_companion(make_device):
    ack = wire.message(wire.HANDSHAKE_ACK, (1, 1))
    device = make_device()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{device.dir}/wrong")
        listener.listen()
        for begin, cause in (
                (bytes(24) + ack, "sends a connection header"),
                (ack[:2] + ack[3:1:-1] + ack[4:], "the sizes of its first frame big-endian"),
                (ack[:30].replace(b"\1", b"\2"), "as checksum of its first header"),
                (b"", "the link ended; does the companion speak protocol 20?")):
            run = Launch(device, link="wrong", wait=False)
            with listener.accept()[0] as companion:
                companion.recv(1)  # the daemon speaks first
                companion.sendall(begin)
                if not begin:
                    companion.shutdown(socket.SHUT_RDWR)
                run.wait_for(run.err, cause)
            run.process.wait(20)


def test_a_link_without_a_relay(launch):
    direct = {"companion_options": ["--header"]}
    run = launch("--direct", **direct)
    run.device.run(BIN_DIR / "vantrelctl", "ping", "--log", run.log)
    run.companion.kill()
    assert run.process.wait(10) == 0

    run = launch("--direct", **direct)
    # Before its loop runs, a signal would end the daemon with its rules standing.
    run.device.run(BIN_DIR / "vantrelctl", "ping", "--log", run.log)
    daemon = run.daemon()
    run.process.kill()  # the daemon still has its link
    wait_until(lambda: not os.path.exists(f"/proc/{daemon}/exe"), "the daemon's end")
    assert standing_rules(run.device) == []


def test_a_tcp_link_by_a_name_whose_first_address_is_dead(make_device):
    device = make_device(debuggable=True)
    (device.dir / "hosts").write_text("127.0.0.1 companion\n127.0.0.2 companion\n")
    device.run("mount", "--bind", device.dir / "hosts", "/etc/hosts")
    # A queue of one that is full answers no more.
    dead = device.socket(socket.SOCK_STREAM, ("127.0.0.1", 7000))
    dead.listen(0)
    callers = [device.connect("127.0.0.1", 7000)]
    companion = subprocess.Popen(device.command(
        [BIN_DIR / "vantrel-companion", "--protocol", "1", "--listen", "tcp:127.0.0.2:7000"]),
        stderr=subprocess.DEVNULL, env=program_environment(device.dir))
    wait_until(lambda: "127.0.0.2:7000" in device.run("ss", "-tln").stdout, "the companion")
    run = Launch(device, "--protocol", "1", "--json", "--stats-every", "1",
                 link="tcp:companion:7000")
    # A peer that vanishes is asked after 10 s of silence.
    assert re.search(r"127.0.0.2:7000 +timer:\(keepalive,(10|\d)(sec|\.)",
                     device.run("ss", "-tno").stdout)
    run.wait_for(run.out, "stats")
    assert run.end() == 0
    end_process(companion)
    records = [json.loads(line) for line in run.out.read_text().splitlines()]
    assert records[0] == {"record": "started"}
    assert records[1]["record"] == "stats"
    assert records[-1] == {"record": "daemon_ended", "exit_status": 0}
    for sock in dead, *callers:
        sock.close()


@pytest.mark.parametrize("program, line, status, words", [
    ("vantrelctl", "pnig", 2, "vantrelctl: pnig: no such command, did you mean ping?"),
    ("vantrelctl", "push 1X", 2, "vantrelctl: 1X: expected a number of bytes"),
    ("vantrel-launch", "--protocl 5 X", 2, "vantrel-launch: --protocl: no such option"),
    ("vantrel-launch", "unix:/none --shape rate=x", 2, 'vantrel-launch: --shape: "rate=x"'),
    ("vantrel-launch", "unix:/none --metrics /dev/null", 2,
     "vantrel-launch: --metrics: /dev/null: not a regular file"),
    ("vantrel-launch", "fd:0", 2, "vantrel-launch: fd:0: not a socket"),
    ("vantrel-launch", "fd:77", 2, "vantrel-launch: fd:77: not an open descriptor"),
    ("vantrel-launch", "unix:/none --daemon /bin/true --lock {}/lock", 1,
     "vantrel-launch: cannot connect unix:/none: No such file or directory"),
    ("vantrel-launch", "rfcomm:00:11:22:33:44:55/31", 2, "vantrel-launch: rfcomm:"),
    ("vantrel-companion", "--listen tcp:nowhere", 2, "vantrel-companion: --listen tcp:nowhere: expected HOST:PORT"),
    ("vantrel-companion", "--lisen X", 2, "vantrel-companion: --lisen: no such option"),
    ("vantrel-companion", "--listen unix:a --network 7,free", 2,
     "vantrel-companion: --network: '7,free' is not ID[,metered]"),
])
def test_wrong_command_lines(program, line, status, words, tmp_path):
    result = subprocess.run([BIN_DIR / program, *line.format(tmp_path).split()],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=10)
    assert result.returncode == status and result.stdout == ""
    assert result.stderr.startswith(words) and result.stderr.count("\n") == 1


def test_completion(tmp_path):
    """In a real shell, whose line is printed after a tabulator."""
    (tmp_path / "a file").touch()
    (tmp_path / "my dir").mkdir()
    (tmp_path / "rc").write_text(f"""
PATH={BIN_DIR}:$PATH
. {SOURCE_DIR}/packaging/linux/completion/vantrel.bash
bind 'set bell-style none'
bind -x '"\\C-x": echo "<$READLINE_LINE>"'
""")
    terminal, inside = os.openpty()
    shell = subprocess.Popen(
        ["unshare", "--mount", "sh", "-c", "mount -t tmpfs none /var/lib && "
         "mkdir -p /var/lib/bluetooth/00:00:00:00:00:01/01:23:45:67:89:AB && "
         "exec bash --noprofile --rcfile rc -i"],
        stdin=inside, stdout=inside, stderr=inside, cwd=tmp_path, start_new_session=True,
        env={**os.environ, "TERM": "dumb", "INPUTRC": "/dev/null"})
    for line, completed in (
            ("vantrel-launch rfc", "vantrel-launch rfcomm:"),
            ("vantrel-check rfcomm:", "vantrel-check rfcomm:01:23:45:67:89:AB/"),
            ("vantrel-launch --json rfcomm:01:2", "vantrel-launch --json rfcomm:01:23:45:67:89:AB/"),
            ("vantrel-companion --listen tcp:", "vantrel-companion --listen tcp:"),
            ("vantrel-launch unix:a", r"vantrel-launch unix:a\ file "),
            ("vantrel-launch unix:'a f", "vantrel-launch unix:'a file' "),
            ("vantrel-companion --listen unix:my", r"vantrel-companion --listen unix:my\ dir/"),
            ("vantrelctl top --log a", r"vantrelctl top --log a\ file "),
            ("vantrelctl pu 64", "vantrelctl pu 64"), ("vantrelctl pus", "vantrelctl push "),
            ("vantrel-check --only tear", "vantrel-check --only teardown ")):
        os.write(terminal, line.encode() + b"\t\x18")
        said = b""
        while not (found := re.search(rb"<(.*)>", said)):
            said += os.read(terminal, 4096)
        assert found[1].decode() == completed
        os.write(terminal, b"\x15")
    os.close(inside)
    shell.kill()
    shell.wait()
    os.close(terminal)
