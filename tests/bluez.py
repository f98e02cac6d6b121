"""A message bus for one test, and who plays BlueZ on it.

Run as a program it is BlueZ as a machine with one adapter sees it, on a bus of its own:
bluez.py ADDRESS ADAPTER shows what the real BlueZ of the system's bus knows of ADAPTER.
"""
import os
import socket
import subprocess
import sys

import dbus
import dbus.bus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

NAME = "org.bluez"
ADAPTER, MACHINE, PROFILE = NAME + ".Adapter1", NAME + ".Device1", NAME + ".Profile1"
SERVICE = "80db46e2-1cd0-41ba-8443-f6e508656f21"
OBJECTS = "org.freedesktop.DBus.ObjectManager"
CONFIGURATION = """<busconfig><listen>{}</listen><auth>EXTERNAL</auth><policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/>
<allow eavesdrop="true"/></policy></busconfig>"""


class Bus:
    def __init__(self, directory):
        self.address = f"unix:path={directory}/bus"
        self._file = directory / "bus.conf"
        self._file.write_text(CONFIGURATION.format(self.address))
        self.start()

    def start(self):
        self._daemon = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self._file}", "--nofork", "--print-address"],
            stdout=subprocess.PIPE)
        assert self._daemon.stdout.readline()

    def stop(self):
        self._daemon.kill()
        self._daemon.wait()
        self._daemon.stdout.close()


def connect(address):
    connection = dbus.bus.BusConnection(address, mainloop=dbus.mainloop.glib.DBusGMainLoop())
    connection.set_exit_on_disconnect(False)
    return connection


def pump():
    """Handles what came in; nothing is handled otherwise."""
    while GLib.MainContext.default().iteration(False):
        pass


def adapter(number=0, is_on=True):
    return {f"/org/bluez/hci{number}": {ADAPTER: {
        "Address": f"00:AA:01:00:00:{number:02d}", "Powered": dbus.Boolean(is_on),
        "UUIDs": dbus.Array([], "s")}}}


def machine_path(address):
    return "/org/bluez/hci0/dev_" + address.replace(":", "_")


def machine(address, name, offers=False, device_class=None, **properties):
    known = {"Address": address, "Alias": name, "Paired": dbus.Boolean(True),
             "Blocked": dbus.Boolean(False), "Adapter": dbus.ObjectPath("/org/bluez/hci0"),
             "UUIDs": dbus.Array([SERVICE] if offers else [], "s"),
             "ManufacturerData": dbus.Dictionary({}, "qv"), **properties}
    if device_class is not None:
        known["Class"] = dbus.UInt32(device_class)
    return {machine_path(address): {MACHINE: known}}


class Bluez(dbus.service.FallbackObject):
    def __init__(self, address, objects=None):
        self.bus = connect(address)
        self.objects = adapter() if objects is None else objects
        self.profiles = []  # (sender, path, uuid, options) of each registration
        self.refusal = None
        self.leaves_when_asked = False
        super().__init__(self.bus, "/")
        self.bus.request_name(NAME)

    def leave(self):
        self.bus.close()

    def change_power(self, is_on):
        self.objects["/org/bluez/hci0"][ADAPTER]["Powered"] = dbus.Boolean(is_on)
        signal = dbus.lowlevel.SignalMessage(
            "/org/bluez/hci0", "org.freedesktop.DBus.Properties", "PropertiesChanged")
        signal.append(ADAPTER, {"Powered": dbus.Boolean(is_on)}, dbus.Array([], "s"),
                      signature="sa{sv}as")
        self.bus.send_message(signal)

    @dbus.service.method(OBJECTS, out_signature="a{oa{sa{sv}}}", async_callbacks=("done", "_"))
    def GetManagedObjects(self, done, _):
        if self.leaves_when_asked:
            return self.leave()
        return done(self.objects)

    @dbus.service.method(NAME + ".ProfileManager1", in_signature="osa{sv}",
                         sender_keyword="sender")
    def RegisterProfile(self, path, uuid, options, sender):
        if self.refusal:
            raise dbus.DBusException(self.refusal, name=NAME + ".Error.NotPermitted")
        self.profiles.append((sender, str(path), str(uuid), dict(options)))

    def call(self, method, signature, *args, bus=None):
        """Calls the last profile. What it answers comes into the list."""
        answers = []
        sender, path = self.profiles[-1][:2]
        (bus or self.bus).call_async(
            sender, path, PROFILE, method, signature, args,
            lambda *values: answers.append("done"),
            lambda error: answers.append(error.get_dbus_name()))
        return answers

    def connect_machine(self, address, bus=None):
        """As BlueZ does it: one end for the profile, which BlueZ keeps open, too."""
        device, self.kept = socket.socketpair()
        answers = self.call("NewConnection", "oha{sv}", dbus.ObjectPath(machine_path(address)),
                            dbus.types.UnixFd(self.kept), dbus.Dictionary({}, "sv"), bus=bus)
        device.settimeout(10)
        return device, answers


class View(Bluez):
    """The real BlueZ, with one of its adapters."""

    def __init__(self, address, shown):
        self.shown = shown
        self.real = dbus.Interface(dbus.SystemBus().get_object(NAME, "/"), OBJECTS)
        super().__init__(address, {})

    @dbus.service.method(OBJECTS, out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        return {path: interfaces for path, interfaces in self.real.GetManagedObjects().items()
                if path.startswith("/org/bluez/" + self.shown)}


if __name__ == "__main__":
    view = View(*sys.argv[1:])
    print("ready", os.getpid(), flush=True)
    GLib.MainLoop().run()
