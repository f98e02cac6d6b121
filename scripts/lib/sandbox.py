"""usage: sandbox.sh [options] -- COMMAND [ARGUMENT...]

  --protocol 1|5|20  link protocol (20)
  --dns ADDRESS      where the companion sends name look-ups (your own first
                     IPv4 name server)
  --log-dir DIR      where logs and status records are kept (a new one in /tmp)
  --packages FILE    the device's list of packages (package uid ..., one a line)
  --debuggable       a debuggable build: the control port listens
  --capture FILE     record the link to this pcapng file
  --shape LIMITS     make the link slow, as in rate=2Mbit,delay=30ms
  --verbose          the companion logs every datagram, write and close
  --bin DIR          the programs (VANTREL_BIN_DIR, else build/release/bin)

The exit status is COMMAND's; 125 when the device could not be set up. Needs
root, or a kernel that lets users make user namespaces.
"""

# All of COMMAND's traffic goes through a freshly started daemon and companion, and the
# companion stands in your own network. Device, launcher and COMMAND are in namespaces
# whose first process is session.py.

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

from testbed import namespaces
from testbed.device import SCRIPT, write_files
from testbed.processes import end_process
from testbed.programs import BIN_DIR
from testbed.waiting import wait_until

SESSION = pathlib.Path(__file__).with_name("session.py")
# They are for COMMAND: were unshare to die of one, all inside would be killed at once.
SIGNALS = "INT,QUIT,TERM,HUP"
NAME_SERVER = "192.0.2.53"  # any: the companion answers in its place


def fail(text):
    print(f"sandbox: {text}", file=sys.stderr)
    sys.exit(125)


class Options:
    def __init__(self, words):
        self.protocol, self.dns, self.log_dir, self.packages = "20", "", "", ""
        self.bin, self.debuggable = str(BIN_DIR), False
        self.to_launcher, self.to_companion = [], []
        while words and words[0] != "--":
            self._take(words)
        self.command = words[1:]
        if not self.command:
            print(__doc__, end="", file=sys.stderr)
            sys.exit(125)

    def _take(self, words):
        option = words.pop(0)
        name = option[2:].replace("-", "_")
        if option in ("--protocol", "--dns", "--log-dir", "--packages", "--bin", "--capture",
                      "--shape"):
            if not words:
                fail(f"{option} needs a value")
            value = words.pop(0)
            if option == "--shape":
                self.to_launcher.append(f"{option}={value}")
            elif option == "--capture":
                self._capture(value)
            else:
                setattr(self, name, value)
        elif option == "--verbose":
            self.to_companion.append(option)
        elif option == "--debuggable":
            self.debuggable = True
        elif option == "--help":
            print(__doc__, end="")
            sys.exit(0)
        else:
            fail(f"no such option: {option} (COMMAND stands behind --; see --help)")

    def _capture(self, path):
        """The launcher has another working directory."""
        real = os.path.realpath(path)
        if real.startswith("/run/"):
            fail(f"the device has a /run of its own, not for {path}")
        self.to_launcher.append(f"--capture={real}")


def own_name_server():
    found = re.search(r"^\s*nameserver\s+([0-9.]+)\s*$",
                      pathlib.Path("/etc/resolv.conf").read_text(), re.M)
    return found[1] if found else ""


def make_log_directory(wanted):
    try:
        path = pathlib.Path(wanted or tempfile.mkdtemp(prefix="vantrel-sandbox.", dir="/tmp"))
        path.mkdir(parents=True, exist_ok=True)
    except OSError:
        fail(f"no directory {wanted}")
    print(f"sandbox: logs and status records in {path.resolve()}", file=sys.stderr)
    return path.resolve()


def write_device_files(options, work):
    write_files(work, options.debuggable, {0: "sandbox.command"}, NAME_SERVER)
    if options.packages:
        try:
            shutil.copy(options.packages, work / "packages.list")
        except OSError:
            fail(f"cannot read {options.packages}")


@contextlib.contextmanager
def companion(options, programs, work, logs):
    """COMMAND is your own: it may reach what your own programs reach."""
    dns = options.dns or own_name_server()
    log = logs / "companion.log"
    with open(log, "wb") as output:
        process = subprocess.Popen(
            [programs / "vantrel-companion", "--protocol", options.protocol, "--listen",
             f"unix:{work}/link", "--allow", "0.0.0.0/0", *(["--dns", dns] if dns else []),
             *options.to_companion], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
            start_new_session=True)
    try:
        # The socket's file is there a moment before anybody listens on it.
        listens = "listening on"
        wait_until(lambda: listens in log.read_text() or process.poll() is not None, "it")
        if listens not in log.read_text():
            fail(f"the companion did not start: {log.read_text()}")
        yield
    finally:
        end_process(process)


def run_session(options, programs, work, logs):
    """COMMAND's exit status. Ctrl-C is for COMMAND, which gets it from the terminal; other
    signals are passed on."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    device = subprocess.Popen([
        "env", f"--ignore-signal={SIGNALS}", *namespaces.unshare(),
        "env", f"--default-signal={SIGNALS}", SCRIPT, work, SESSION, logs, programs, os.getcwd(),
        "--protocol", options.protocol, *options.to_launcher, f"unix:{work}/link", "--",
        *options.command])

    def pass_on(*_):
        """To the first process inside, which decides."""
        with contextlib.suppress(OSError):
            children = f"/proc/{device.pid}/task/{device.pid}/children"
            for inside in pathlib.Path(children).read_text().split()[:1]:
                os.kill(int(inside), signal.SIGTERM)

    for signum in signal.SIGTERM, signal.SIGHUP:
        signal.signal(signum, pass_on)
    status = device.wait()
    return status if status >= 0 else 128 - status


def main():
    # The way to our modules is no business of COMMAND's.
    _, _, others = os.environ.pop("PYTHONPATH").partition(":")
    if others:
        os.environ["PYTHONPATH"] = others
    for signum in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
        signal.signal(signum, lambda number, _: sys.exit(128 + number))
    options = Options(sys.argv[1:])
    programs = pathlib.Path(options.bin).resolve()
    for program in "vantrel", "vantrel-launch", "vantrel-companion":
        if not os.access(programs / program, os.X_OK):
            fail(f"no {program} in {programs}; run scripts/build.sh")
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if subprocess.run([*namespaces.unshare(), "true"]).returncode:
        fail("this kernel refuses the namespaces; try as root")
    logs = make_log_directory(options.log_dir)
    # The link's socket and the device's files, in a place with a short path.
    with tempfile.TemporaryDirectory(prefix="vantrel-device.", dir="/tmp") as name:
        work = pathlib.Path(name)
        write_device_files(options, work)
        with companion(options, programs, work, logs):
            return run_session(options, programs, work, logs)


if __name__ == "__main__":
    sys.exit(main())
