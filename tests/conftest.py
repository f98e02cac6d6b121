"""Runs the whole session inside namespaces of its own: its network is the
internet that devices reach, and everything left behind ends with it."""

import os
import shutil
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))
import bench  # noqa: E402 the line before is what finds it

SKIPPED = 77  # the exit status by which a session says that nothing could run
NAMESPACES = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
INTERNET = [
    ["mount", "--make-rprivate", "/"],
    ["ip", "link", "set", "lo", "up"],
    # On lo every address of the network is local: servers take what they like.
    ["ip", "address", "add", "198.51.100.1/24", "dev", "lo"],
]
# What a device's rules need of the kernel.
KERNEL_PROBE = """
mount -t tmpfs none /run && iptables-legacy -w -t nat -N probe &&
iptables-legacy -w -t nat -A probe -p tcp -j REDIRECT --to-ports 1 &&
iptables-legacy -w -t mangle -N probe &&
iptables-legacy -w -t mangle -A probe -p udp -j TPROXY --on-port 1 --tproxy-mark 1
"""


def pytest_addoption(parser):
    parser.addoption("--before", metavar="DIR", help="programs of an earlier version, which "
                     "test_real_programs.py runs beside these for its table")


def pytest_configure(config):
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if "VANTREL_BENCH" not in os.environ:
        enter_namespaces(config)
    config.closing_lines = []  # what the session prints at its end
    for command in INTERNET:
        subprocess.run(command, check=True)


def enter_namespaces(config):
    become = NAMESPACES if os.getuid() == 0 else ["--user", "--map-root-user", *NAMESPACES]
    probe = subprocess.run(["unshare", *become, "sh", "-ec", KERNEL_PROBE],
                           capture_output=True, text=True)
    if probe.returncode != 0:
        pytest.exit(f"skipped, not passed: no namespaces or rules here: {probe.stderr}",
                    returncode=1 if os.environ.get("CI") else SKIPPED)
    # The descriptors must be the terminal's again before the program changes.
    config.pluginmanager.getplugin("capturemanager").stop_global_capturing()
    os.environ["VANTREL_BENCH"] = "root" if os.getuid() == 0 else "user"
    os.execvp("unshare", ["unshare", *become, sys.executable, "-m", "pytest",
                          *sys.argv[1:]])


def pytest_sessionfinish(session, exitstatus):
    reporter = session.config.pluginmanager.getplugin("terminalreporter")
    skipped = reporter.stats.get("skipped", [])
    if exitstatus == 0 and skipped:
        if os.environ.get("CI"):
            session.exitstatus = 1
        elif not reporter.stats.get("passed"):
            session.exitstatus = SKIPPED


def pytest_terminal_summary(terminalreporter, config):
    for line in config.closing_lines:
        terminalreporter.write_line(line)


@pytest.fixture
def needs_root():
    if os.environ["VANTREL_BENCH"] != "root":
        pytest.skip("needs root: a user namespace has one UID only")


@pytest.fixture
def make_device(tmp_path):
    devices = []

    def make(**kwargs):
        devices.append(bench.Device(tmp_path / f"device{len(devices)}", **kwargs))
        return devices[-1]

    yield make
    for device in devices:
        device.close()
    reports = bench.sanitizer_reports(tmp_path)
    shutil.rmtree(tmp_path, ignore_errors=True)
    assert not reports, reports


@pytest.fixture
def device(make_device):
    return make_device()


@pytest.fixture
def start(device):
    """start(...) runs a daemon on the device; the last one is ended for you."""
    daemons = []

    def make(**kwargs):
        daemons.append(bench.Daemon(device, **kwargs))
        return daemons[-1]

    yield make
    for daemon in daemons:
        daemon.close()


@pytest.fixture
def connected(start):
    """A started daemon whose scripted companion has shaken hands."""
    daemon = start()
    daemon.companion.shake_hands()
    daemon.ports()
    return daemon


@pytest.fixture
def launch(make_device):
    """launch(*options): the launcher on a debuggable device, its companion
    listening beside the internet's servers. With |wrapper|, lines of shell that
    the packet-filter tool of the device begins with."""
    running = []

    def make(*options, wrapper="", companion_options=(), **kwargs):
        device = make_device(debuggable=True)
        bench.set_wrapper(device, wrapper)
        companion = bench.listening_companion(device, *companion_options)
        running.append(companion)
        launched = bench.Launch(device, "--protocol", "5", *options, **kwargs)
        running.append(launched.process)
        launched.companion = companion
        return launched

    yield make
    for process in running:
        bench.end_process(process)
