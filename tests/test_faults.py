"""What the programs do when something breaks: another program, a tool, a file, a
limit. Nothing hangs, no rule stays, and what can go on goes on."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import threading
import time

import pytest

from testbed import wire
from testbed.device import set_wrapper, standing_rules
from testbed.processes import end_process
from testbed.programs import BIN_DIR, Daemon, Launch, listening_companion
from testbed.waiting import wait_until


ALLOWED = "--allow", "198.51.100.0/24"
REMOTE = ("198.51.100.80", 7000)
BLOCK = bytes(range(256)) * 256
SLOW = "sleep 0.1"


@pytest.fixture
def remote():
    """A server that sends every connection BLOCK after BLOCK."""
    def feed(peer):
        with contextlib.suppress(OSError), peer:
            while True:
                peer.sendall(BLOCK)

    def serve():
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=feed, args=listener.accept()[:1], daemon=True).start()

    with socket.create_server(REMOTE) as listener:
        threading.Thread(target=serve, daemon=True).start()
        yield
        listener.shutdown(socket.SHUT_RDWR)


def receive_block(app):
    got = b""
    while len(got) < len(BLOCK):
        piece = app.recv(len(BLOCK) - len(got))
        if not piece:
            raise EOFError
        got += piece
    assert got == BLOCK


def is_gone(pid):
    return not os.path.exists(f"/proc/{pid}/exe")


@pytest.mark.parametrize("victim, options, status", [
    ("daemon", [], 128 + signal.SIGKILL),
    ("daemon", ["--restart"], 0),
    ("companion", [], 0),
    ("companion", ["--restart"], 0),
    ("launcher", [], -signal.SIGKILL),
    ("launcher and daemon", [], -signal.SIGKILL),
])
def test_killed_in_mid_transfer(launch, remote, victim, options, status):
    again = None
    run = launch(*options, companion_options=ALLOWED)
    device, daemon = run.device, run.daemon()
    app = device.connect(*REMOTE)
    receive_block(app)
    for name, pid in (("launcher", run.process.pid), ("daemon", daemon),
                      ("companion", run.companion.pid)):
        if name in victim:
            os.kill(pid, signal.SIGKILL)
    with pytest.raises((ConnectionResetError, EOFError)):
        while True:
            receive_block(app)
    wait_until(lambda: is_gone(daemon), "the daemon's end")
    if options:
        if victim == "companion":  # its socket's file is left behind, and in the next one's way
            run.companion.wait(10)
            again = listening_companion(device, *ALLOWED)
        wait_until(lambda: run.out.read_text().count("started\n") == 2, "the second start", 20)
        receive_block(device.connect(*REMOTE))
        run.process.terminate()
    assert run.process.wait(20) == status
    if again:
        end_process(again)
    if victim == "launcher and daemon":
        assert standing_rules(device)
        device.run(BIN_DIR / "vantrelctl", "rules", "teardown")
    assert standing_rules(device) == []


@pytest.mark.parametrize("signum, is_launcher, rules", [
    (signal.SIGKILL, True, 1), (signal.SIGKILL, False, 1), (signal.SIGTERM, True, 9),
    (signal.SIGTERM, False, 1), (signal.SIGINT, True, 1), (signal.SIGINT, False, 9)])
def test_signals_during_the_start(launch, signum, is_launcher, rules):
    run = launch(wrapper=SLOW, wait=False)
    wait_until(lambda: len(standing_rules(run.device)) >= rules, "so many rules")
    daemon = run.daemon()
    os.kill(run.process.pid if is_launcher else daemon, signum)
    run.process.wait(20)
    wait_until(lambda: is_gone(daemon), "the end", 20)
    assert standing_rules(run.device) == []


def test_signals_during_the_end(launch):
    run = launch()
    daemon = run.daemon()

    def disturb():
        for pid in daemon, run.process.pid:
            os.kill(pid, signal.SIGINT)
            os.kill(pid, signal.SIGTERM)

    set_wrapper(run.device, SLOW)
    disturb()
    for rules in 9, 4:
        wait_until(lambda: len(standing_rules(run.device)) <= rules, "fewer rules")
        disturb()
    run.wait_for(run.log, "Sending transfer stats")
    disturb()
    assert run.process.wait(10) == 0
    assert re.search("\nstats: .*\ndaemon ended: exit status 0\n$", run.out.read_text())
    assert standing_rules(run.device) == []


def test_every_command_of_the_rules_can_fail(make_device):
    """Of 16 commands the first six remove old rules. Then a device without the tool."""
    count = 'n=$(cat /run/n); n=$((n + 1)); echo $n >/run/n'
    daemons = []
    for step in range(7, 18):
        device = make_device()
        set_wrapper(device, f"{count}; [ $n -ne {step} ] || {{ echo refused; exit 3; }}")
        if step == 17:
            device.run("rm", "/system/bin/iptables-wrapper-1.0")
        daemons.append(Daemon(device))
    for daemon in daemons:
        daemon.ports()
        assert daemon.status() == bytes(4)
        said = {line.split(":")[-1] for line in daemon.log() if "wrapper-1.0 output" in line}
        assert said & {" refused", " not found"}
        assert len(standing_rules(daemon.device)) < 10
        daemon.process.terminate()
    for daemon in daemons:
        daemon.close()
        assert standing_rules(daemon.device) == []


def test_rules_that_are_missing_or_stay_behind_are_told(launch):
    run = launch(wrapper='case "$*" in *-A*) exit 1 ;; esac')
    run.wait_for(run.err, "warning: 2 of 10 interception rules stand")
    assert run.end() == 0

    # The daemon's own removal fails; it ends a second later.
    run = launch()
    set_wrapper(run.device, 'case "$*" in *-[DFX]*) exit 1 ;; esac')
    run.process.send_signal(signal.SIGTERM)
    run.wait_for(run.log, "@@@ VANTREL TEARDOWN FAILED")
    set_wrapper(run.device, "")
    assert run.process.wait(10) == 0
    assert "removed 10 interception rules" in run.err.read_text()
    assert standing_rules(run.device) == []


def test_a_packet_filter_tool_that_hangs(launch):
    run = launch()
    # The launcher looks at the rules of a daemon that has started, too.
    run.wait_for(run.out, "network 7")
    wait_until(lambda: len(run.children()) == 1, "the end of that look")
    set_wrapper(run.device, "sleep 1000")
    look = subprocess.Popen(run.device.command([BIN_DIR / "vantrelctl", "rules", "status"]),
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    daemon = run.daemon()
    os.kill(daemon, signal.SIGKILL)
    wait_until(lambda: run.daemon() != daemon, "the look at the rules")
    assert run.end(seconds=5) == 128 + signal.SIGKILL
    assert "rules may be left" in run.err.read_text()
    assert "did not end within 10 s" in look.communicate(timeout=15)[1]
    assert look.returncode == 1
    assert not run.device.run("pgrep", "-f", "iptables-wrapper-1.0", check=False).stdout
    set_wrapper(run.device, "")


def test_somebody_holds_the_lock_of_the_packet_filter(make_device):
    device = make_device()
    lock = "/run/xtables.lock"
    companion = listening_companion(device)
    holder = subprocess.Popen(device.command(["flock", "--no-fork", lock, "sleep", "1000"]))
    wait_until(lambda: device.run("flock", "-n", lock, "true", check=False).returncode, "it")
    run = Launch(device, "--protocol", "5", wait=False)
    run.wait_for(run.log, "udp_server listening.")
    assert run.end() == 128 + signal.SIGTERM
    assert "rules may be left" in run.err.read_text()
    run = Launch(device, "--protocol", "5", wait=False)
    run.wait_for(run.err, "warning: the daemon has not started yet", 15)
    end_process(holder)
    # It has started a moment before it takes signals; then the link is at work.
    run.wait_for(run.out, "network 7")
    assert run.end() == 0
    assert standing_rules(device) == []
    end_process(companion)


def test_a_companion_that_takes_nothing_for_15_s(launch):
    run = launch()
    run.companion.send_signal(signal.SIGSTOP)
    app = run.device.socket(socket.SOCK_DGRAM)

    def is_over():
        app.sendto(bytes(16000), REMOTE)
        return run.process.poll() is not None

    wait_until(is_over, "the time-out", 30)
    run.companion.send_signal(signal.SIGCONT)
    assert "E vantrel: [B] Terminating vantrel due to write timeout (15s)." in run.log.read_text()
    assert run.process.returncode == 0
    assert standing_rules(run.device) == []


# Sanitizers need more addresses than there are in any limit, and a C library whose clock
# nobody replaces.
if b"__asan_init" not in (BIN_DIR / "vantrel").read_bytes():
    def test_out_of_memory(device, start):
        daemon = start(wrap=["prlimit", "--as=100000000"])
        daemon.companion.shake_hands()
        daemon.ports()
        idle = device.connect(*REMOTE)
        frame = wire.message(wire.TCP_WRITE, (1, 1), payload=BLOCK[:16384])
        with pytest.raises((BrokenPipeError, ConnectionResetError)):
            for _ in range(10000):  # more than the application's socket and the limit hold
                daemon.companion.sock.sendall(frame)
        assert daemon.wait() == 0
        with pytest.raises(ConnectionResetError):
            while idle.recv(65536):
                pass
        assert "E Out of memory; ending." in daemon.log()
        assert standing_rules(device) == []

    def test_the_clock_is_set(launch, remote, tmp_path, monkeypatch):
        """Of every program's clocks the one moves that a user can set."""
        offset = tmp_path / "offset"
        offset.write_text("+0")
        with monkeypatch.context() as environment:
            for name, value in (("LD_PRELOAD", next(pathlib.Path("/usr/lib").glob(
                                    "*/faketime/libfaketime.so.1"))),
                                ("FAKETIME_TIMESTAMP_FILE", offset), ("FAKETIME_NO_CACHE", 1),
                                ("FAKETIME_DONT_FAKE_MONOTONIC", 1)):
                environment.setenv(name, str(value))
            run = launch("--stats-every", "1", companion_options=ALLOWED)
        app = run.device.connect(*REMOTE)
        for jump in "+40d", "-40d":
            before = run.out.read_text().count("stats:")
            offset.write_text(jump)
            receive_block(app)
            wait_until(lambda: run.out.read_text().count("stats:") > before + 1, "a later report")
        assert run.end() == 0
        assert len({line[:5] for line in run.log.read_text().splitlines()}) == 3  # days
        assert "timeout" not in run.log.read_text()


