"""Devices in namespaces, and what they have of files and rules."""

import contextlib
import ctypes
import os
import pathlib
import signal
import socket
import subprocess

from testbed.internet import NAME_SERVER
from testbed.processes import end_process
from testbed.waiting import PATIENCE

# Makes the namespaces it runs in a device.
SCRIPT = pathlib.Path(__file__).with_name("device.sh")
DEVICE_ADDRESS = "192.168.167.239"
BROWSER_UID, MAIL_UID = 10123, 10124
PACKAGES = {
    0: "com.example.settings",
    BROWSER_UID: "com.example.browser",
    MAIL_UID: "com.example.mail",
}
NAT_RULES = [
    "-N oem_PROXY_TCP",
    "-A OUTPUT -o lo -p tcp -j oem_PROXY_TCP",
    "-A oem_PROXY_TCP -d 127.0.0.0/8 -o lo -j RETURN",
    "-A oem_PROXY_TCP -d 192.168.167.239/32 -o lo -j RETURN",
    "-A oem_PROXY_TCP -o lo -p tcp -j REDIRECT --to-ports {tcp}",
]
MANGLE_RULES = [
    "-N oem_PROXY_UDP",
    "-A PREROUTING -i lo -p udp -j oem_PROXY_UDP",
    "-A oem_PROXY_UDP -d 127.0.0.0/8 -i lo -j RETURN",
    "-A oem_PROXY_UDP -d 192.168.167.239/32 -i lo -j RETURN",
    "-A oem_PROXY_UDP -i lo -p udp -j TPROXY --on-port {udp} --on-ip 0.0.0.0"
    " --tproxy-mark 0x1/0x1",
]
_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000


def write_files(directory, debuggable=False, packages=PACKAGES, name_server=NAME_SERVER):
    """What SCRIPT makes a device's of."""
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "build.prop").write_text(
        f"# of the testbed\nro.debuggable={str(debuggable).lower()}\n")
    (directory / "packages.list").write_text("".join(
        f"{name} {uid} 0 /data/data/{name} default none\n" for uid, name in packages.items()))
    (directory / "resolv.conf").write_text(f"nameserver {name_server}\n")


class Device:
    """A network and a mount namespace, held open by one idle process."""

    def __init__(self, directory, **files):
        """|files| as write_files() has them."""
        self.dir = directory
        write_files(directory, **files)
        self._holder = subprocess.Popen(
            ["unshare", "--net", "--mount", SCRIPT, directory, "sh", "-c",
             "echo ready; exec sleep infinity"], stdout=subprocess.PIPE)
        assert self._holder.stdout.readline() == b"ready\n"

    @property
    def holder_pid(self):
        return self._holder.pid

    def close(self):
        end_process(self._holder, signal.SIGKILL)
        self._holder.stdout.close()

    def command(self, args, uid=0):
        """The command line that runs |args| on the device."""
        become = [] if uid == 0 else [
            "setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups"]
        return ["nsenter", f"--target={self._holder.pid}", "--net", "--mount",
                "--root", "--wd", *become, *map(str, args)]

    def run(self, *args, uid=0, check=True, **kwargs):
        return subprocess.run(self.command(args, uid), check=check, text=True,
                              capture_output=True, timeout=60 * PATIENCE, **kwargs)

    @contextlib.contextmanager
    def network(self):
        """What is opened inside stays in the device's network for good."""
        with open("/proc/self/ns/net", "rb") as home, \
                open(f"/proc/{self._holder.pid}/ns/net", "rb") as there:
            assert _libc.setns(there.fileno(), _CLONE_NEWNET) == 0
            try:
                yield
            finally:
                assert _libc.setns(home.fileno(), _CLONE_NEWNET) == 0

    def socket(self, kind, bind=None, uid=0):
        """An application's of |uid|."""
        with self.network():
            os.seteuid(uid)
            try:
                app = socket.socket(socket.AF_INET, kind)
            finally:
                os.seteuid(0)
        app.settimeout(10 * PATIENCE)
        if bind:
            app.bind(bind)
        return app

    def connect(self, address, port, uid=0):
        app = self.socket(socket.SOCK_STREAM, uid=uid)
        app.connect((address, port))
        return app

    def rules(self, table):
        """The lines of a table that are not the built-in chains' policies."""
        lines = self.run("iptables-legacy", "-w", "-t", table, "-S").stdout
        return [line for line in lines.splitlines() if not line.startswith("-P ")]


def set_wrapper(device, lines):
    script = f'#!/bin/sh\n{lines}\nexec iptables-legacy "$@"\n'
    device.run("sh", "-c", 'echo "$1" >/system/bin/new && chmod 755 /system/bin/new && '
               "mv /system/bin/new /system/bin/iptables-wrapper-1.0", "sh", script)


def standing_rules(device):
    return device.rules("nat") + device.rules("mangle")
