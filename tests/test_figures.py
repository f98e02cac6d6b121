"""What the companion tells of devices, applications and streams: the status socket,
metrics in a file and over HTTP, and the samples that collect them."""

import contextlib
import json
import re
import shutil
import socket
import struct
import subprocess
import time

import pytest

from testbed.device import BROWSER_UID, MAIL_UID
from testbed.processes import descriptors, end_process, resident_bytes
from testbed.programs import BIN_DIR, SOURCE_DIR, Launch, listening_companion, program_environment
from testbed.waiting import wait_until

ADDRESS = "198.51.100.80"
PROMTOOL = SOURCE_DIR / "build/tools/promtool"  # made by scripts/setup.sh
SAMPLES = SOURCE_DIR / "packaging/prometheus"
# What the manual shows: a state, the names of metrics.
STATE, NAMES = re.findall(r"^```\n(.*?)^```", (
    SOURCE_DIR / "packaging/man/vantrel-companion.1.scd").read_text(), re.M | re.S)


@pytest.fixture
def companion(make_device, tmp_path):
    """companion(*options): one beside the internet's servers that tells all it can."""
    device = make_device(debuggable=True)
    running = []

    def start(*options):
        process = listening_companion(
            device, "--allow", "198.51.100.0/24", "--status-socket", tmp_path / "status",
            "--metrics", tmp_path / "metrics.prom", "--metrics-listen", "0", *options,
            protocol="auto")
        process.device = device
        process.log = (device.dir / "companion.log").read_text
        process.port = int(re.search(r"metrics at http://127\.0\.0\.1:(\d+)/metrics",
                                     process.log())[1])
        running.append(process)
        return process

    yield start
    for process in running:
        end_process(process)


def scrape(process):
    """{(name, uid or None): value}"""
    answer = ask(process, b"GET /metrics HTTP/1.1\r\nHost: companion\r\n\r\n")
    head, text = answer.split(b"\r\n\r\n", 1)
    assert head.startswith(b"HTTP/1.1 200 ") and f"Length: {len(text)}".encode() in head
    return parse(text.decode())


def ask(process, request):
    with socket.create_connection(("127.0.0.1", process.port), 20) as scraper:
        scraper.sendall(request)
        return b"".join(iter(lambda: scraper.recv(65536), b""))


def parse(text):
    form = r'^vantrel_companion_(\w+?)(?:\{device="[^"]*"(?:,uid="(\w+)",package="[^"]*")?\})? (.*)$'
    return {(name, uid or None): float(value)
            for name, uid, value in re.findall(form, text, re.M)}


def state_of(path):
    with socket.socket(socket.AF_UNIX) as reader:
        reader.settimeout(20)
        reader.connect(str(path))
        return json.loads(reader.makefile().readline())