def test_files_that_cannot_be_read(device, start):
    device.run("rm", "/system/build.prop", "/data/system/packages.list")
    daemon = start()
    companion = daemon.companion
    companion.shake_hands()
    assert daemon.ports()[0] == 0
    device.run("mount", "-t", "tmpfs", "none", "/proc")  # the kernel's tables
    nobody = device.connect(*REMOTE)
    assert companion.expect(wire.TCP_CONNECT).fields[3] == 0xFFFFFFFF
    companion.expect(wire.PACKAGE_NAMES)
    companion.send(wire.TCP_WRITE, (1, 1), payload=b"all the same")
    assert nobody.recv(100) == b"all the same"
    device.run("umount", "/proc")
    with device.connect(*REMOTE):  # one that is closed has no owner any more
        assert companion.expect(wire.TCP_CONNECT).fields[3] == 0


def test_a_full_disk_under_the_log(device, start):
    """Lines are lost; the first one that finds room again begins a line."""
    device.run("mount", "-t", "tmpfs", "-o", "size=16k", "none", "/data")
    daemon = start(wrap=["env", "VANTREL_LOG_FILE=/data/log"])
    daemon.companion.shake_hands()
    wait_until(lambda: daemon.status() == bytes(4), "the start")
    device.run("dd", "if=/dev/zero", "of=/data/fill", check=False)

    def cross(streams):
        for _ in range(streams):
            device.connect(*REMOTE).close()
            while daemon.companion.receive().kind != wire.TCP_CLOSE:
                pass

    cross(30)
    device.run("rm", "/data/fill")
    cross(1)
    lines = device.run("cat", "/data/log").stdout.splitlines()
    assert "[T:31] Closed stream" in lines[-1] and not any("[T:30] Closed" in line for line in lines)
    times = [len(re.findall(r"\d\d:\d\d:\d\d\.\d{3}", line)) for line in lines]
    assert max(times) == times[-1] == 1  # a line may be cut in front of its time


