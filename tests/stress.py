"""stress.sh [--seed N] [--runs N] [--protocol 1|5|20]

Random runs of the real daemon, launcher and companion, on a device in namespaces of
its own. A seed makes a plan: how the link is shaped, streams that are opened,
written, half-closed, reset and closed by both sides, datagrams between them, readers
that stop, programs that are stopped and go on, a link that is cut and made again.
While nothing moves no program may use the processor. At the end every byte that had
to arrive has arrived, in order, and no stream, descriptor, process or rule is left.

Prints a line for each seed. What a seed plans is the same each time, when the kernel
lets what happen is not: repeat one that failed a few times.
"""
import argparse
import contextlib
import ctypes
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import traceback

from testbed import internet
from testbed.conversations import WHENS, Conversations
from testbed.processes import descriptors, end_process, with_children
from testbed.programs import sanitizer_reports
from testbed.roads import VantrelRoad
from testbed.waiting import wait_until

# (kind of socket, what a launcher is given, bytes that a run moves at most)
LINKS = [
    ("unix", "", 3 << 20), ("unix", "--direct", 3 << 20), ("unix", "--shape chunk=100", 1 << 20),
    ("unix", "--capture {0}/link.pcapng --metrics {0}/metrics --stats-every 1", 3 << 20),
    ("unix", "--shape rate=20Mbit,delay=3ms", 1 << 20),
    ("unix", "--shape rate=2Mbit,delay=10ms,chunk=990", 150000),
    ("tcp", "", 3 << 20), ("tcp", "--direct", 3 << 20)]
SIZES = [1, 100, 4095, 4096, 4097, 16384, 16385, 65536, 300000]
ENDS = ["close", "shutdown", "shutdown", "reset"]
ROLES = "daemon", "launcher", "companion"
STEPS = {"open": 6, "send": 20, "read": 6, "end": 3, "datagram": 6, "pause": 2, "quiet": 1}
QUIET_SECONDS, QUIET_WORK_SECONDS = .1, .002  # so little work in so long a time is none
FAULTS = AssertionError, OSError, LookupError, subprocess.SubprocessError
_PIDFD_GETFD = 438
_libc = ctypes.CDLL(None, use_errno=True)


class LinkRoad(VantrelRoad):
    """Its link can be cut, and is made again then."""

    def __init__(self, directory, protocol, kind, options):
        self.is_direct = options == "--direct"
        super().__init__(
            "", directory, protocol, relayed=not self.is_direct, over_tcp=kind == "tcp",
            launch_options=[
                "--restart", *([] if self.is_direct else options.format(directory).split())])

    def pid(self, role):
        return self.pids()[role][0]

    def cut(self):
        """In the middle of whatever crosses the link."""
        pid = self.pid("daemon" if self.is_direct else "launcher")
        pidfd = os.pidfd_open(pid)
        for path in pathlib.Path(f"/proc/{pid}/fd").iterdir():
            fd = _libc.syscall(_PIDFD_GETFD, pidfd, int(path.name), 0)
            # Not each is a socket, and some are closed meanwhile.
            with contextlib.suppress(OSError, ValueError), socket.socket(fileno=fd) as link:
                if link.getpeername() == self.link_address:
                    link.shutdown(socket.SHUT_RDWR)
        os.close(pidfd)

    def starts(self):
        return self.output("launcher").count("started\n")

    def is_ready(self):
        """Nothing of the start goes on any more."""
        pids, log = self.pids(), self.output("companion")
        is_up = log.rfind("link up") > max(log.rfind(" connected: "), log.rfind("link down"))
        return is_up and len(pids["launcher"]) == len(pids["daemon"]) == 1

    def descriptors(self):
        """{role: how many}. Of the daemon sockets only: it keeps what it finds the owners
        of datagrams with."""
        return {role: sum(role != "daemon" or "socket:" in name
                          for name in descriptors([self.pid(role)])) for role in ROLES}


