"""Real clients, the real companion and real servers."""

import asyncio
import collections
import contextlib
import hashlib
import http.server
import random
import re
import signal
import socket
import subprocess
import threading

import pytest

from testbed.device import BROWSER_UID, MAIL_UID
from testbed.processes import end_process
from testbed.programs import Companion
from testbed.servers import start_name_server
from testbed.waiting import wait_until


MIB = 1 << 20
DATA = random.Random(1).randbytes(16 * MIB)


class Web(http.server.BaseHTTPRequestHandler):
    """GET /N: the first N bytes. PUT: answers with the checksum."""

    protocol_version = "HTTP/1.1"

    def reply(self, body):
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        self.reply(DATA[:int(self.path[1:])])

    def do_PUT(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.reply(hashlib.sha256(body).hexdigest().encode())

    def log_message(self, *args):
        pass


class Server(http.server.ThreadingHTTPServer):
    request_queue_size = 64


@pytest.fixture
def web():
    with Server(("198.51.100.80", 80), Web) as server:
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        yield server
        server.shutdown()
        thread.join()


@pytest.fixture
def dns():
    server = start_name_server("www.example.test")
    yield
    end_process(server)


@pytest.fixture(params=["20", "5", "1"])
def tunnel(request, tmp_path, device, start):
    """(daemon, companion), connected, over each form of the link."""
    companion = Companion(tmp_path, "--build-info", "bench", "--network",
                          "7,metered", "--dns", "198.51.100.53",
                          protocol=request.param)
    daemon = start(args=(request.param,), link=companion.link)
    companion.link.close()
    wait_until(lambda: "link up" in companion.log(), "the link")
    daemon.ports()
    yield daemon, companion
    companion.close()


def receive(app, count):
    """|count| bytes, or fewer when the other end closes."""
    got = bytearray()
    while len(got) < count and (piece := app.recv(65536)):
        got += piece
    return bytes(got)


def receive_all(app):
    return receive(app, 1 << 30)


def digest(data):
    return hashlib.sha256(data).hexdigest()


def test_downloads_and_uploads(device, tunnel, web):
    got = subprocess.run(device.command(["curl", "-sS", f"http://198.51.100.80/{16 * MIB}"]),
                         capture_output=True, timeout=60, check=True).stdout
    assert digest(got) == digest(DATA)
    answer = subprocess.run(device.command(["curl", "-sS", "-T", "-", "-H", "Expect:",
                                            "-H", f"Content-Length: {len(DATA)}",
                                            "-H", "Transfer-Encoding:",
                                            "http://198.51.100.80/up"]),
                            input=DATA, capture_output=True, timeout=60, check=True).stdout
    assert answer.decode() == digest(DATA)


def test_fifty_streams_at_once(device, tunnel, web):
    apps = [device.socket(socket.SOCK_STREAM) for _ in range(50)]
    size = MIB // 4
    for n, app in enumerate(apps):
        app.connect(("198.51.100.80", 80))
        request = f"GET /{size + n} HTTP/1.0\r\n\r\n"
        app.sendall(request.encode())
    for n, app in enumerate(apps):
        assert receive_all(app).split(b"\r\n\r\n", 1)[1] == DATA[:size + n], n


def test_names(device, tunnel, dns, web):
    for options in [], ["+tcp"]:
        answer = device.run("dig", "+short", *options, "@198.51.100.53", "www.example.test")
        assert answer.stdout == "198.51.100.80\n"
    # The device's own name server does not exist; the companion knows better.
    assert "198.51.100.80" in device.run("dig", "@192.0.2.53", "www.example.test").stdout
    size = device.run("curl", "-sS", "-o", "/dev/null", "-w", "%{size_download}",
                      "http://www.example.test/5").stdout
    assert size == "5"


def test_what_cannot_be_reached(device, tunnel):
    daemon, companion = tunnel
    app = device.connect("198.51.100.99", 9)  # nobody listens there
    with contextlib.suppress(ConnectionResetError):
        assert app.recv(100) == b""
    # No name server answers at 198.51.100.53 now: refused at once, no time-out.
    answer = device.run("dig", "+tries=1", "+time=8", "@192.0.2.53", "www.example.test",
                        check=False).stdout
    assert "status: REFUSED" in answer


def test_half_of_a_conversation(device, tunnel):
    """Each end may stop first; what was sent before arrives."""
    with socket.create_server(("198.51.100.80", 7000)) as listener:
        listener.settimeout(10)
        app = device.connect("198.51.100.80", 7000)
        remote, _ = listener.accept()
        remote.settimeout(10)
        app.sendall(b"question")
        assert remote.recv(100) == b"question"
        remote.sendall(DATA[:MIB])
        remote.close()
        assert receive_all(app) == DATA[:MIB]

        app = device.connect("198.51.100.80", 7000)
        remote, _ = listener.accept()
        remote.settimeout(10)
        app.sendall(b"goodbye")
        assert remote.recv(100) == b"goodbye"
        app.close()
        assert remote.recv(100) == b""
        remote.close()


def test_what_is_written_before_the_end_arrives(device, tunnel):
    """All of it, from an application that closes at once."""
    with socket.create_server(("198.51.100.80", 7000), backlog=64) as listener:
        listener.settimeout(10)
        for data in [b"four", DATA[:300000]]:
            for _ in range(20):
                with device.connect("198.51.100.80", 7000) as app:
                    app.sendall(data)
            for _ in range(20):
                remote, _ = listener.accept()
                remote.settimeout(10)
                with remote:
                    assert receive_all(remote) == data


# |count| connections to |address|, all at once. When all are made the application says
# a line on each, where the server speaks first when it has heard it; then it waits for
# the answers.
BURST = """
import selectors, socket, sys
address, port, count, is_server_first = sys.argv[1], *map(int, sys.argv[2:])
apps = [socket.socket() for _ in range(count)]
selector = selectors.DefaultSelector()
for app in apps:
    app.setblocking(False)
    app.connect_ex((address, port))
    selector.register(app, selectors.EVENT_READ if is_server_first else selectors.EVENT_WRITE)
answered = 0
while answered < count:
    ready = selector.select(20)
    if not ready:
        break
    for key, events in ready:
        app = key.fileobj
        if events & selectors.EVENT_WRITE:
            app.sendall(b"HELO\\n")
            selector.modify(app, selectors.EVENT_READ)
            continue
        got = app.recv(100)
        if got == b"220\\n":
            selector.modify(app, selectors.EVENT_WRITE)
            continue
        answered += got == b"250\\n"
        selector.unregister(app)
print(answered)
"""


@contextlib.contextmanager
def greeting_servers(ports, is_first):
    """Servers that answer each line, in a thread; with |is_first| they speak first."""
    async def serve(reader, writer):
        if is_first:
            writer.write(b"220\n")
        if await reader.readline():
            writer.write(b"250\n")
        await reader.read()
        writer.close()

    async def open_all():
        return [await asyncio.start_server(serve, "198.51.100.80", port, backlog=2000)
                for port in ports]

    loop = asyncio.new_event_loop()
    servers = loop.run_until_complete(open_all())
    thread = threading.Thread(target=loop.run_forever)
    thread.start()
    try:
        yield
    finally:
        loop.call_soon_threadsafe(loop.stop)
        thread.join()
        for server in servers:
            server.close()
        loop.run_until_complete(asyncio.sleep(0))


@pytest.mark.parametrize("is_server_first", [True, False])
def test_many_connections_at_one_instant(needs_root, device, tunnel, is_server_first):
    """All are answered, and charged to the right one of three applications."""
    daemon, _ = tunnel
    owners = {7100: 0, 7101: BROWSER_UID, 7102: MAIL_UID}
    expected = 0
    with greeting_servers(owners, is_server_first):
        for count in 51, 258, 999:
            applications = [subprocess.Popen(device.command(
                ["/usr/bin/python3", "-c", BURST, "198.51.100.80", port, count // 3,
                 int(is_server_first)], uid), stdout=subprocess.PIPE, text=True)
                for port, uid in owners.items()]
            answered = [int(application.communicate(timeout=60)[0])
                        for application in applications]
            assert answered == [count // 3] * 3
            expected += count // 3
    told = re.findall(r"stream to: 198.51.100.80:(\d+) \(uid=(\d+)\)", "\n".join(daemon.log()))
    assert collections.Counter(told) == {
        (str(port), str(uid)): expected for port, uid in owners.items()}


def test_slow_ends(device, tunnel, web):
    """One application that does not read, one server that does not: neither
    holds up a third, and both get everything in the end."""
    with socket.create_server(("198.51.100.80", 7000)) as listener:
        listener.settimeout(10)
        unread = device.connect("198.51.100.80", 80)
        unread.sendall(f"GET /{8 * MIB} HTTP/1.0\r\n\r\n".encode())
        stuck = device.connect("198.51.100.80", 7000)
        remote, _ = listener.accept()
        remote.settimeout(10)
        sender = threading.Thread(target=stuck.sendall, args=[DATA])
        sender.start()
        size = device.run("curl", "-sS", "-o", "/dev/null", "-w", "%{size_download}",
                          f"http://198.51.100.80/{MIB}").stdout
        assert size == str(MIB)
        assert sender.is_alive()  # the server's silence has reached the sender
        assert receive_all(unread).split(b"\r\n\r\n", 1)[1] == DATA[:8 * MIB]
        assert receive(remote, len(DATA)) == DATA
        sender.join()
        remote.close()


def test_datagrams_both_ways(device, tunnel):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as remote:
        remote.bind(("198.51.100.81", 4000))
        remote.settimeout(10)
        app = device.socket(socket.SOCK_DGRAM)
        for size in 1, 1472, 16384:
            app.sendto(DATA[:size], ("198.51.100.81", 4000))
            got, sender = remote.recvfrom(65536)
            assert got == DATA[:size]
            remote.sendto(got[::-1], sender)
            assert app.recvfrom(65536) == (got[::-1], ("198.51.100.81", 4000))


def test_networks_and_the_end(tunnel):
    daemon, companion = tunnel
    network = b"\1\7\0\0\0\1"
    wait_until(lambda: daemon.status() == b"\0\0\0\0" + network, "the network")
    companion.process.send_signal(signal.SIGHUP)
    wait_until(lambda: daemon.status() == b"\0\0\0\0" + network * 2, "it again")
    end_process(companion.process)
    assert daemon.wait() == 0
    assert daemon.status().startswith(b"\0\0\0\0" + network * 2 + b"\2")