def test_without_a_log_file_the_lines_go_to_syslog(device, start):
    lines = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
        syslog.bind(str(device.dir / "syslog"))

        def collect():
            while line := syslog.recv(10000).decode():
                lines.append(line)

        collector = threading.Thread(target=collect, daemon=True)
        collector.start()
        device.run("sh", "-ec", "mkdir /run/dev; touch /run/dev/null /run/dev/log; "
                   "mount --bind /dev/null /run/dev/null; mount --bind $0/syslog /run/dev/log; "
                   "mount --rbind /run/dev /dev", device.dir)
        daemon = start(wrap=["env", "VANTREL_LOG_FILE="])
        daemon.companion.shake_hands()
        wait_until(lambda: "Vantrel started" in "".join(lines), "the start")
        daemon.companion.send(15)  # which no companion says
        wait_until(lambda: "Unexpected message" in "".join(lines), "the warning")
        assert end_process(daemon.process) == 0
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as own:
            own.sendto(b"", syslog.getsockname())
        collector.join()
    # The priorities of a daemon's debugging message and warning, RFC 3164.
    for text in (r"<31>.* Vantrel started on ports C:0, T:\d+, U:\d+\.",
                 r"<28>.* \[B\] Unexpected message: .*"):
        found, = filter(re.compile(text).fullmatch, lines)
        assert re.match(r"<\d+>\w{3} [ \d]\d [\d:]{8} vantrel\[\d+\]: ", found)


