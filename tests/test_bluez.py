"""Both programs and BlueZ, which the test plays on a bus of its own. The real one is in
test_bluetooth.py."""

import os
import re
import socket
import subprocess

import pytest

from testbed.processes import end_process
from testbed.programs import BIN_DIR, program_environment, sanitizer_reports
from testbed.waiting import wait_until
from tests import bluez

DESK, SHELF = "01:23:45:67:89:AB", "01:23:45:67:89:CD"
SOUND, COMPUTER = 0x240404, 0x10C


@pytest.fixture
def bus(tmp_path):
    bus = bluez.Bus(tmp_path)
    yield bus
    bus.stop()


@pytest.fixture
def start(tmp_path):
    """start(program, *options, bus=ADDRESS): its log is all that it writes."""
    running = []

    def begin(program, *options, bus="unix:path=/nonexistent"):
        log = tmp_path / f"log{len(running)}"
        with open(log, "wb") as output:
            process = subprocess.Popen(
                [BIN_DIR / program, *options], stdout=output, stderr=output,
                stdin=subprocess.DEVNULL,
                env={**program_environment(tmp_path), "XDG_RUNTIME_DIR": str(tmp_path),
                     "DBUS_SYSTEM_BUS_ADDRESS": bus})
        process.log = log.read_text
        running.append(process)
        return process

    yield begin
    for process in running:
        end_process(process)
    assert not sanitizer_reports(tmp_path)


def wait_for(process, text, count=1, seconds=10):
    def is_there():
        bluez.pump()
        return process.log().count(text) >= count
    try:
        wait_until(is_there, text, seconds)
    except AssertionError:
        raise AssertionError(f"waited for {text!r}:\n{process.log()}") from None


def answer(answers):
    wait_until(lambda: bluez.pump() or answers, "an answer")
    return answers[0]


def test_links_that_bluez_hands_over(bus, start):
    manager = bluez.Bluez(bus.address)
    companion = start("vantrel-companion", "--listen", "bluetooth", "--protocol", "1",
                      "--security", "low", bus=bus.address)
    wait_for(companion, "listening on bluetooth")
    _, path, uuid, options = manager.profiles[0]
    assert uuid == bluez.SERVICE
    assert options == {"Name": "vantrel", "Role": "server", "Channel": 0,
                       "RequireAuthentication": False, "RequireAuthorization": False}

    device, answers = manager.connect_machine(DESK)
    assert answer(answers) == "done"
    wait_for(companion, f"link 1 connected: bluetooth:{DESK}")
    # Where nothing listens: the companion answers on the link.
    device.sendall(b"\x01\0\0\0\x01" + socket.inet_aton("127.0.0.1") + b"\0\x07\0\0\0\0")
    assert device.recv(1) == b"\x02"
    other, answers = manager.connect_machine(SHELF)
    answer(answers)
    desk = bluez.dbus.ObjectPath(bluez.machine_path(DESK))
    assert answer(manager.call("RequestDisconnection", "o", desk)) == "done"
    wait_for(companion, "link down")
    device.recv(100)
    assert device.recv(1) == b""
    # Who is not BlueZ brings nothing, and what is no socket is no link.
    stranger = bluez.connect(bus.address)
    _, answers = manager.connect_machine(DESK, bus=stranger)
    assert answer(answers) == "org.bluez.Error.Rejected"
    with open(os.devnull) as file:
        refused = manager.call("NewConnection", "oha{sv}", desk, bluez.dbus.types.UnixFd(file),
                               bluez.dbus.Dictionary({}, "sv"))
        assert answer(refused) == "org.bluez.Error.Rejected"
    assert answer(manager.call("Cancel", "")) == "org.freedesktop.DBus.Error.UnknownMethod"
    # BlueZ has the socket, too; the device sees the end all the same.
    assert end_process(companion) == 0
    assert companion.log().count("connected: bluetooth:") == 2
    assert other.recv(100) == b""


def test_bluez_that_comes_and_goes(bus, start):
    companion = start("vantrel-companion", bus=bus.address)
    wait_for(companion, "no links over Bluetooth: BlueZ does not run")
    manager = bluez.Bluez(bus.address, {})
    wait_for(companion, "this machine has no Bluetooth adapter")
    manager.objects = bluez.adapter(is_on=False)
    manager.change_power(False)
    wait_for(companion, "the Bluetooth adapter is off: bluetoothctl power on")
    manager.change_power(False)  # is not told again
    manager.change_power(True)
    wait_for(companion, "listening on bluetooth")
    assert manager.profiles[0][3]["RequireAuthentication"]
    assert len(manager.profiles) == 1
    manager.leave()
    wait_for(companion, "BlueZ does not run", 2)
    manager = bluez.Bluez(bus.address)
    wait_for(companion, "listening on bluetooth", 2)
    assert len(manager.profiles) == 1
    bus.stop()
    wait_for(companion, "D-Bus has gone")
    bus.start()
    manager = bluez.Bluez(bus.address)
    manager.refusal = "UUID already registered"
    wait_for(companion, "BlueZ refuses the service: UUID already registered", seconds=20)
    manager.refusal = None
    wait_for(companion, "listening on bluetooth", 3, seconds=20)
    manager.leaves_when_asked = True
    manager.change_power(True)
    wait_for(companion, "BlueZ does not run", 3)
    assert companion.log().count("adapter is off") == 1


