"""Namespaces of its own for a program and all that it starts: its network is the internet
that devices reach, and what it leaves behind ends with it."""

import os
import subprocess
import sys

NEW = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
# Whose rights the program has in them, "root" or "user"; set once it is inside.
VARIABLE = "VANTREL_TESTBED"
# Its /run is its own: there stands the lock of the packet-filter tools.
PROLOGUE = 'mount --make-rprivate / && mount -t tmpfs -o mode=755 run /run && exec "$@"'
# What a device's rules need of the kernel.
PROBE = """
mount -t tmpfs none /run && iptables-legacy -w -t nat -N probe &&
iptables-legacy -w -t nat -A probe -p tcp -j REDIRECT --to-ports 1 &&
iptables-legacy -w -t mangle -N probe &&
iptables-legacy -w -t mangle -A probe -p udp -j TPROXY --on-port 1 --tproxy-mark 1
"""


def are_entered():
    return VARIABLE in os.environ


def has_root():
    """Without, there is one UID only."""
    return os.environ[VARIABLE] == "root"


def unshare():
    """The command, without options of its program, that makes the namespaces."""
    return ["unshare", *([] if os.getuid() == 0 else ["--user", "--map-root-user"]), *NEW]


def refusal():
    """Why there can be none with a device here; empty when there can."""
    probe = subprocess.run([*unshare(), "sh", "-ec", PROBE], capture_output=True, text=True)
    return probe.stderr or "no reason" if probe.returncode else ""


def enter():
    """Begins this program again, inside. It has PROLOGUE's mounts there."""
    os.environ[VARIABLE] = "root" if os.getuid() == 0 else "user"
    os.execvp("unshare", [*unshare(), "sh", "-c", PROLOGUE, "sh", sys.executable,
                          *sys.orig_argv[1:]])
