"""The real companion by itself; the test plays its devices."""

import contextlib
import itertools
import json
import os
import pathlib
import re
import resource
import select
import signal
import socket
import stat
import struct
import subprocess
import sys
import time

import pytest

from testbed import wire
from testbed.device import MAIL_UID
from testbed.processes import end_process
from testbed.programs import BIN_DIR, program_environment, sanitizer_reports
from testbed.waiting import wait_until


REMOTE = ("198.51.100.80", 7000)


def connect(stream, address=REMOTE[0], port=REMOTE[1], uid=10123):
    return struct.pack(">BI4sHH", 1, stream, socket.inet_aton(address), port, uid)


def data(stream, payload):
    return struct.pack(">BIH", 3, stream, len(payload)) + payload


def close(stream):
    return struct.pack(">BI", 2, stream)


def is_asleep(process):
    return pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()[0] == "S"


@pytest.fixture
def companion(tmp_path):
    """companion(*options): one that listens on a socket file."""
    running = []

    def start(*options, protocol="1", max_descriptors=10000):
        log = tmp_path / f"log{len(running)}"
        with open(log, "wb") as output:
            process = subprocess.Popen(
                ["prlimit", f"--nofile={max_descriptors}",
                 BIN_DIR / "vantrel-companion", "--protocol", protocol,
                 "--listen", f"unix:{tmp_path}/link", *options],
                stderr=output, env=program_environment(tmp_path))
        process.log = log.read_text
        running.append(process)
        # It opens some descriptors after that line, and is ready when it sleeps.
        wait_until(lambda: "listening on" in process.log() and is_asleep(process) or
                   process.poll() is not None,
                   "the companion")
        return process

    yield start
    for process in running:
        process.send_signal(signal.SIGCONT)
        end_process(process)
    assert sanitizer_reports(tmp_path) == ""


@pytest.fixture
def link(tmp_path):
    links = []

    def make():
        links.append(socket.socket(socket.AF_UNIX))
        # Without a time-out: with one a full queue is an error.
        links[-1].connect(f"{tmp_path}/link")
        links[-1].settimeout(10)
        return links[-1]

    yield make
    for one in links:
        one.close()


@pytest.fixture
def remote():
    with socket.create_server(REMOTE, backlog=64) as listener:
        listener.settimeout(10)
        yield listener


def take(sock, count):
    got = b""  # MSG_WAITALL does not wait on a socket with a time-out
    while piece := sock.recv(count - len(got)):
        got += piece
        if len(got) == count:
            break
    assert len(got) == count
    return got


def ping(sock):
    sock.sendall(b"\5abcd")
    assert take(sock, 5) == b"\5abcd"


