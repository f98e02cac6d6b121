"""Runs the whole session inside namespaces of its own, the internet of its devices."""

import os
import shutil

import pytest

from testbed import internet, namespaces
from testbed.device import Device, set_wrapper
from testbed.processes import end_process
from testbed.programs import Daemon, Launch, listening_companion, sanitizer_reports

SKIPPED = 77  # the exit status by which a session says that nothing could run


def pytest_addoption(parser):
    parser.addoption("--before", metavar="DIR", help="programs of an earlier version, which "
                     "test_real_programs.py runs beside these for its table")
    parser.addoption("--part", metavar="N/PARTS", help="every PARTS-th case, from the N-th on")


def pytest_configure(config):
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if not namespaces.are_entered():
        enter_namespaces(config)
    config.closing_lines = []  # what the session prints at its end
    internet.make()


def pytest_collection_modifyitems(config, items):
    if config.getoption("part"):
        number, parts = map(int, config.getoption("part").split("/"))
        config.hook.pytest_deselected(items=[item for at, item in enumerate(items)
                                             if at % parts != number - 1])
        items[:] = items[number - 1::parts]


def enter_namespaces(config):
    if refusal := namespaces.refusal():
        pytest.exit(f"skipped, not passed: no namespaces or rules here: {refusal}",
                    returncode=1 if os.environ.get("CI") else SKIPPED)
    # The descriptors must be the terminal's again before the program changes.
    config.pluginmanager.getplugin("capturemanager").stop_global_capturing()
    namespaces.enter()


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
    if not namespaces.has_root():
        pytest.skip("needs root: a user namespace has one UID only")


@pytest.fixture
def make_device(tmp_path):
    devices = []

    def make(**kwargs):
        devices.append(Device(tmp_path / f"device{len(devices)}", **kwargs))
        return devices[-1]

    yield make
    for device in devices:
        device.close()
    reports = sanitizer_reports(tmp_path)
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
        daemons.append(Daemon(device, **kwargs))
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
        set_wrapper(device, wrapper)
        companion = listening_companion(device, *companion_options)
        running.append(companion)
        launched = Launch(device, "--protocol", "5", *options, **kwargs)
        running.append(launched.process)
        launched.companion = companion
        return launched

    yield make
    for process in running:
        end_process(process)