def test_readers_of_the_status_channel(start):
    # A slow one: the daemon waits for it, and loses nothing.
    daemon = start()
    daemon.companion.shake_hands()
    daemon.companion.sock.sendall(12000 * wire.message(wire.NETWORK_STATE, (1, 9)))
    records = bytes(4) + 12000 * b"\1\x09\0\0\0\1"
    wait_until(lambda: len(daemon.status()) >= len(records), "all records")
    assert daemon.status() == records
    # One that has gone.
    with open(os.devnull) as nothing:
        os.dup2(nothing.fileno(), daemon._status_fd)
    daemon.companion.send(wire.NETWORK_STATE, (1, 9))
    assert daemon.frames_before_later_ones() == []
    assert end_process(daemon.process) == 0
    # None from the beginning.
    daemon = start(wrap=["sh", "-c", 'exec "$@" >&-', "sh"])
    daemon.companion.shake_hands()
    daemon.companion.send(wire.NETWORK_STATE, (1, 9))
    assert daemon.frames_before_later_ones() == []


def test_nobody_reads_what_the_launcher_says(make_device):
    """It keeps some lines and counts the others, and all the rest goes on. What
    comes without end it takes at a pace: 4096 bytes, of 6 a record, every 20 ms."""
    records = 60000
    device = make_device()
    os.mkfifo(device.dir / "status.txt")
    output = os.open(device.dir / "status.txt", os.O_RDONLY | os.O_NONBLOCK)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.settimeout(10)
        listener.bind(str(device.dir / "link"))
        listener.listen()
        run = Launch(device, "--protocol", "20", wait=False)
        companion = wire.ScriptedCompanion(listener.accept()[0])
    companion.shake_hands()
    daemon = run.daemon()
    began = time.monotonic()
    companion.sock.sendall(records * wire.message(wire.NETWORK_STATE, (1, 9)))
    companion.send(wire.TEARDOWN, (1, b"enough"))
    wait_until(lambda: is_gone(daemon), "the daemon's end")
    # The pipe has room for some, the first ones are read at once, and the end takes 1 s.
    assert time.monotonic() - began > (records * 6 - 65536 - 2 * 4096) / 4096 * 0.02 + 1
    os.set_blocking(output, True)
    with open(output) as lines:
        text = lines.read()
    assert run.process.wait(10) == 0
    dropped, = re.findall(r"^dropped (\d+) lines$", text, re.MULTILINE)
    # Those of start, statistics and end are among them.
    assert text.count("\n") - 1 + int(dropped) == records + 3


def test_what_the_launcher_cannot_write_or_ask(make_device, tmp_path, monkeypatch):
    device = make_device()
    companion = listening_companion(device)
    metrics = tmp_path / "none" / "metrics"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(10)
        monkeypatch.setenv("NOTIFY_SOCKET", str(tmp_path / "notify"))
        run = Launch(device, "--protocol", "5", "--json", "--stats-every", "1",
                     "--metrics", metrics, pass_fds=[manager.fileno()])
        link = f"unix:{device.dir}/link"
        for state in ("READY=1", f"STATUS=connecting {link}", f"STATUS=running over {link}",
                      f"STATUS=running over {link}, network 7, not metered"):
            assert manager.recv(1000).decode() == state
        # What the launcher has inherited is not handed on.
        daemon = f"/proc/{run.daemon()}/fd"
        assert f"socket:[{os.fstat(manager.fileno()).st_ino}]" not in {
            os.readlink(f"{daemon}/{fd}") for fd in os.listdir(daemon)}
        run.wait_for(run.err, "the control port does not listen; statistics come only when")
        # One failed write is not the last, and later ones need no record.
        metrics.parent.mkdir()
        run.wait_for(metrics, "vantrel_up 1")
        sent = re.compile(r"^vantrel_link_sent_bytes_total (\d+)$", re.M)
        before = int(sent.search(metrics.read_text())[1])
        device.connect(*REMOTE).close()
        wait_until(lambda: int(sent.search(metrics.read_text())[1]) > before, "the stream's bytes")
        # Nor does it take the place of what is no file.
        metrics.unlink()
        metrics.symlink_to(tmp_path / "victim")
        device.connect(*REMOTE).close()
        run.wait_for(run.err, f"cannot write {metrics}: not a regular file")
        assert metrics.is_symlink() and not metrics.exists()
        assert run.end() == 0
    prefix = "vantrel-launch: "
    assert [line.removeprefix(prefix) for line in run.err.read_text().splitlines()
            if "control port" not in line] == [
        f"cannot write {metrics}: No such file or directory; trying again every second",
        f"{metrics} is written again",
        f"cannot write {metrics}: not a regular file; trying again every second"]
    assert [json.loads(line)["record"] for line in run.out.read_text().splitlines()] == [
        "started", "network", "stats", "daemon_ended"]
    end_process(companion)