def processor_seconds(process):
    with open(f"/proc/{process.pid}/stat") as stat_file:
        fields = stat_file.read().rsplit(")")[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_devices_of_all_protocols_at_once(companion, link):
    process = companion("--network", "7,metered", protocol="auto")
    silent = link()
    old, newer, newest = link(), link(), wire.ScriptedCompanion(link())
    assert not select.select([silent, old], [], [], .3)[0]  # nothing is known of them yet
    old.sendall(b"\5abcd")
    assert take(old, 11) in (b"\x0b\0\0\0\7\1" + b"\5abcd", b"\5abcd" + b"\x0b\0\0\0\7\1")
    newer.sendall(bytes.fromhex("10000000050000" "12000000050000"))
    assert take(newer, 13) == bytes.fromhex("11000000050000" "0b0000000701")
    newest.send(wire.HANDSHAKE_START, (1, 1))
    assert newest.receive().kind == wire.HANDSHAKE_ACK
    stranger = link()
    stranger.sendall(b"GET / HTTP/1.1\r\n")
    assert stranger.recv(1) == b""
    assert "the device begins with 47, with which no protocol begins" in process.log()
    ping(old)
    assert not select.select([silent], [], [], 0)[0]


@pytest.fixture
def resolver_file(tmp_path):
    """What the companion's machine has as /etc/resolv.conf."""
    path = tmp_path / "resolv.conf"
    path.touch()
    real = os.path.realpath("/etc/resolv.conf")
    subprocess.run(["mount", "--bind", path, real], check=True)
    yield path
    subprocess.run(["umount", real], check=True)


@contextlib.contextmanager
def name_server(address):
    """A question and an answer each, over UDP and over TCP."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as datagrams, \
            socket.create_server((address, 53)) as streams:
        datagrams.bind((address, 53))
        for one in datagrams, streams:
            one.settimeout(10)
        yield datagrams, streams


def test_name_look_ups_reach_the_machine_s_own_name_servers(companion, link, resolver_file):
    well_known, elsewhere = "192.168.167.53", "203.0.113.5"
    with name_server("127.0.0.66") as (dead, _), name_server("127.0.0.67") as (server, streams), \
            name_server("127.0.0.68") as (other, _):
        resolver_file.write_text("nameserver 127.0.0.66\nnameserver 127.0.0.67\n")
        process = companion("--deny", "192.168.0.0/16", protocol="1")
        one = link()

        def ask(expected, address=well_known):
            one.sendall(datagram(53, b"q", address))
            question, asker = expected.recvfrom(100)
            return question, asker

        ask(dead)  # which says nothing
        time.sleep(2.1)
        question, asker = ask(server)  # the application tries again
        server.sendto(b"answer", asker)
        answer = struct.pack(">B4sHH", 4, socket.inet_aton(well_known), 53, 6) + b"answer"
        assert (question, take(one, len(answer))) == (b"q", answer)

        one.sendall(connect(7, well_known, 53) + data(7, b"q"))
        peer = streams.accept()[0]
        assert peer.recv(1) == b"q"
        peer.sendall(b"answer")
        answer = struct.pack(">BI", 6, 7) + data(7, b"answer")  # with its acknowledgement
        assert take(one, len(answer)) == answer

        resolver_file.write_text("nameserver 127.0.0.68\n")
        time.sleep(1.1)
        ask(other)
        one.sendall(datagram(54, b"q", well_known) + datagram(53, b"q", "127.0.0.68"))
        wait_until(lambda: process.log().count("not an allowed address") == 2, "refusals")
        end_process(process)

        companion("--dns", "system", protocol="1")
        one = link()
        ask(other, elsewhere)


def test_many_links_and_no_room(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24", "--max-links", "5")
    links = [link() for _ in range(5)]
    for one in links[:4]:
        one.sendall(connect(1))  # the same number on each link
    peers = [remote.accept()[0] for _ in range(4)]
    links[4].sendall(connect(1) + b"\xff no such message")
    assert links[4].recv(100) == b""  # its fault is its own
    refused = link()
    wait_until(lambda: "link 5: link down" in process.log(), "the end")
    for one in links[:4]:
        one.sendall(data(1, b"question"))
    for peer in peers:
        peer.settimeout(10)
        assert take(peer, 8) == b"question"
        peer.sendall(b"answer")
        peer.close()
    for one in links[:4]:
        expected = struct.pack(">BI", 6, 1), data(1, b"answer") + close(1)
        assert sorted([take(one, 5), take(one, 18)]) == sorted(expected)
    links.append(link())
    ping(links[-1])
    assert refused.recv(1) == b"" or "refused" not in process.log()


def descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


def test_no_more_links_than_allowed(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24", "--max-links", "2")
    before = descriptors(process)
    made = itertools.count(1)

    def make_links(count):
        links = [link() for _ in range(count)]
        number = [next(made) for _ in links][-1]
        wait_until(lambda: process.log().count("unix: process") == number, "all links")
        return links

    make_links(2)
    # Each further one gets the place of one that was silent for 10 s, once.
    wait_until(lambda: "silent, and" in process.log() or time.sleep(.2) or not make_links(1),
               "a place", 20)
    make_links(10)
    wait_until(lambda: descriptors(process) == before + 2, "two links")
    assert "link 4 connected" in process.log() and "link 5" not in process.log()


def test_rests_of_links_are_bounded(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24", "--max-links", "2")
    before = descriptors(process)
    remote.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    peers = []
    for number in range(1, 7):
        one = link()
        one.sendall(connect(1))
        peers.append(remote.accept()[0])  # and does not read
        one.sendall(data(1, bytes(65535)) * 8)
        one.close()
        wait_until(lambda: f"link {number}: link down" in process.log(), "the end")
    wait_until(lambda: descriptors(process) <= before + 2, "two rests", 1)
    for peer in peers:
        peer.close()


def test_no_application_takes_all_streams(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24", "--max-links", "1", max_descriptors=100)
    one = link()

    def open_streams(numbers, uid):
        """How many of them there are no places for."""
        one.sendall(b"".join(connect(n, uid=uid) for n in numbers) + b"\5abcd")
        refused = 0
        while (kind := take(one, 1)) == b"\2":
            refused += len(take(one, 4)) // 4
        assert kind + take(one, 4) == b"\5abcd"
        return refused

    refused = open_streams(range(1, 61), 10123)
    assert refused == process.log().count("too many streams of one application") > 20
    # The last quarter is for the others, as long as there are others.
    assert open_streams(range(61, 63), 10124) == 0
    one.sendall(b"".join(close(n) for n in range(1, 61)))
    peers = [remote.accept()[0] for _ in range(62 - refused)]
    for ended in wait_until(lambda: len(found := select.select(peers, [], [], 1)[0]) ==
                            60 - refused and found, "the ends"):
        ended.close()
    wait_until(lambda: process.send_signal(signal.SIGUSR1) or
               " 2 streams" in process.log()[-300:], "the end of the others")
    assert open_streams(range(101, 111), 10123) == 0


def datagram(port, payload=b"x", address=REMOTE[0]):
    return struct.pack(">B4sHH", 4, socket.inet_aton(address), port, len(payload)) + payload


def test_no_device_takes_all_descriptors(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24", max_descriptors=256)
    greedy, modest = link(), link()
    ping(modest)
    for first in (1, 301):  # its flows, and as many streams as it gets
        greedy.sendall(b"".join(datagram(port) for port in range(first, first + 300)) +
                       b"".join(connect(n, uid=n) for n in range(first, first + 300)))
    wait_until(lambda: "too many streams" in process.log(), "the end of its share")
    before = descriptors(process)
    newcomer = link()
    for one in modest, newcomer:
        ping(one)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
            server.settimeout(10)
            server.bind(REMOTE)
            one.sendall(connect(1, port=9) + datagram(REMOTE[1]))
            assert server.recvfrom(10)[0] == b"x"
        assert take(one, 5) == close(1)  # by the remote, where nobody listens
    assert before < 200 and process.poll() is None
    assert "Too many open files" not in process.log()


def test_out_of_descriptors(companion, link, remote):
    process = companion("--allow", "198.51.100.0/24")
    one, two = link(), link()
    ping(one)
    ping(two)
    resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (descriptors(process) + 10,) * 2)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("0.0.0.0", REMOTE[1]))
        server.settimeout(10)
        for n in range(1, 31):  # a new flow takes the place of the oldest
            one.sendall(datagram(REMOTE[1], address=f"198.51.100.{n}"))
            assert server.recvfrom(10)[0] == b"x"
    one.sendall(b"".join(connect(n, uid=n) for n in range(1, 61)) + b"\5abcd")
    refused = 0
    while (kind := take(one, 1)) == b"\2":
        refused += len(take(one, 4)) // 4
    assert kind + take(one, 4) == b"\5abcd" and refused == 50
    waiting = link()  # finds no descriptor either
    before = processor_seconds(process)
    for _ in range(100):
        ping(two)
    assert processor_seconds(process) - before < 0.5
    for n in range(1, 61):
        one.sendall(close(n))
    for _ in range(60 - refused):
        remote.accept()[0].close()
    ping(waiting)
    waiting.sendall(connect(1))
    remote.accept()[0].close()


def test_destinations(companion, link, remote):
    process = companion("--allow", "127.0.0.0/8", "--deny", "127.0.0.2")
    one = link()
    for stream, address in enumerate(("198.51.100.80", "127.0.0.2", "0.0.0.0", "224.0.0.1",
                                      "255.255.255.255")):
        one.sendall(connect(stream, address))
        assert take(one, 5) == close(stream)
        # A datagram fails as if the network had said so, and has one line.
        for _ in range(2):
            datagram = socket.inet_aton(address) + struct.pack(">HH", 53, 2) + b"no"
            one.sendall(b"\4" + datagram)
            assert take(one, 11) == b"\7" + datagram
        assert process.log().count(f"datagrams to {address}:53 refused") == 1
    with socket.create_server(("127.0.0.1", 0)) as local:
        one.sendall(connect(9, *local.getsockname()))
        local.settimeout(10)
        local.accept()[0].close()
    assert process.log().count("refused: not an allowed address") == 10


@pytest.fixture
def silent_network():
    """ip(command): what is sent to 203.0.113.0/24 leaves this machine and vanishes."""
    def ip(command):
        subprocess.run(["ip", *command.split()], check=True)

    ip("link add silent type veth peer name nobody")
    ip("link set nobody up")
    ip("link set silent up arp off")
    ip("address add 203.0.113.1/24 dev silent")
    yield ip
    ip("link delete silent")


def test_an_address_that_becomes_its_own(companion, link, silent_network):
    process = companion()
    one = link()
    question = datagram(7000, address="203.0.113.7")
    failure = b"\7" + question[1:]
    one.sendall(question + connect(1, "203.0.113.7"))
    ping(one)
    silent_network("address add 203.0.113.7/32 dev silent")
    with socket.create_server(("203.0.113.7", 7000)), \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("203.0.113.7", 7000))
        ping(one)  # it has seen the address then
        one.sendall(question)
        assert take(one, len(failure)) == failure
        # The connection is made when the first packet of it is repeated.
        assert take(one, 5) == close(1)
        assert "203.0.113.7:7000 refused: not an allowed address any more" in process.log()
        with pytest.raises(BlockingIOError):
            server.recv(1, socket.MSG_DONTWAIT)
    silent_network("address delete 203.0.113.7/32 dev silent")
    ping(one)
    one.sendall(question)
    ping(one)  # and no failure in front of its answer


# Sanitizers need more addresses than there are in any limit.
if b"__asan_init" not in (BIN_DIR / "vantrel-companion").read_bytes():
    def test_out_of_memory(companion, link, silent_network):
        process = companion("--max-pending", "1000000000")
        honest = link()
        ping(honest)
        with open(f"/proc/{process.pid}/statm") as sizes:
            size = int(sizes.read().split()[0]) * resource.getpagesize()
        resource.prlimit(process.pid, resource.RLIMIT_AS, (size + (8 << 20),) * 2)
        for number in range(2, 5):
            greedy = link()
            with pytest.raises((BrokenPipeError, ConnectionResetError)):
                for n in range(1, 1000):
                    greedy.sendall(connect(n, "203.0.113.7", uid=n) +
                                   data(n, bytes(65535)) * 8)
                    ping(honest)
            wait_until(lambda: f"link {number}: error: link down: out of memory" in
                       process.log(), "the end")
        ping(honest)
        ping(link())


@pytest.mark.parametrize("kind", ["unix", "tcp"])
def test_an_abrupt_end_in_mid_message(companion, link, remote, kind):
    process = companion("--allow", "198.51.100.0/24", "--listen", "tcp:127.0.0.1:7777")

    def open_link():
        if kind == "unix":
            return link()
        return socket.create_connection(("127.0.0.1", 7777), timeout=10)

    for turn in range(1, 4):
        one = open_link()
        one.sendall(connect(1) + data(1, b"whole") + data(1, b"a part of it")[:-4])
        peer, _ = remote.accept()
        peer.settimeout(10)
        assert take(peer, 5) == b"whole"
        peer.sendall(bytes(100000))  # more than the device ever takes
        if kind == "tcp":  # a reset, as of a device without power
            one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        one.close()
        assert peer.recv(1) == b""  # the remote is told
        peer.close()
        wait_until(lambda: f"link {turn}: link down" in process.log(), "the end")
    before = processor_seconds(process)
    last = open_link()
    for _ in range(100):
        ping(last)
    assert processor_seconds(process) - before < 1
    last.close()


def test_closed_standard_descriptors(tmp_path):
    """No log line is ever written to what has got the number of standard error."""
    process = subprocess.Popen(
        ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", BIN_DIR / "vantrel-companion",
         "--listen", f"unix:{tmp_path}/link"])
    wait_until((tmp_path / "link").exists, "the companion")
    assert [os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in range(3)] == ["/dev/null"] * 3
    end_process(process)


def test_what_is_wrong_with_a_device(companion, link):
    process = companion(protocol="20")
    start = wire.message(wire.HANDSHAKE_START, (1, 1))
    for begin, cause in (
            (start[:6] + start[7:5:-1] + start[8:], "checksum of its first header big-endian"),
            (start[:4], "the device has sent only 56 4E 07 00"),
            (bytes(24) + start, "the device sends a connection header"),
            (b"", "closed by the device; does it wait for a connection header")):
        with link() as one:
            one.sendall(begin)
            one.shutdown(socket.SHUT_WR)
            wait_until(lambda: cause in process.log(), cause)


def test_who_may_listen(companion, tmp_path, link):
    process = companion()
    path = tmp_path / "link"
    assert stat.S_IMODE(path.stat().st_mode) == 0o600
    process.send_signal(signal.SIGSTOP)
    fillers = [socket.socket(socket.AF_UNIX) for _ in range(80)]
    for filler in fillers:  # until its queue is full
        filler.setblocking(False)
        filler.connect_ex(str(path))
    second = companion()  # ends at once, and leaves the file alone
    assert second.wait(10) == 1
    assert "Address already in use" in second.log()
    for filler in fillers:
        filler.close()
    process.send_signal(signal.SIGCONT)
    ping(link())
    os.unlink(path)
    for options, words in (((), "see --allow-remote-links"),
                           (("--allow-remote-links",), "put a tunnel in front")):
        other = companion("--listen", "tcp:0.0.0.0:0", *options)
        wait_until(lambda: words in other.log(), words)
        end_process(other)


def test_an_abstract_name_is_for_its_own_user(companion):
    name = f"vantrel-test-{os.getpid()}"
    process = companion("--listen", f"unix:@{name}")
    stranger = ("import socket; s = socket.socket(socket.AF_UNIX); "
                f"s.connect('\\0{name}'); print(s.recv(1))")
    run = subprocess.run([sys.executable, "-c", stranger], user=MAIL_UID, check=True,
                         capture_output=True, timeout=10)
    assert run.stdout == b"b''\n"
    assert "refused: another user" in process.log()
    with socket.socket(socket.AF_UNIX) as own:
        own.settimeout(10)
        own.connect(f"\0{name}")
        ping(own)


def test_signals_log_and_service_manager(companion, link, tmp_path, monkeypatch):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(10)
        monkeypatch.setenv("NOTIFY_SOCKET", str(tmp_path / "notify"))
        monkeypatch.setenv("WATCHDOG_USEC", "200000")
        process = companion("--log-format", "json", "--network", "7")
        assert manager.recv(100) == b"READY=1"
        with open(f"/proc/{process.pid}/status") as status:
            rights = re.findall(r"(?:Cap...|NoNewPrivs):\s+(\w+)", status.read())
        assert [int(value, 16) for value in rights] == [0, 0, 0, 0, 0, 1]
        assert manager.recv(100) == b"WATCHDOG=1"
        one = link()
        network = b"\x0b\0\0\0\7\0"
        assert take(one, 6) == network
        process.send_signal(signal.SIGHUP)
        assert take(one, 6) == network
        for _ in range(500):
            one.sendall(struct.pack(">BI", 6, 1))  # has no place here: a line each
        ping(one)
        process.send_signal(signal.SIGUSR1)
        wait_until(lambda: "bytes/s" in process.log(), "the state")
        end_process(process)
        lines = [json.loads(line) for line in process.log().splitlines()]
        assert {"level", "kind", "message", "time"} <= lines[0].keys()
        unexpected = [line for line in lines if "unexpected" in line["message"]]
        assert len(unexpected) <= 200 and all(line["link"] == 1 for line in unexpected)
        left_out = [int(line["message"].split()[0]) for line in lines
                    if "were left out" in line["message"]]
        assert sum(left_out) + len(unexpected) == 500
        assert process.returncode == 0 and not (tmp_path / "link").exists()
