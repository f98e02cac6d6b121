"""The internet of the devices: one network, whose every address is local to the servers
in it, so that they take what they like."""

import os
import signal
import subprocess
import sys

from testbed import namespaces

NETWORK = "198.51.100.0/24"
SERVER_ADDRESS, NAME_SERVER = "198.51.100.80", "198.51.100.53"
COMMANDS = [
    "ip link set lo up",
    "ip address add 198.51.100.1/24 dev lo",
    # A new connection for each request uses up ports and waits for none.
    "sysctl -eqw net.ipv4.tcp_max_tw_buckets=1000 net.core.somaxconn=4096",
    # The devices' kernels have a table of connections as a small machine has it. To
    # list its entries, which finds a connection's owner, walks the whole table.
    "sysctl -eqw net.ipv4.tcp_child_ehash_entries=8192",
]


def make():
    """In the network of the caller."""
    for command in COMMANDS:
        subprocess.run(command.split(), check=True)


def enter():
    """Goes on in namespaces of its own, whose network is the internet. The first thing to
    do in a program."""
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if not namespaces.are_entered():
        namespaces.enter()
    # The first process of its namespace gets only the signals that it asks for.
    for signum in signal.SIGTERM, signal.SIGHUP:
        signal.signal(signum, lambda number, _: sys.exit(128 + number))
    make()
