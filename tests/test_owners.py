"""Whose each connection is, with ports that several applications use at once."""

import json
import pathlib
import random
import struct
import subprocess
import threading

import pytest

from testbed import wire
from testbed.device import BROWSER_UID, MAIL_UID
from testbed.programs import Daemon


UIDS = [0, BROWSER_UID, MAIL_UID]
PORTS = range(41000, 41010)
REMOTES = [(f"198.51.100.{n}", 80) for n in range(7, 11)]

# An application. Each line of its input is a list of connections to make at once:
# [own port or 0, remote, whether over an IPv6 socket, whether it ends by a reset].
# Says its UID on each, waits for the answers to all, ends them, and tells of
# failures.
APPLICATION = """
import json, os, socket, struct, sys, threading

def converse(port, remote, is_mapped, is_reset):
    family = socket.AF_INET6 if is_mapped else socket.AF_INET
    with socket.socket(family) as app:
        app.settimeout(30)
        app.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if port:
            app.bind(("::ffff:192.168.167.239" if is_mapped else "192.168.167.239", port))
        app.connect(("::ffff:" + remote[0] if is_mapped else remote[0], remote[1]))
        app.sendall(b"%d" % os.getuid())
        assert app.recv(1) == b"k"
        arrived.wait(30)
        if is_reset:
            app.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

def guarded(*connection):
    try:
        converse(*connection)
    except Exception as fault:
        faults.append(f"{connection}: {fault!r}")
        arrived.abort()

for line in sys.stdin:
    connections, faults = json.loads(line), []
    arrived = threading.Barrier(len(connections))
    threads = [threading.Thread(target=guarded, args=one) for one in connections]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print("; ".join(faults), flush=True)
"""

# Runs a program that may not ask for one socket, so that it reads the tables.
WITHOUT_DIAGNOSIS = """
import errno, os, seccomp, socket, sys
refusal = seccomp.SyscallFilter(seccomp.ALLOW)
refusal.add_rule(seccomp.ERRNO(errno.EPROTONOSUPPORT), "socket",
                 seccomp.Arg(0, seccomp.EQ, socket.AF_NETLINK),
                 seccomp.Arg(2, seccomp.EQ, 4))  # NETLINK_SOCK_DIAG
refusal.load()
os.execv(sys.argv[1], sys.argv[1:])
"""


class Application:
    def __init__(self, device, uid):
        self._process = subprocess.Popen(
            device.command(["/usr/bin/python3", "-c", APPLICATION], uid), text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def begin(self, connections):
        self._process.stdin.write(json.dumps(connections) + "\n")
        self._process.stdin.flush()

    def faults(self):
        return self._process.stdout.readline().strip()

    def close(self):
        self._process.stdin.close()
        assert self._process.wait(30) == 0
        self._process.stdout.close()


class Witness(threading.Thread):
    """The companion: answers each stream, and compares what it is told of the owner
    with what the application itself says."""

    def __init__(self, companion, version):
        super().__init__(daemon=True)
        self._companion = companion
        self._take = companion.take
        self._version = version
        self._owners = {}
        self.seen = 0
        self.wrong = []
        self.start()

    def run(self):
        try:
            while True:
                self._handle_v2() if self._version == "20" else self._handle_v1()
        except (EOFError, OSError):
            pass

    def _handle_v2(self):
        frame = self._companion.receive()
        if frame.kind == wire.TCP_CONNECT:
            self._owners[frame.fields[1]] = frame.fields[3]
        if frame.kind == wire.TCP_WRITE:
            stream = frame.fields[1]
            self._compare(stream, int(frame.payload))
            self._companion.send(wire.TCP_WRITE, (1, stream), payload=b"k")

    def _handle_v1(self):
        kind = self._take(1)[0]
        if kind == 1:
            stream, _, _, uid = struct.unpack(">I4sHH", self._take(12))
            self._owners[stream] = uid
        elif kind == 2:
            self._take(4)
        elif kind == 3:
            stream, length = struct.unpack(">IH", self._take(6))
            self._compare(stream, int(self._take(length)))
            self._companion.sock.sendall(struct.pack(">BIH", 3, stream, 1) + b"k")
        else:
            assert kind == 10
            self._take(struct.unpack(">HH", self._take(4))[1])

    def _compare(self, stream, uid):
        self.seen += 1
        if self._owners[stream] != uid:
            self.wrong.append((uid, self._owners[stream]))


def forced(rng):
    """Each port for several remotes, each remote from several ports, by all
    applications in turns. They end by a reset, so that the next round may use all of
    it again at once, by another owner."""
    pairs = [(port, remote) for port in PORTS for remote in REMOTES]
    rng.shuffle(pairs)
    return [[port, remote, rng.random() < .5, True] for port, remote in pairs]


def chosen(rng):
    """The kernel chooses the ports, of few, as it does for a browser."""
    return [[0, rng.choice(REMOTES), rng.random() < .3, False] for _ in range(40)]


@pytest.mark.parametrize("version,has_diagnosis", [
    ("20", True), ("20", False), ("5", False), ("1", True)])
def test_no_owner_is_wrong_and_none_is_missing(needs_root, make_device, version,
                                               has_diagnosis):
    device = make_device()
    device.run("sysctl", "-qw", "net.ipv4.ip_local_port_range=42000 42999")
    wrap = () if has_diagnosis else ("/usr/bin/python3", "-c", WITHOUT_DIAGNOSIS)
    daemon = Daemon(device, args=(version,), wrap=wrap)
    if version == "20":
        daemon.companion.shake_hands()
    elif version == "5":
        daemon.companion.sock.sendall(bytes.fromhex("11000000050000"))
        daemon.companion.take(14)
    daemon.ports()
    witness = Witness(daemon.companion, version)
    applications = [Application(device, uid) for uid in UIDS]
    rng = random.Random(1)
    count = 0
    for turn in range(17):
        connections = (forced if turn % 2 else chosen)(rng)
        count += len(connections)
        for number, application in enumerate(applications):
            application.begin(connections[number::len(applications)])
        faults = list(filter(None, [application.faults() for application in applications]))
        assert not faults, faults
    for application in applications:
        application.close()
    assert (witness.seen, witness.wrong) == (count, [])
    log = "\n".join(daemon.log())
    assert "Unable to find UID" not in log and "connection tracking" not in log
    assert ("I [S] No socket diagnosis over netlink: " in log) is not has_diagnosis
    daemon.close()
    witness.join(10)


def test_an_owner_does_not_cost_a_look_at_all_sockets(needs_root, device, connected):
    def read_bytes():
        fields = pathlib.Path(f"/proc/{connected.process.pid}/io").read_text().split()
        return int(fields[fields.index("rchar:") + 1])

    applications = [device.connect("198.51.100.7", 80)]
    connected.companion.expect(wire.TCP_CONNECT)
    connected.companion.expect(wire.PACKAGE_NAMES)
    before = read_bytes()
    for _ in range(200):
        applications.append(device.connect("198.51.100.7", 80))
        assert connected.companion.expect(wire.TCP_CONNECT).fields[3] == 0
    assert read_bytes() - before < 200 * 200  # the tables have 402 rows of 150 bytes