def exchange(device, uid, up, down, ends):
    """One stream of |uid| that moves so many bytes of payload each way."""
    with socket.create_server((ADDRESS, 0)) as server:
        client = subprocess.Popen(device.command(
            ["bash", "-c", f"exec 3<>/dev/tcp/{ADDRESS}/{server.getsockname()[1]}; "
             f"head -c {up} /dev/zero >&3; head -c {down} <&3 | wc -c; read"], uid),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        remote, _ = server.accept()
        while up:
            up -= len(remote.recv(min(up, 65536)))
        remote.sendall(bytes(down))
        assert int(client.stdout.readline()) == down
        if not ends:
            return client, remote
        remote.close()
        client.communicate(b"\n", timeout=20)
        return None


def shape(value):
    """The members of a record, and of the fullest one of each list."""
    if isinstance(value, dict):
        return {name: shape(member) for name, member in value.items()}
    if isinstance(value, list):
        return max(map(shape, value), key=lambda one: len(str(one)), default=None)
    return type(value)


def moved(figures, uid):
    return [figures.get((f"application_{name}", uid)) for name in (
        "received_bytes_total", "sent_bytes_total", "streams_total", "open_streams",
        "received_datagrams_total", "sent_datagrams_total", "dropped_datagrams_total",
        "denied_streams_total")]


@pytest.mark.parametrize("protocol", ["1", "5", "20"])
def test_figures_are_exactly_what_was_moved(companion, needs_root, tmp_path, protocol):
    process = companion()
    device = process.device
    launcher = "--protocol", protocol, "--metrics", tmp_path / "launcher.prom"
    run = Launch(device, *launcher)
    exchange(device, BROWSER_UID, 100_001, 1_000_003, True)
    exchange(device, BROWSER_UID, 10, 20, True)
    client, remote = exchange(device, MAIL_UID, 7, 5, False)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind((ADDRESS, 0))
        app = device.socket(socket.SOCK_DGRAM)
        app.sendto(b"x" * 30, server.getsockname())
        there = server.recvfrom(100)[1]
        for size in 500, 400:
            server.sendto(b"y" * size, there)
            assert len(app.recv(1000)) == size
        app.close()
    wanted = {str(BROWSER_UID): [1_000_023, 100_011, 2, 0, 0, 0, 0, 0],
              str(MAIL_UID): [5, 7, 1, 1, 0, 0, 0, 0],
              "unknown": [900, 30, 0, 0, 2, 1, 0, 0]}

    def are_told(figures):
        return all(moved(figures, uid) == values for uid, values in wanted.items())

    figures = wait_until(lambda: are_told(figures := scrape(process)) and figures, "the figures")
    assert figures["device_links", None] == figures["device_connections_total", None] == 1
    assert figures["device_received_bytes_total", None] > 1_000_928
    file = tmp_path / "metrics.prom"
    wait_until(lambda: are_told(parse(file.read_text())), "the same in the file")
    written = file.stat().st_mtime_ns

    state = state_of(tmp_path / "status")
    device_state, = state["devices"]
    assert device_state["protocol"] == protocol and device_state["state"] == "running"
    rows = {row.get("uid"): row for row in device_state["uids"]}
    assert (rows[None]["rx_bytes"], rows[None]["rx_datagrams"]) == (900, 2)
    mail = rows[MAIL_UID]
    assert (mail["rx_bytes"], mail["tx_bytes"], mail["streams_open"]) == (5, 7, 1)
    stream, = mail["streams"]
    assert stream["remote"].startswith(ADDRESS) and 0 < stream["age_ms"]
    assert (stream["rx_bytes"], stream["tx_bytes"]) == (5, 7)
    if protocol != "1":
        assert mail["name"] == "com.example.mail"
        assert shape(state) == shape(json.loads(STATE))

    # A device counts on when it comes back.
    remote.close()
    client.communicate(b"\n", timeout=20)
    assert run.end() == 0
    again = Launch(device, *launcher)
    exchange(device, BROWSER_UID, 1, 1, True)
    wanted[str(BROWSER_UID)] = [1_000_024, 100_012, 3, 0, 0, 0, 0, 0]
    wanted[str(MAIL_UID)][3] = 0
    wait_until(lambda: are_told(scrape(process)), "the new figures")
    assert file.stat().st_mtime_ns > written
    for text in ask(process, b"GET /metrics HTTP/1.1\r\n\r\n").split(b"\r\n\r\n", 1)[1], \
            (tmp_path / "launcher.prom").read_bytes():
        subprocess.run([PROMTOOL, "check", "metrics"], input=text, check=True, timeout=60)
    # While nothing moves nothing is written; what comes then is written at once.
    wait_until(lambda: time.time() - file.stat().st_mtime > 1.5, "a file that is left alone")
    assert again.end() == 0

    def is_kept():
        figures = parse(file.read_text())
        # Counted twice for a moment it would look like a restart afterwards.
        assert moved(figures, str(BROWSER_UID))[0] == 1_000_024
        return figures["device_links", None] == 0 and are_told(figures)

    wait_until(is_kept, "what is kept without a link")


def open_files(process):
    return len(descriptors([process.pid]))


def test_nobody_who_asks_for_figures_costs_much(companion, tmp_path):
    process = companion()
    before = resident_bytes([process.pid]), open_files(process)
    # A reader and scrapers that do not read, some that say nothing, one that is slow.
    lazy = socket.socket(socket.AF_UNIX)
    lazy.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
    lazy.connect(str(tmp_path / "status"))
    scrapers = [socket.create_connection(("127.0.0.1", process.port)) for _ in range(300)]
    for piece, some in (b"GET /metrics HTTP/1.1\r\n", 2), (b"\r\n", 4):
        for scraper in scrapers[::some]:
            with contextlib.suppress(OSError):  # another one has its place
                scraper.sendall(piece)
    wait_until(lambda: open_files(process) >= before[1] + 32, "all places taken")
    assert open_files(process) <= before[1] + 34
    assert resident_bytes([process.pid]) < before[0] + (4 << 20)
    for scraper in scrapers[:150]:
        scraper.close()
    # Those that say nothing lose their places to the next ones.
    assert ("max_links", None) in scrape(process)
    for scraper in scrapers[150:]:
        scraper.close()
    for request, status in ((b"GET / HTTP/1.1\r\n\r\n", b"404"), (b"\0\xff\r\n\r\n", b"400"),
                            (b"x" * 9000, b"431")):
        assert ask(process, request).startswith(b"HTTP/1.1 " + status)
    lazy.close()
    state = state_of(tmp_path / "status")
    assert state["devices"] == [] and state["state"] == "running"
    assert (tmp_path / "status").stat().st_mode & 0o777 == 0o600


def test_thousands_of_streams_fit_into_a_state(companion, tmp_path):
    """Of protocol 1, as its messages are short: 3000 streams of 1500 applications. A
    reader that goes on reading has all states; one that does not is dropped."""
    process = companion()
    with socket.create_server((ADDRESS, 7000), backlog=4096), \
            socket.socket(socket.AF_UNIX) as link, socket.socket(socket.AF_UNIX) as lazy:
        link.connect(str(process.device.dir / "link"))
        link.sendall(b"".join(
            struct.pack(">BI4sHH", 1, stream, socket.inet_aton(ADDRESS), 7000, 1 + stream // 2)
            for stream in range(1, 3001)))

        def is_full(state):
            return state["devices"] and \
                state["left_out"] == {"devices": 0, "uids": 1501 - 512, "streams": 3000 - 512}

        lazy.connect(str(tmp_path / "status"))
        with socket.socket(socket.AF_UNIX) as reader:  # each new one would ask for one more
            reader.settimeout(60)
            reader.connect(str(tmp_path / "status"))
            states = map(json.loads, reader.makefile())
            state = wait_until(lambda: is_full(state := next(states)) and state, "the state", 30)
        rows = state["devices"][0]["uids"]
        assert len(rows) == 512 and sum(row["streams_open"] for row in rows) >= 512
        wait_until(lambda: "has stopped reading" in process.log(), "the end of the reader", 60)
        top = subprocess.run([BIN_DIR / "vantrelctl", "top", tmp_path / "status", "--once"],
                             check=True, capture_output=True, text=True, timeout=60)
        assert "989 applications" in top.stdout and "2488 streams left out" in top.stdout


def test_options_that_cannot_be(tmp_path):
    for words, status, text in (
            (["--metrics-listen", "nowhere"], 2, "--metrics-listen: 'nowhere' is not [HOST:]PORT"),
            (["--metrics", "/dev/null"], 2, "--metrics: /dev/null: not a regular file"),
            (["--status-socket", "x" * 200], 2, "--status-socket: "),
            (["--status-socket", tmp_path / "no/status"], 1, "no status socket"),
            (["--metrics-listen", "192.0.2.77:0"], 1, "no metrics at 192.0.2.77:0: ")):
        run = subprocess.run([BIN_DIR / "vantrel-companion", "--listen",
                              f"unix:{tmp_path}/link", *words], timeout=20, text=True,
                             capture_output=True, env=program_environment(tmp_path))
        assert run.returncode == status and text in run.stderr, run.stderr


def test_the_samples_are_what_the_collector_takes(companion, tmp_path):
    for path in SAMPLES.iterdir():
        shutil.copy(path, tmp_path)
    for command, name in (("config", "prometheus.yml"), ("rules", "vantrel.rules.yml")):
        subprocess.run([PROMTOOL, "check", command, tmp_path / name], check=True, timeout=60)
    # They speak of figures that there are, and find both programs where they listen.
    names = set(re.findall(r"\bvantrel_\w+", (SAMPLES / "vantrel.rules.yml").read_text()))
    told = ask(companion(), b"GET /metrics HTTP/1.1\r\n\r\n").decode()
    assert sorted(NAMES.split()) == sorted(re.findall(r"^# TYPE (\S+)", told, re.M))
    told += (SOURCE_DIR / "tools/launch/metrics.cc").read_text()
    assert names and all(re.search(rf"\b{name}\b", told) for name in names)
