"""Rules of the companion: the examples of their man page as they stand there, and what
happens to streams when rules, names or days change. The test plays the devices."""

import json
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from testbed.device import BROWSER_UID, MAIL_UID
from testbed.processes import end_process
from testbed.programs import BIN_DIR, SOURCE_DIR
from testbed.waiting import wait_until
from tests.test_companion import (  # noqa: F401 fixtures
    REMOTE, close, companion, connect, data, datagram, link, ping, take)

ALLOW = ("--allow", "198.51.100.0/24", "--allow", "203.0.113.0/24")
PAGE = (SOURCE_DIR / "packaging/man/vantrel-rules.5.scd").read_text()


def example(title):
    return re.search(rf"^## {title}\n.*?^```\n(.*?)^```", PAGE, re.M | re.S)[1]


def name(uid, package):
    return struct.pack(">BHH", 10, uid, len(package)) + package.encode()


def failure(request):
    """That it could not be delivered."""
    return b"\7" + request[1:]


@pytest.fixture
def server():
    """A remote that sends without end to all who connect."""
    def feed(peer):
        try:
            while True:
                peer.sendall(bytes(65536))
        except OSError:
            peer.close()

    def serve():
        try:
            while True:
                threading.Thread(target=feed, args=listener.accept()[:1], daemon=True).start()
        except OSError:
            pass

    with socket.create_server(REMOTE, backlog=64) as listener:
        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        yield
        listener.shutdown(socket.SHUT_RDWR)
        thread.join()


@pytest.fixture
def ruled(companion, tmp_path):  # noqa: F811
    """ruled(rules, *options): a companion with that file of rules."""
    path = tmp_path / "rules.toml"

    def start(rules, *options):
        path.write_text(rules)
        process = companion("--rules", path, *ALLOW, *options)
        process.rules = path
        return process

    return start


def outcome(device, stream, seconds=.3):
    """What a new stream to the server has become: "open" when bytes come, "closed" or,
    for so long, "waiting"."""
    device.settimeout(seconds)
    try:
        kind = take(device, 5)
    except TimeoutError:
        return "waiting"
    finally:
        device.settimeout(10)
    assert struct.unpack(">I", kind[1:])[0] == stream
    if kind[0] == 2:
        return "closed"
    assert kind[0] == 3
    return "open"


def receive(device, enough=1 << 40, seconds=60):
    """How many bytes of streams come before one is closed, or time or they are over."""
    got, left, end = 0, b"", time.monotonic() + seconds
    while got < enough and time.monotonic() < end:
        left += device.recv(1 << 20)
        while len(left) >= 5:
            if left[0] == 2:
                return got
            size = 7 + int.from_bytes(left[5:7], "big")
            if len(left) < size:
                break
            got += size - 7
            left = left[size:]
    return got


def drain(peer):
    while peer.recv(65536):
        pass


def reload(process, rules):
    process.rules.write_text(rules)
    before = process.log().count("rules")
    process.send_signal(signal.SIGHUP)
    wait_until(lambda: process.log().count("rules") > before, "the rules")


def test_only_some_applications(ruled, link, server, tmp_path):  # noqa: F811
    figures = tmp_path / "figures"
    process = ruled(example("Only some applications"), "--metrics", figures)
    for uid, package, expected in (
            (1, "com.example.mail", "open"), (2, "com.example.maps.eu", "open"),
            (3, "com.example.mail.not", "closed"), (0xFFFF, "", "closed")):
        one = link()
        one.sendall(connect(7, uid=uid))
        if uid == 1:  # the name may come late
            assert outcome(one, 7) == "waiting"
        one.sendall(name(uid, package))
        assert outcome(one, 7) == expected, package
    assert 'stream 7: 198.51.100.80:7000 (uid 3, com.example.mail.not) denied by rule ' \
        '"nothing else"' in process.log()
    denied = re.compile(r'_denied_streams_total.*,uid="(\w+)",package=".*"} 1\n')
    wait_until(lambda: denied.findall(figures.read_text()) == ["unknown", "3"], "figures")
    one = link()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as resolver:
        resolver.bind((REMOTE[0], 53))
        resolver.settimeout(10)
        quic, question = datagram(443), datagram(53)
        one.sendall(quic + question)
        assert resolver.recvfrom(10)[0] == b"x"
        assert take(one, len(quic)) == failure(quic)
    assert 'datagrams to 198.51.100.80:443 denied by rule "nothing else"' in process.log()