def test_a_companion_without_a_bus(start, tmp_path):
    companion = start("vantrel-companion")
    wait_for(companion, "listening on unix")
    assert companion.log().count("\n") == 2, companion.log()
    assert "no links over Bluetooth: no D-Bus: No such file" in companion.log()
    with socket.socket(socket.AF_UNIX) as device:
        device.connect(f"{tmp_path}/vantrel-companion.sock")
        wait_for(companion, "link 1 connected: unix:")
    asked = start("vantrel-companion", "--listen", "bluetooth")
    assert asked.wait(10) == 1
    assert "no D-Bus" in asked.log()
    # Where no link over Bluetooth is asked for, nobody asks the bus.
    with socket.create_server(f"{tmp_path}/busy", family=socket.AF_UNIX) as listener:
        listener.setblocking(False)
        address = f"unix:path={tmp_path}/busy"
        wait_for(start("vantrel-companion", "--listen", f"unix:{tmp_path}/x", bus=address),
                 "listening on unix")
        start("vantrel-launch", "--lock", tmp_path / "lock", "unix:/none", bus=address).wait(10)
        with pytest.raises(BlockingIOError):
            listener.accept()


UNUSABLE = {**bluez.machine(DESK, "Desk", Paired=bluez.dbus.Boolean(False)),
            **bluez.machine(SHELF, "Shelf", True, Blocked=bluez.dbus.Boolean(True)),
            **bluez.machine("01:23:45:67:89:EF", "Ear", device_class=SOUND)}
WORLDS = {  # what BlueZ knows; exit status and what is said
    "no BlueZ": (None, 1, "BlueZ does not run: apt install bluez, or systemctl start bluetooth"),
    "no adapter": ({}, 1, "this machine has no Bluetooth adapter"),
    "adapter off": (bluez.adapter(is_on=False) | bluez.machine(DESK, "Desk", True), 1,
                    "the Bluetooth adapter is off: bluetoothctl power on"),
    "nobody": (bluez.adapter() | UNUSABLE, 1, "no machine is paired that could be the companion"),
    "several": (bluez.adapter() | bluez.machine(DESK, "Desk", True, COMPUTER)
                | bluez.machine(SHELF, "Sh\x1belf", True) | bluez.machine("0:1", "odd", True), 2,
                "several paired machines offer the network; choose a LINK:\n"
                f"vantrel-launch: bluetooth:{DESK}  Desk\n"
                f"vantrel-launch: bluetooth:{SHELF}  Sh\\x1belf\n"),
    # Nothing answers: neither who has offered it once nor the others.
    "away": (bluez.adapter() | UNUSABLE | bluez.machine("01:23:45:67:89:01", "Door", device_class=COMPUTER)
             | bluez.machine("01:23:45:67:89:02", "Desk", True), 1,
             r"offers the network now, start vantrel-companion there: "
             r"Desk \(01:23:45:67:89:02\): [^;]*.*; Door \(01:23:45:67:89:01\): "),
}


@pytest.mark.parametrize("world", WORLDS)
def test_a_launcher_that_has_no_companion(bus, start, tmp_path, world):
    objects, status, text = WORLDS[world]
    manager = bluez.Bluez(bus.address, objects) if objects is not None else None
    launcher = start("vantrel-launch", "--lock", tmp_path / "lock", bus=bus.address)
    wait_until(lambda: bluez.pump() or launcher.poll() is not None, "the launcher's end", 20)
    assert launcher.returncode == status
    assert text in launcher.log() or re.search(text, launcher.log()), launcher.log()
    if manager:
        manager.leave()


def test_a_launcher_that_goes_on_looking(bus, start, tmp_path):
    launcher = start("vantrel-launch", "--restart", "--lock", tmp_path / "lock", bus=bus.address)
    wait_for(launcher, "BlueZ does not run")
    manager = bluez.Bluez(bus.address)
    manager.leaves_when_asked = True
    wait_for(launcher, "BlueZ does not answer")
    bus.stop()
    wait_for(launcher, "no D-Bus, which knows the paired machines; name a LINK", seconds=20)
    assert end_process(launcher) == 128 + 15
    assert launcher.log().count("cannot connect bluetooth: ") >= 3
