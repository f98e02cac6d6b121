"""The roads that traffic of a device can take to the internet: vantrel, what a user
might choose instead, and a plain connection. Each is a device in namespaces of its
own with the programs that the road needs, all of them at rest until traffic comes.
"""

import contextlib
import pathlib
import subprocess
import time

from testbed.device import BROWSER_UID, Device
from testbed.internet import NETWORK, SERVER_ADDRESS
from testbed.processes import end_process, find_program, processor_seconds, with_children
from testbed.programs import BIN_DIR, program_environment
from testbed.servers import LOAD_PORT, Servers
from testbed.waiting import wait_until

# Without these the second run of new connections waits for ports of the first.
DEVICE_SETTINGS = ["sysctl", "-qw", "net.ipv4.ip_local_port_range=2048 65000",
                   "net.ipv4.tcp_max_tw_buckets=1000"]
GATEWAY = "10.99.{}.1"  # the internet's end of a device's cable, by number
LINK_PORT = 4747


class Road:
    """|name| is how tables call it."""

    has_datagrams = False
    is_fresh = True  # it has carried nothing yet; whoever asks clears it
    cables = 0  # of all roads
    server = (SERVER_ADDRESS, LOAD_PORT)  # where its clients connect to

    def __init__(self, name, directory):
        self.name = name
        self.dir = directory
        self.device = Device(directory, debuggable=True)
        self._processes = {}

    def add_cable(self):
        """A virtual Ethernet cable from device to internet; the address of its end there."""
        number = Road.cables = Road.cables + 1
        gateway = GATEWAY.format(number)
        for command in [
                f"ip link add cable{number} type veth peer name cable netns "
                f"{self.device.holder_pid}",
                f"ip address add {gateway}/30 dev cable{number}",
                f"ip link set cable{number} up"]:
            subprocess.run(command.split(), check=True)
        for command in [f"ip address add {GATEWAY[:-1].format(number)}2/30 dev cable",
                        "ip link set cable up"]:
            self.device.run(*command.split())
        return gateway

    def start(self, role, args, **kwargs):
        """A program of the road, whose processor time is then told under |role|."""
        with open(self.dir / f"{role}.out", "wb") as out:
            process = subprocess.Popen(list(map(str, args)), stdin=kwargs.pop(
                "stdin", subprocess.DEVNULL), stdout=out, stderr=out, **kwargs)
        self._processes[role] = process
        return process

    def output(self, role):
        return (self.dir / f"{role}.out").read_text()

    def process(self, role):
        return self._processes[role]

    def programs(self):
        """Their roles."""
        return list(self._processes)

    def pids(self):
        """{role: its processes}."""
        return {role: with_children(process.pid) for role, process in self._processes.items()}

    def used_seconds(self):
        return {role: processor_seconds(pids) for role, pids in self.pids().items()}

    def close(self):
        for process in reversed(self._processes.values()):
            end_process(process)
        self.device.close()


def companion_options(bin_dir):
    """What opens the test network to devices and gives one link all descriptors, where
    a companion, which may be an older one, has options for that."""
    usage = subprocess.run([bin_dir / "vantrel-companion", "--help"], capture_output=True,
                           text=True, check=True).stdout
    wanted = {"--allow": NETWORK, "--max-links": "1"}
    return [word for option in wanted.items() if option[0] + " " in usage for word in option]


