"""scripts/sandbox.sh: any command, as on a device."""

import os
import pathlib
import signal
import subprocess

import pytest

from testbed.programs import BIN_DIR, SOURCE_DIR, program_environment, sanitizer_reports
from testbed.waiting import wait_until


LOOK_UP = "dig +short +tries=1 +time=8 www.example.test"


def left_behind():
    commands = []
    for process in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            commands.append(process.read_bytes().replace(b"\0", b" ").decode())
        except (FileNotFoundError, ProcessLookupError):
            continue  # it ended meanwhile
    return [line for line in commands if str(BIN_DIR) in line]


@pytest.fixture
def sandbox(tmp_path):
    def start(*command, options=()):
        return subprocess.Popen(
            [SOURCE_DIR / "scripts/sandbox.sh", "--log-dir", tmp_path, "--bin", BIN_DIR,
             "--dns", "198.51.100.53", *options, "--", *command],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            start_new_session=True, cwd=tmp_path, env={**program_environment(tmp_path), "TMPDIR": str(tmp_path)})

    yield start
    wait_until(lambda: not left_behind(), "the last process to end")
    assert sanitizer_reports(tmp_path) == ""


def test_a_command_and_its_exit_status(sandbox, tmp_path):
    # Nobody answers at 198.51.100.53: the refusal comes from the companion.
    run = sandbox("sh", "-c", f"{LOOK_UP}; cat /etc/resolv.conf; exit 7",
                  options=["--capture", "the link.pcapng", "--verbose"])
    output, _ = run.communicate(timeout=60)
    assert run.returncode == 7
    assert output.splitlines()[-1] == "nameserver 192.0.2.53"
    assert (tmp_path / "status.txt").read_text().splitlines() == [
        "started", "stats: no traffic since the last report",
        "daemon ended: exit status 0"]
    assert "Look up www.example.test." in (tmp_path / "daemon.log").read_text()
    log = (tmp_path / "companion.log").read_text()
    assert "listening on" in log and "datagram" in log
    assert (tmp_path / "the link.pcapng").read_bytes().startswith(b"\n\r\r\n")


def test_a_link_that_cannot_be_shaped_like_that(sandbox):
    run = sandbox("true", options=["--shape", "rate=x"])
    _, said = run.communicate(timeout=60)
    assert run.returncode == 125 and '"rate=x" is none of rate=2Mbit' in said


@pytest.mark.parametrize("signum, to_group, status", [
    (signal.SIGINT, True, 130), (signal.SIGTERM, False, 143)])
def test_an_interrupted_command(sandbox, tmp_path, signum, to_group, status):
    run = sandbox("sh", "-c", "echo running; exec sleep 60")
    assert run.stdout.readline() == "running\n"
    (os.killpg if to_group else os.kill)(run.pid, signum)
    run.communicate(timeout=20)
    assert run.returncode == status
    assert (tmp_path / "status.txt").read_text().endswith("daemon ended: exit status 0\n")