def test_background_off_when_metered(ruled, link, server):  # noqa: F811
    for network, expected in (("7", "open"), ("7,metered", "closed")):
        process = ruled(example("Background off when metered"), "--network", network)
        one = link()
        assert len(take(one, 6)) == 6  # the state of the network
        one.sendall(connect(1, uid=1) + name(1, "com.example.backup"))
        assert outcome(one, 1) == expected
        end_process(process)
    ruled(example("Background off when metered"), "--network", "7,metered")
    one = link()
    take(one, 6)
    one.sendall(connect(1, uid=1) + name(1, "com.example.browser"))
    assert outcome(one, 1) == "open"


def test_a_limit_for_each_device(companion, ruled, link, server, tmp_path):  # noqa: F811
    ruled(example("A limit for each device"), "--listen", f"unix:{tmp_path}/other")
    one = link()
    with socket.socket(socket.AF_UNIX) as other:
        other.connect(f"{tmp_path}/other")
        for device in one, other:
            device.settimeout(10)
            device.sendall(b"".join(connect(n, uid=n) for n in range(1, 4)))
        begin = time.monotonic()
        counts = [0, 0]
        threads = [threading.Thread(target=lambda i=i, device=device: counts.__setitem__(
            i, receive(device, seconds=2))) for i, device in enumerate((one, other))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        seconds = time.monotonic() - begin
    for count in counts:
        assert 400e3 < count < 400e3 * (seconds + .5), (counts, seconds)

    with socket.create_server((REMOTE[0], 7001)) as sink:
        one.close()
        device = link()
        device.sendall(connect(9, port=7001))
        peer = sink.accept()[0]
        threading.Thread(target=drain, args=[peer], daemon=True).start()
        begin = time.monotonic()
        device.sendall(data(9, bytes(8000)) * 8)
        taken = 0
        while time.monotonic() - begin < 2:
            assert take(device, 5) == struct.pack(">BI", 6, 9)  # acknowledged
            taken += 8000
            device.sendall(data(9, bytes(8000)))
        assert 100e3 < taken < 100e3 * (time.monotonic() - begin + .5)
        device.close()  # and the peer with it


def test_a_daily_quota(ruled, link, server, tmp_path):  # noqa: F811
    path = tmp_path / "quotas.json"

    def start():
        process = ruled(example("A daily quota"), "--quota-file", path)
        one = link()
        one.sendall(connect(1, uid=1) + name(1, "com.example.updater"))
        return process, one

    process, one = start()
    assert 20e6 <= receive(one) < 20.1e6
    end_process(process)
    kept = json.loads(path.read_text())
    assert kept["counts"][0]["quota"] == "updates"
    assert path.stat().st_mode & 0o777 == 0o600
    process, one = start()
    assert outcome(one, 1) == "closed"
    assert 'denied by rule "updates": quota "updates" of the day is used up' in process.log()
    end_process(process)
    today = kept["counts"][0]["period"]
    # An earlier day's count is over; one of a later day, when the clock was wrong, goes on.
    for day, expected in ((today - 1, "open"), (today + 1, "closed")):
        kept["counts"][0]["period"] = day
        path.write_text(json.dumps(kept))
        process, one = start()
        assert outcome(one, 1) == expected
        end_process(process)
    path.write_text("{")
    process, one = start()
    assert outcome(one, 1) == "open"
    assert "counts of quotas that cannot be read begin anew" in process.log()


def test_reading_again(ruled, link, server):  # noqa: F811
    process = ruled('[[rule]]\nname = "all"\naction = "allow"')
    one, two = link(), link()
    for device in one, two:
        device.sendall(connect(1, uid=1) + name(1, "com.example.mail"))
        assert outcome(device, 1) == "open"
    process.rules.write_text("[[rule]]\naction = 'no\x1b[31m'")
    process.send_signal(signal.SIGHUP)
    wait_until(lambda: "the rules stay as they were" in process.log(), "the refusal")
    assert "rules.toml:2: " in process.log() and "\x1b" not in process.log()
    threading.Timer(.5, lambda: reload(process, (
        '[[rule]]\nname = "slow"\napplication = "com.example.mail"\n'
        'limit.down = "100 kB/s"'))).start()
    receive(two, seconds=1)  # what the link has held before
    receive(two, seconds=.5)
    assert receive(two, seconds=2) < 300e3
    reload(process, '[[rule]]\nname = "off"\napplication = "com.example.mail"\naction = "deny"')
    for device in one, two:
        receive(device)  # until it is closed
    assert process.log().count('denied by rule "off"') == 2
    # A new name is judged, too, and one that never comes is not waited for without end.
    one.sendall(connect(2, uid=2) + name(2, "com.example.other"))
    assert outcome(one, 2) == "open"
    one.sendall(name(2, "com.example.mail"))
    receive(one)
    one.sendall(connect(3, uid=3))
    assert outcome(one, 3, seconds=5) == "open"


def test_a_flow_that_is_denied_later(ruled, link):  # noqa: F811
    process = ruled('[[rule]]\naction = "allow"')
    one = link()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(REMOTE)
        server.settimeout(10)
        question = datagram(REMOTE[1])
        one.sendall(question)
        asker = server.recvfrom(10)[1]
        reload(process, '[[rule]]\nprotocol = "udp"\naction = "deny"')
        ping(one)
        ping(one)
        server.sendto(b"a late answer", asker)
        one.sendall(question)
        assert take(one, len(question)) == failure(question)


def test_an_application_without_a_name_yet_that_closes(ruled, link):  # noqa: F811
    ruled('[[rule]]\napplication = "com.example.mail"\naction = "deny"')
    one = link()
    with socket.create_server(REMOTE) as listener:
        listener.settimeout(10)
        one.sendall(connect(1, uid=1) + data(1, b"a last word") + close(1))
        peer = listener.accept()[0]
        peer.settimeout(10)
        assert take(peer, 11) == b"a last word"
        one.sendall(connect(2, uid=2) + data(2, b"no word"))
        ping(one)
        one.close()  # with its link
        listener.settimeout(.5)
        with pytest.raises(TimeoutError):
            listener.accept()


def test_a_device_that_renames_without_end(ruled, link, server):  # noqa: F811
    rules = "".join(f'[[rule]]\napplication = "com.example.a{n}.*"\nport = {n + 1}\n'
                    f'action = "deny"\n' for n in range(10000))
    process = ruled(rules)
    one, two = link(), link()
    one.sendall(b"".join(connect(n, port=9, uid=n % 7) for n in range(1, 200)))
    for turn in range(300):
        one.sendall(b"".join(name(uid, f"com.example.\n\x1b{turn}") for uid in range(7)))
        if turn % 100 == 0:
            ping(two)
    two.sendall(connect(1, uid=1) + name(1, "com.example.a6999.x"))
    assert outcome(two, 1, seconds=10) == "closed"
    assert "rule 7000 (line" in process.log()


def test_wrong_rules_and_questions(tmp_path):
    path = tmp_path / "rules.toml"
    path.write_text(example("Only some applications"))

    def run(*options):
        done = subprocess.run([BIN_DIR / "vantrel-companion", *options], text=True,
                              capture_output=True, timeout=30)
        return done.returncode, done.stdout, done.stderr

    status, out, err = run("--check-rules", path)
    assert (status, len(out.splitlines()), err) == (0, 3, "")
    status, out, err = run("--check-rules", path, "--explain", "com.example.mail",
                           "198.51.100.7:443")
    assert out.startswith('stream: rule "mail and maps": ') and "datagrams: rule " in out
    path.write_text("[[rule]]\napplication = 'x'\n")
    for options in ("--check-rules", path), ("--rules", path, "--listen", f"unix:{tmp_path}/s"):
        status, out, err = run(*options)
        assert status == 2 and re.search(r"rules.toml:1: a rule has an action", err)


def test_what_an_application_feels(launch, tmp_path, needs_root):
    path = tmp_path / "rules.toml"
    path.write_text('[[rule]]\napplication = "com.example.mail"\nprotocol = "tcp"\n'
                    'action = "allow"\n[[rule]]\nname = "closed"\naction = "deny"\n')
    run = launch(companion_options=(*ALLOW, "--rules", path))
    answer = run.device.run("dig", "+tries=1", "+time=5", "@198.51.100.53", "x.test")
    assert "status: REFUSED" in answer.stdout
    script = ("import socket; s = socket.create_connection(('198.51.100.80', 7000)); "
              "s.settimeout(10); print(s.recv(5))")
    with socket.create_server(REMOTE) as listener:
        def greet():
            listener.accept()[0].sendall(b"hello")

        listener.settimeout(20)
        thread = threading.Thread(target=greet, daemon=True)
        thread.start()
        for uid, expected in ((BROWSER_UID, "b''"), (MAIL_UID, "b'hello'")):
            said = run.device.run("/usr/bin/python3", "-c", script, uid=uid).stdout.strip()
            assert said == expected
        thread.join()
