"""The programs on a device and beside it."""

import contextlib
import os
import pathlib
import re
import signal
import socket
import subprocess

from testbed import wire
from testbed.internet import NETWORK
from testbed.processes import end_process
from testbed.waiting import PATIENCE, wait_until

SOURCE_DIR = pathlib.Path(__file__).resolve().parent.parent
BIN_DIR = pathlib.Path(
    os.environ.get("VANTREL_BIN_DIR", SOURCE_DIR / "build/release/bin")).resolve()
DAY = 24 * 60 * 60


def program_environment(directory, find_leaks=True):
    """Sanitizer reports go to files: the daemon's standard error is closed."""
    common = f"log_path={directory}/sanitizer"
    return {
        **os.environ,
        "ASAN_OPTIONS": f"{common}:detect_leaks={int(find_leaks)}",
        "UBSAN_OPTIONS": common + ":print_stacktrace=1",
    }


def sanitizer_reports(directory):
    return "\n".join(path.read_text() for path in directory.rglob("sanitizer.*"))


class Daemon:
    """One run of the daemon on a device, with a scripted companion on its link
    unless |link| brings another descriptor."""

    def __init__(self, device, args=("20",), header=wire.CONNECTION_HEADER,
                 link=None, max_descriptors=None, link_buffer=None, wrap=()):
        self.device = device
        self.log_file = device.dir / "daemon.log"
        self.log_file.unlink(missing_ok=True)
        self.companion = None
        daemon_end = link
        if link is None:
            ours, daemon_end = socket.socketpair()
            self.companion = wire.ScriptedCompanion(ours)
            ours.sendall(header)
            if link_buffer:
                daemon_end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, link_buffer)
        self._status_fd, status_write = os.pipe()
        os.set_blocking(self._status_fd, False)
        self._status = b""

        limits = ["prlimit", f"--nofile={max_descriptors}"] if max_descriptors else []
        self.process = subprocess.Popen(
            device.command([*limits, *wrap, BIN_DIR / "vantrel", *args]), stdin=daemon_end,
            stdout=status_write, stderr=subprocess.DEVNULL,
            # The search for leaks at the end needs descriptors, too.
            env={**program_environment(device.dir, find_leaks=not max_descriptors),
                 "VANTREL_LOG_FILE": str(self.log_file)})
        os.close(status_write)
        if link is None:
            daemon_end.close()

    def close(self):
        """Ends the daemon as its launcher would, which must always succeed."""
        if self.process.poll() is None:
            status = end_process(self.process)
            assert status == 0, sanitizer_reports(self.device.dir)
        if self.companion:
            self.companion.sock.close()
        os.close(self._status_fd)

    def wait(self):
        return self.process.wait(20 * PATIENCE)

    def status(self):
        """All bytes so far on the status channel."""
        with contextlib.suppress(BlockingIOError):
            while piece := os.read(self._status_fd, 4096):
                self._status += piece
        return self._status

    def timed_log(self):
        """(seconds of the day, "P message") for every line of the log."""
        if not self.log_file.exists():
            return []
        form = re.compile(
            r"\d\d-\d\d (\d\d):(\d\d):(\d\d\.\d{3}) +\d+ +\d+ ([VDIWEF]) vantrel: ?(.*)")
        lines = []
        # The last piece is empty, or a line that is just being written.
        for line in self.log_file.read_text().split("\n")[:-1]:
            hours, minutes, seconds, priority, text = form.fullmatch(line).groups()
            lines.append((int(hours) * 3600 + int(minutes) * 60 + float(seconds),
                          f"{priority} {text}"))
        return lines

    def log(self):
        return [text for _, text in self.timed_log()]

    def wait_for_log(self, text):
        wait_until(lambda: text in self.log(), f"the log line {text!r}")

    def frames_before_later_ones(self):
        """What the link brings before two datagrams, sent one after the other,
        have crossed it. The second begins when the first has arrived: in between
        the daemon sends whatever it had to send before this call. So that an
        empty list shows an absence."""
        app = self.device.socket(socket.SOCK_DGRAM)
        frames = []
        for datagram in b"first later one", b"second later one":
            app.sendto(datagram, ("198.51.100.250", 9))
            while (frame := self.companion.receive()).payload != datagram:
                frames.append(frame)
        app.close()
        return frames

    def ports(self):
        """(control, tcp, udp), from the line that ends the start."""
        form = r"D Vantrel started on ports C:(\d+), T:(\d+), U:(\d+)\."
        found = wait_until(
            lambda: re.search(form, "\n".join(self.log())), "the start")
        return tuple(map(int, found.groups()))


class Companion:
    """The real companion, beside the internet's servers, and its link. Those
    servers have addresses of the companion's own machine."""

    def __init__(self, directory, *options, protocol="20"):
        self.log_file = directory / "companion.log"
        ours, self.link = socket.socketpair()
        with open(self.log_file, "wb") as log:
            self.process = subprocess.Popen(
                [BIN_DIR / "vantrel-companion", "--protocol", protocol, "--header",
                 "--fd", str(ours.fileno()), "--allow", NETWORK, *options],
                pass_fds=[ours.fileno()], stdin=subprocess.DEVNULL, stdout=log,
                stderr=log, env=program_environment(directory))
        ours.close()

    def log(self):
        return self.log_file.read_text()

    def close(self):
        self.link.close()
        end_process(self.process)


def listening_companion(device, *options, protocol="5"):
    log = device.dir / "companion.log"
    with open(log, "wb") as output:
        companion = subprocess.Popen(
            [BIN_DIR / "vantrel-companion", "--protocol", protocol, "--network", "7",
             "--listen", f"unix:{device.dir}/link", *options],
            stderr=output, env=program_environment(device.dir))
    # The socket's file is there a moment before anybody listens on it.
    wait_until(lambda: "listening on" in log.read_text(), "the companion")
    return companion


class Launch:
    """One run of the launcher on |device|; |link| has a scheme, or is the name of
    a socket in the device's directory. The resolver stays as it is: on a device that
    is made of this machine it may be the machine's own."""

    def __init__(self, device, *options, link="link", wait=True, pass_fds=(), dns=False):
        options += () if dns else ("--no-dns",)
        link = link if ":" in link else f"unix:{device.dir}/{link}"
        self.device = device
        self.out, self.err = device.dir / "status.txt", device.dir / "talk.txt"
        self.log = device.dir / "daemon.log"
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = subprocess.Popen(
                device.command([BIN_DIR / "vantrel-launch", "--daemon",
                                BIN_DIR / "vantrel", *options, link]),
                stdout=out, stderr=err, umask=0o77, pass_fds=pass_fds,
                env={**program_environment(device.dir), "VANTREL_LOG_FILE": str(self.log)})
        if wait:
            self.wait_for(self.out, "started")

    def wait_for(self, path, text, seconds=10):
        return wait_until(lambda: path.exists() and text in path.read_text(), text, seconds)

    def children(self):
        path = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return [int(pid) for pid in path.read_text().split()]

    def daemon(self):
        return wait_until(self.children, "the daemon")[0]

    def end(self, signum=signal.SIGTERM, seconds=20):
        self.process.send_signal(signum)
        return self.process.wait(seconds)
