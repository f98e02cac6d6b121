"""Status sockets, and what vantrelctl shows of them on a terminal."""

import json
import os
import re
import socket
import subprocess

from testbed.device import BROWSER_UID
from testbed.programs import BIN_DIR, Launch
from testbed.waiting import wait_until


MIB = 1 << 20
INTERNET = {"companion_options": ["--allow", "198.51.100.0/24"]}


class Screen:
    """|command| on a terminal of its own."""

    def __init__(self, directory, command, columns=100, lines=24):
        self._tmux = ["tmux", "-u", "-f", "/dev/null", "-S", directory / "tmux"]
        self.tell("new-session", "-d", "-x", columns, "-y", lines, *command)

    def tell(self, *words, **kwargs):
        return subprocess.run([*self._tmux, *map(str, words)], check=True, text=True,
                              timeout=20, env={**os.environ, "LC_ALL": "C.UTF-8"}, **kwargs)

    def text(self):
        return self.tell("capture-pane", "-p", stdout=subprocess.PIPE).stdout

    def wait_for(self, pattern):
        return wait_until(lambda: re.search(pattern, self.text()), pattern, 20)

    def has_ended(self):
        return subprocess.run([*self._tmux, "has-session"], timeout=20,
                              stderr=subprocess.DEVNULL).returncode != 0


def connect(path):
    reader = socket.socket(socket.AF_UNIX)
    reader.settimeout(10)
    reader.connect(str(path))
    return reader


def test_a_reader_that_does_not_read_is_dropped(launch, tmp_path):  # noqa: F811
    path = tmp_path / "status"
    run = launch("--status-socket", path)
    assert path.stat().st_mode & 0o777 == 0o600
    lazy, keen = connect(path), connect(path)
    lines = keen.makefile()
    first = json.loads(lines.readline())
    assert first["record"] == "state" and first["state"] in ("connecting", "running")
    control = run.device.socket(socket.SOCK_DGRAM)
    asked = heard = 0
    while "has stopped reading" not in run.err.read_text():
        assert asked < 5000
        control.sendto(b"\6", ("127.0.0.1", 2374))
        asked += 1
        while json.loads(lines.readline())["record"] != "stats":
            pass
        heard += 1
    while lazy.recv(65536):
        pass
    second = Launch(run.device, "--lock", tmp_path / "lock", "--status-socket", path, wait=False)
    assert second.process.wait(10) == 1 and "Address already in use" in second.err.read_text()
    assert run.end() == 0
    *_, last = lines
    assert json.loads(last)["state"] == "ended" and not path.exists()
    for sock in lazy, keen, control:
        sock.close()


def test_top(launch, tmp_path, needs_root):  # noqa: F811
    path = tmp_path / "status"
    options = "--status-socket", path, "--stats-every", "1"
    run = launch(*options, **INTERNET)
    top = [BIN_DIR / "vantrelctl", "top", "--status-socket", path]
    screen = Screen(tmp_path, run.device.command([*top, "--log", run.log]))
    screen.wait_for(r"vantrel running over unix:.*protocol 5\n"
                    r"up 0:00:\d\d, 1 start, network 7, not metered, 0 streams")

    server = socket.create_server(("198.51.100.80", 8000))
    client = subprocess.Popen(run.device.command(
        ["bash", "-c", "cat </dev/tcp/198.51.100.80/8000 >/dev/null"], BROWSER_UID))
    remote, _ = server.accept()
    remote.sendall(bytes(4 * MIB))
    screen.wait_for(r" 10123  com\.example\.browser .*4\.[12]\d MB")
    screen.wait_for(r" 198\.51\.100\.80:8000 +com\.example\.browser ")
    screen.wait_for("[▁▂▃▄▅▆▇█]")
    once = json.loads(run.device.run(*top, "--once", "--json", "--log", run.log).stdout)
    browser = next(row for row in once["applications"] if row["uid"] == BROWSER_UID)
    assert browser["name"] == "com.example.browser"
    assert 4 * MIB <= browser["rx_bytes"] < 4.2 * MIB
    assert once["link_traffic"]["rx_bytes"] >= browser["rx_bytes"]
    assert once["streams"][0]["remote"] == "198.51.100.80:8000" and "note" not in once

    screen.tell("resize-window", "-x", 50, "-y", 10)
    wait_until(lambda: "RECEIVED" not in screen.text(), "the narrow form")
    screen.wait_for("APPLICATION +DOWN +UP\n")
    screen.tell("send-keys", "p")
    screen.wait_for(r"running \(paused\)")
    screen.tell("send-keys", "p")

    run.process.kill()
    screen.wait_for("the launcher has gone")
    run.process.wait()
    again = Launch(run.device, "--protocol", "5", *options)
    screen.wait_for("vantrel running")
    screen.tell("send-keys", "q")
    wait_until(screen.has_ended, "the end of the program")
    assert again.end() == 0
    client.kill()
    client.wait()
    remote.close()
    server.close()