class VantrelRoad(Road):
    """The daemon, started by the launcher, and the companion at its link's end. With
    |shape|, or when |relayed|, the launcher stays between them. |launch_options| are
    more of the launcher's. With |over_tcp| the link is a connection over a cable."""

    has_datagrams = True

    def __init__(self, name, directory, protocol, relayed=False, shape=None,
                 bin_dir=BIN_DIR, launch_options=(), over_tcp=False):
        super().__init__(name, directory)
        self.protocol = protocol
        if over_tcp:
            self.link_address = self.add_cable(), LINK_PORT
            link = "tcp:{}:{}".format(*self.link_address)
        else:
            self.link_address = str(directory / "link")
            link = f"unix:{self.link_address}"
        relayed = relayed or shape
        environment = {**program_environment(directory),
                       "VANTREL_LOG_FILE": str(directory / "daemon.log")}
        self.start("companion", [
            bin_dir / "vantrel-companion", "--protocol", protocol, "--listen", link,
            *(["--allow-remote-links"] if over_tcp else []),
            *([] if relayed else ["--header"]), *companion_options(bin_dir)], env=environment)
        wait_until(lambda: "listening on" in self.output("companion"), "the companion")
        options = ["--shape", shape] if shape else [] if relayed else ["--direct"]
        self._launcher = self.start("launcher", self.device.command([
            bin_dir / "vantrel-launch", "--protocol", protocol, "--daemon", bin_dir / "vantrel",
            *options, *launch_options, link]), env=environment)
        wait_until(lambda: "started" in self.output("launcher"), "the daemon")

    def pids(self):
        """The daemon is the launcher's child."""
        pids = super().pids()
        daemons = [pid for pid in pids["launcher"] if self._is_daemon(pid)]
        pids["launcher"] = [pid for pid in pids["launcher"] if pid not in daemons]
        return {"daemon": daemons, **pids}

    @staticmethod
    def _is_daemon(pid):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has ended
            return pathlib.Path(f"/proc/{pid}/comm").read_text() == "vantrel\n"

    def dump(self):
        """What the daemon says of its state."""
        args = ["vantrelctl", "dump", "--log", self.dir / "daemon.log"]
        return self.device.run(BIN_DIR / args[0], *args[1:]).stdout

    def link_bytes(self):
        """What the daemon has received and sent on the link, as its dump says."""
        dump = self.dump()
        fields = dict(line.split(":", 1) for line in dump.splitlines() if ":" in line)
        fields = {key.split()[-1]: value for key, value in fields.items() if key.strip()}
        return int(fields["rx_bytes"]) + int(fields["tx_bytes"])


class CableRoad(Road):
    """A plain connection over a cable, each way as slow as |rate| says, as in 2mbit."""

    def __init__(self, name, directory, rate=None):
        super().__init__(name, directory)
        self.gateway = self.add_cable()
        if rate:
            limit = f"root tbf rate {rate} burst 8kb limit 64kb".split()
            subprocess.run(["tc", "qdisc", "add", "dev", f"cable{Road.cables}", *limit], check=True)
            self.device.run("tc", "qdisc", "add", "dev", "cable", *limit)
        for command in ["ip route delete local default dev lo",
                        f"ip route add default via {self.gateway}"]:
            self.device.run(*command.split())
        self.has_datagrams = type(self) is CableRoad


class ProxyRoad(CableRoad):
    """haproxy on the device as a transparent proxy: the rules bring it every
    connection, and it makes the connection to where the application wanted."""

    # Its own connections are another user's, so that no rule takes them again.
    CONFIGURATION = f"""
global
  uid {BROWSER_UID}
  nbthread 1
  maxconn 5000
defaults
  mode tcp
  timeout connect 10s
  timeout client 1h
  timeout server 1h
listen proxy
  bind 127.0.0.1:12345
  server original 0.0.0.0
"""

    def __init__(self, name, directory):
        program = find_program("haproxy")
        super().__init__(name, directory)
        configuration = directory / "haproxy.cfg"
        configuration.write_text(self.CONFIGURATION)
        process = self.start("proxy", self.device.command(
            [program, "-db", "-f", configuration]))
        self.device.run(*"iptables-legacy -w -t nat -A OUTPUT -p tcp -m owner !".split(),
                        "--uid-owner", BROWSER_UID,
                        *f"-d {NETWORK} -j REDIRECT --to-ports 12345".split())
        wait_until(lambda: ":12345" in self.device.run("ss", "-Hlnt").stdout, "haproxy")
        assert process.poll() is None, self.output("proxy")


class SshRoad(CableRoad):
    """An ssh client on the device that forwards one port to the server."""

    server = ("127.0.0.1", LOAD_PORT)

    def __init__(self, name, directory):
        find_program("sshd")
        client = find_program("ssh")
        super().__init__(name, directory)
        self._processes["sshd"] = Servers(directory).start("ssh")
        key = directory / "key"
        key.write_bytes((directory / "ssh/user").read_bytes())
        key.chmod(0o600)
        self.start("ssh", self.device.command([
            client, "-N", "-F", "none", "-i", key,
            "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
            "-o", "ExitOnForwardFailure=yes",
            "-L", "127.0.0.1:{}:{}:{}".format(self.server[1], *Road.server),
            f"root@{self.gateway}"]))
        wait_until(
            lambda: f"127.0.0.1:{self.server[1]}" in self.device.run("ss", "-Hlnt").stdout, "ssh")


def wait_for_rest(road, seconds=10):
    """Until the programs of |road| do nothing for a moment, as they do when a load
    has ended and all of it is delivered; or until |seconds| have passed."""
    end = time.monotonic() + seconds
    used = road.used_seconds()
    while time.monotonic() < end:
        time.sleep(0.05)
        before, used = used, road.used_seconds()
        if sum(used.values()) - sum(before.values()) < 0.0005:
            return