class Run:
    def __init__(self, seed, protocol, directory):
        self.seed = seed
        self.rng = random.Random(seed)
        self.protocol = self.rng.choice(["1", "5", "20"])
        if protocol:
            self.protocol = protocol
        self.kind, self.options, self.budget = self.rng.choice(LINKS)
        self.dir = directory
        self.trace = []
        self.paused = None  # (role, until when)
        self.talk = None
        self.road = LinkRoad(directory, self.protocol, self.kind, self.options)

    def __str__(self):
        return (f"seed {self.seed}: protocol {self.protocol}, {self.kind}, "
                f"{self.options.replace('{0}/', '') or 'plain'}")

    def result(self):
        moved = sum(end.got for stream in self.talk.all() for end, _ in stream.ends())
        return f"{len(self.talk.streams)} streams, {moved} bytes"

    def write_trace(self):
        streams = map(str, self.talk.all() if self.talk else [])
        (self.dir / "trace").write_text("\n".join([*self.trace, *streams]))

    def close(self):
        if self.talk:
            self.talk.close()
        with contextlib.suppress(OSError, IndexError):
            self.resume()
        self.road.close()

    def everything(self):
        road = self.road
        wait_until(road.is_ready, "the link")
        self.fresh = road.descriptors()
        self.talk = Conversations(road.device, correspondents=self.rng.randrange(1, 4))
        steps = self.rng.randrange(40, 200)
        cut_at = self.rng.randrange(steps // 3, steps) if self.rng.random() < .2 else None
        for number in range(steps):
            if number == cut_at:
                self.cut()
            step, = self.rng.choices(list(STEPS), STEPS.values())
            # The plan must not depend on what happens: always as many random numbers.
            step_rng = random.Random(self.rng.random())
            getattr(self, step)(step_rng)
            self.pump(step_rng.choice([0, 0, .001, .01]))
        self.finish()

    def note(self, text):
        self.trace.append(f"{time.monotonic():.3f} {text}")

    def pump(self, seconds):
        self.talk.pump(seconds)
        if self.paused and time.monotonic() >= self.paused[1]:
            self.resume()

    def pump_until(self, state, what, seconds=20):
        end = time.monotonic() + seconds
        while not state():
            assert time.monotonic() < end, f"waited {seconds} s for {what}"
            self.pump(.01)

    # The steps.

    def chosen(self, rng):
        """A stream to go on with, if there is one."""
        streams = [stream for stream in self.talk.all() if not stream.was_cut]
        return rng.choice(streams) if streams else None

    def open(self, rng):
        if len(self.talk.streams) < 25:
            stream = self.talk.open(rng)
            # The daemon's accept queue is short: a connection that is not in it waits
            # until its application writes.
            stream.app.wanted = 1
            self.note(f"open {stream.number}")
            if rng.random() < .2:
                self.upload(stream, rng)

    def upload(self, stream, rng):
        """An application that writes all it has and ends, however much of it still waits
        for the remote."""
        count = min(200000, self.budget)
        self.budget -= count
        stream.app.wanted += count
        stream.ending = stream.app, rng.choice(["close", "shutdown"]), "sent"
        self.note(f"upload {count} {stream.number}")

    def send(self, rng):
        stream = self.chosen(rng)
        if stream and not stream.ending:
            end = rng.choice(stream.senders)
            count = min(rng.choice(SIZES) + rng.randrange(3), self.budget)
            self.budget -= count
            end.wanted += count
            self.note(f"send {count} {'app' if end is stream.app else 'remote'} {stream.number}")

    def read(self, rng):
        stream = self.chosen(rng)
        if stream:
            end = rng.choice([stream.app, stream.remote])
            end.reads = not end.reads

    def end(self, rng):
        stream = self.chosen(rng)
        if stream and not stream.ending:
            self.choose_end(stream, rng)

    def choose_end(self, stream, rng):
        who = rng.choice([stream.app, stream.remote])
        stream.ending = who, rng.choice(ENDS), rng.choice(WHENS)
        self.note(f"end {stream.number} {'app' if who is stream.app else 'remote'} "
                  f"{stream.ending[1:]}")

    def datagram(self, rng):
        number = rng.randrange(len(self.talk.correspondents))
        # Protocol 1 answers the one that wrote last: each remote has its own there.
        remotes = [*(self.talk.remotes if self.protocol != "1" else
                     [self.talk.remotes[number]]), self.talk.nobody]
        size = rng.choice([20, 100, 1472, 4096, 16384])
        self.talk.correspondents[number].send(rng.choice(remotes), rng.randbytes(size))

    def pause(self, rng):
        if not self.paused:
            role = rng.choice(ROLES)
            self.note(f"pause {role}")
            os.kill(self.road.pid(role), signal.SIGSTOP)
            self.paused = role, time.monotonic() + rng.uniform(.01, .3)

    def resume(self):
        if self.paused:
            os.kill(self.road.pid(self.paused[0]), signal.SIGCONT)
            self.paused = None

    def quiet(self, rng):
        """Everything stands still as it is, streams that are stuck and programs that are
        stopped among it: then nobody has anything to do."""
        self.note("quiet")
        end = time.monotonic() + 15
        used = self.road.used_seconds()
        while time.monotonic() < end:
            time.sleep(QUIET_SECONDS)
            before, used = used, self.road.used_seconds()
            if all(used[role] - before[role] < QUIET_WORK_SECONDS for role in ROLES):
                return
        work = {role: f"{used[role] - before[role]:.3f}" for role in ROLES}
        raise AssertionError(f"works while nothing moves, seconds in {QUIET_SECONDS}: {work}")

    def cut(self):
        self.resume()
        self.cut_once(is_again=False)
        if self.rng.random() < .3:
            self.cut_once(is_again=True)
        self.pump_until(self.road.is_ready, "the handshake")
        self.note("linked again")

    def cut_once(self, is_again):
        """The second time is as soon as the daemon has started."""
        starts = self.road.starts()
        self.note(f"cut, again: {is_again}")
        self.road.cut()
        self.talk.cut()
        self.pump_until(lambda: self.road.starts() > starts, "a new link", 30)

    # The end.

    def finish(self):
        self.note("finish")
        self.resume()
        for stream in self.talk.all():
            for end, _ in stream.ends():
                end.reads = True
            if not stream.ending:
                self.choose_end(stream, self.rng)
        self.pump_until(self.is_over, "the end of all streams")
        for stream in filter(lambda stream: not stream.was_cut, self.talk.all()):
            try:
                stream.check()
            except AssertionError as fault:
                raise AssertionError(f"{fault}: {stream}") from fault
        self.quiet(self.rng)
        self.probe_datagrams()
        self.quiet(self.rng)
        self.check_nothing_left()
        self.stop()

    def is_over(self):
        return all(stream.is_over() for stream in self.talk.all())

    def probe_datagrams(self):
        """On a link at rest none is lost."""
        for number, one in enumerate(self.talk.correspondents):
            self.pump(0)  # what came late
            before = one.answered
            one.send(self.talk.remotes[number], b"is anybody there?")
            self.pump_until(lambda: one.answered > before, "the answer to a datagram", 5)

    def check_nothing_left(self):
        dump = self.road.dump()
        assert not re.search(r"rx_bytes: \d+, tx_bytes", dump), f"streams are left: {dump}"
        assert re.search(r"buf_bytes: 0$", dump, re.MULTILINE), f"bytes are left: {dump}"
        os.kill(self.road.pid("companion"), signal.SIGUSR1)
        state = r"state: up, 0 streams, (\d+) flows"
        flows = wait_until(lambda: re.search(state, self.road.output("companion")),
                           "a companion without streams")
        # What carries datagrams stays for a while.
        remotes = {remote for one in self.talk.correspondents for remote, _ in one.waiting}
        limits = {"daemon": self.fresh["daemon"] + len(remotes) +
                  # For connections' own ports and for their owners, from the first on.
                  2 * bool(self.talk.streams),
                  # One to ask for statistics, from the first time on.
                  "launcher": self.fresh["launcher"] + ("--stats-every" in self.options),
                  "companion": self.fresh["companion"] + int(flows[1])}
        self.check_descriptors(limits)

    def check_descriptors(self, limits):
        for _ in range(50):
            found = self.road.descriptors()
            if all(found[role] <= limits[role] for role in ROLES):
                return
            time.sleep(.1)  # a file of metrics is just being written
        raise AssertionError(f"descriptors: {found}, at most {limits}")

    def stop(self):
        daemon = self.road.pid("daemon")
        assert end_process(self.road.process("launcher")) == 0, "the launcher's status"
        assert not pathlib.Path(f"/proc/{daemon}").exists(), "the daemon is left"
        rules = self.road.device.rules("nat") + self.road.device.rules("mangle")
        assert rules == [], f"rules are left: {rules}"
        assert end_process(self.road.process("companion")) == 0, "the companion's status"
        own = {os.getpid(), self.road.device.holder_pid}
        left = {path.name for path in pathlib.Path("/proc").glob("[0-9]*")
                if int(path.name) not in own and (path / "cmdline").read_bytes()}
        assert not left, f"processes are left: {left}"
        reports = sanitizer_reports(self.dir)
        assert not reports, reports


def end_all():
    """What a failed run has left would be blamed on the next one."""
    for pid in with_children(os.getpid())[1:]:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)


def run_seed(seed, options):
    directory = pathlib.Path(tempfile.mkdtemp(prefix=f"stress-{seed}-"))
    begin = time.monotonic()
    run = None
    try:
        run = Run(seed, options.protocol, directory)
        with contextlib.closing(run):
            run.everything()
    except FAULTS as fault:
        traceback.print_exception(fault)
        end_all()
        print(f"{run or f'seed {seed}'}: FAILED: {fault}\n  logs: {directory}\n  again: "
              f"scripts/stress.sh --seed {seed} --runs 1" + (
                  f" --protocol {options.protocol}" if options.protocol else ""), flush=True)
        if run:
            run.write_trace()
        return False
    shutil.rmtree(directory)
    print(f"{run}: {run.result()}, {time.monotonic() - begin:.1f} s", flush=True)
    return True


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[0])
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--protocol", choices=["1", "5", "20"])
    options = parser.parse_args()
    internet.enter()
    # Segments that small receive buffers of remotes can hold.
    subprocess.run("ip link set lo mtu 1500".split(), check=True)
    failed = [seed for seed in range(options.seed, options.seed + options.runs)
              if not run_seed(seed, options)]
    print(f"{options.runs - len(failed)} of {options.runs} seeds passed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