def test_top_of_a_companion(launch, tmp_path, needs_root):  # noqa: F811
    path = tmp_path / "status"
    run = launch(companion_options=["--status-socket", path, *INTERNET["companion_options"]])
    screen = Screen(tmp_path, [BIN_DIR / "vantrelctl", "top", path], columns=130)
    screen.wait_for(r"vantrel running\nup 0:00:\d\d, 1 link so far, 1 device\n")
    with socket.create_server(("198.51.100.80", 8000)) as server:
        client = subprocess.Popen(run.device.command(
            ["bash", "-c", "cat </dev/tcp/198.51.100.80/8000 >/dev/null"], BROWSER_UID))
        remote, _ = server.accept()
        remote.sendall(bytes(4 * MIB))
        screen.wait_for(r"\n +unix: process \d+ of user 0, pro.* 1 +0:00:\d\d .* 4\.[12]\d MB")
        screen.wait_for(r"\n    com\.example\.browser, uid 10123 +1 +0:00:\d\d .* 4\.19 MB")
        screen.wait_for(r"\n      1 198\.51\.100\.80:8000 +0:00:\d\d .* 4\.19 MB")
        for shown, hidden in (("com.example.browser", "198.51.100.80"),
                              ("unix: process", "com.example.browser")):
            screen.tell("send-keys", "f")
            wait_until(lambda: shown in screen.text() and hidden not in screen.text(), "the fold")
        screen.tell("send-keys", "f")
        screen.wait_for(r"198\.51\.100\.80:8000")
        remote.close()
        client.wait(20)
    once = json.loads(run.device.run(BIN_DIR / "vantrelctl", "top", path, "--once",
                                     "--json").stdout)
    device, = once["devices"]
    assert device["link_traffic"]["rx_bytes"] > 4 * MIB
    assert [row["rx_bytes"] for row in device["applications"] if row.get("uid") == BROWSER_UID] == \
        [4 * MIB]
    run.companion.kill()
    screen.wait_for("the companion has gone")
    screen.tell("send-keys", "q")
    wait_until(screen.has_ended, "the end of the program")


def test_top_without_a_launcher_or_a_terminal(launch, tmp_path):  # noqa: F811
    run = launch("--status-socket", tmp_path / "status")
    for path, words in ((tmp_path / "status", "no terminal; see --once"),
                        (tmp_path / "none", f"vantrel-launch --status-socket {tmp_path}/none"),
                        ("x" * 200, "--status-socket: ")):
        result = run.device.run(BIN_DIR / "vantrelctl", "top", "--status-socket", path,
                                check=False, stdin=subprocess.DEVNULL)
        assert result.returncode in (1, 2) and words in result.stderr
    assert run.end() == 0


def test_a_hostile_status_socket_does_not_command_the_terminal(tmp_path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{tmp_path}/status")
        listener.listen()
        top = subprocess.Popen([BIN_DIR / "vantrelctl", "top", "--once", "--status-socket",
                                tmp_path / "status"], stderr=subprocess.PIPE)
        reader, _ = listener.accept()
        with reader:
            reader.sendall(b'{"record":"state","state":"\\u001b]0;title\\u0007\\u009b2J"}\n')
            text = top.communicate(timeout=20)[1].decode()
    assert top.returncode == 1 and "is no state" in text
    assert text.endswith("\n") and text[:-1].isprintable()
