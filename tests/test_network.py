"""The device's network and its resolver: what the launcher makes when it is missing, and
takes away again, whatever happens to it."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import threading
import time
from xml.etree import ElementTree

import pytest

from testbed import terminal
from testbed.device import set_wrapper, standing_rules
from testbed.processes import end_process
from testbed.programs import BIN_DIR, Launch, listening_companion
from testbed.waiting import PATIENCE, wait_until
from tests.test_traffic import dns, web  # noqa: F401 fixtures

REMOTE = ("198.51.100.80", 7000)
NAME, NAME_SERVER = "www.example.test", "192.168.167.53"
ALLOWED = "--allow", "198.51.100.0/24"
ADD = "ip link add {0} type ifb || ip link add {0} type dummy; "
# In place of resolvconf(8): keeps what it is told by name, the tunnel's first.
RESOLVCONF = """#!/bin/sh
case $1 in
  -a) cat >"/run/ns.$2" ;;
  -d) rm -f "/run/ns.$2" ;;
esac
cat /run/ns.tun.* /run/ns.eth0.dhcp >/run/resolv.conf 2>/dev/null
cat /run/resolv.conf >/etc/resolv.conf
"""


@pytest.fixture
def remote():
    def serve():
        with contextlib.suppress(OSError):
            while True:
                peers.append(listener.accept()[0])
                peers[-1].sendall(b"over the link")

    peers = []
    with socket.create_server(REMOTE) as listener:
        threading.Thread(target=serve, daemon=True).start()
        yield
        listener.shutdown(socket.SHUT_RDWR)


@pytest.fixture
def bare(make_device):
    """bare(*commands): a device without a network, on which |commands| were run, and
    a companion for it, of which start_companion() makes another one."""
    companions = []

    def make(*commands):
        device = make_device()
        device.run("ip", "route", "delete", "local", "default", "dev", "lo")
        device.run("ip", "link", "delete", "ifb0")
        for command in commands:
            device.run("sh", "-ec", command)
        device.start_companion = lambda: start_companion(device)
        device.start_companion()
        return device

    def start_companion(device):
        device.companion = listening_companion(device, *ALLOWED, "--dns", "198.51.100.53",
                                               protocol="auto")
        companions.append(device.companion)

    yield make
    for companion in companions:
        end_process(companion)


def launch_on(device, *options, **kwargs):
    run = Launch(device, "--protocol", "5", *options, dns=True, **kwargs)
    if kwargs.get("wait", True):
        run.wait_for(run.out, "network 7")  # only then a signal is for its loop
    return run


def network_of(device):
    """All that can be made. The daemon leaves the address without a mask, the kernel a
    queue at an interface that was up."""
    commands = ("ip -N -j link", "ip -N -j -4 address", "ip -N -j -4 route show table all",
                "ip -N -j rule", "nft list ruleset")
    listed = [device.run(*command.split()).stdout for command in commands]
    return [re.sub(r'(?<=239","prefixlen":)0|"qdisc":"\w+",', lambda found: "32" if
                   found[0] == "0" else "", text) for text in listed]


def reaches(device):
    with device.connect(*REMOTE) as app:
        return app.recv(100) == b"over the link"


def kill(run):
    daemon = run.daemon()
    run.process.kill()
    run.process.wait()
    wait_until(lambda: not pathlib.Path(f"/proc/{daemon}/exe").exists(), "the daemon's end")


@pytest.mark.parametrize("commands", [
    [],
    [ADD.format("ifb0")],
    [ADD.format("ifb0") + "ip link set ifb0 up"],
    [ADD.format("ifb0") + "ip link set ifb0 up alias mine; "
     "ip address add 192.168.167.239/32 dev ifb0; ip rule add priority 40000 lookup 2374"],
    [f"{BIN_DIR}/vantrelctl network start"],
], ids=["nothing", "down", "up", "half", "all"])
def test_what_was_made_is_taken_away(bare, remote, commands):
    device = bare(*commands)
    before = network_of(device)
    run = launch_on(device)
    assert reaches(device)
    made = network_of(device)
    second = device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False)
    assert second.returncode == 75 and network_of(device) == made
    assert run.end(signal.SIGINT) == 0
    assert network_of(device) == before
    run = launch_on(device)
    kill(run)
    assert network_of(device)[3:] == made[3:]  # nobody was there to take it away
    run = launch_on(device)
    assert reaches(device)
    kill(run)
    assert device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False).returncode == 1
    assert network_of(device) == before
    run = launch_on(device, "--no-network", "--restart", link="away", wait=False)
    run.wait_for(run.err, "connecting again")
    assert network_of(device) == before
    run.end()


def test_without_a_tunnel_connections_fail_at_once(bare, remote):
    device = bare()
    before = network_of(device)
    run = launch_on(device, "--restart", link="away", wait=False)
    run.wait_for(run.err, "connecting again")
    with pytest.raises(ConnectionRefusedError):
        device.connect(*REMOTE)
    with device.socket(socket.SOCK_DGRAM) as app:
        app.connect(REMOTE)
        app.send(b"anybody?")
        with pytest.raises(ConnectionRefusedError):
            app.recv(1)
    assert run.end() == 128 + signal.SIGTERM
    # A system's own network stays until somebody takes all of it away.
    device.run(BIN_DIR / "vantrelctl", "network", "start")
    assert launch_on(device).end() == 0
    with pytest.raises(ConnectionRefusedError):
        device.connect(*REMOTE)
    device.run(BIN_DIR / "vantrelctl", "network", "stop")
    assert network_of(device) == before


def test_a_default_route_that_wins_is_named(bare, remote):
    device = bare(ADD.format("eth0") + "ip link set eth0 up; ip route add default dev eth0")
    before = network_of(device)
    run = launch_on(device)
    run.wait_for(run.err, "past the daemon")
    command = re.search(r"; what helps: (ip route del default dev eth0)\n", run.err.read_text())[1]
    device.run(*command.split())
    assert reaches(device)
    device.run("ip", "route", "add", "default", "dev", "eth0")
    assert run.end() == 0 and network_of(device) == before


def test_each_command_can_be_refused(bare):
    """Of "ip", which then works again: what was made before is taken back."""
    device = bare()
    before = network_of(device)
    ip = device.run("which", "ip").stdout.strip()
    shutil.copy(ip, device.dir / "ip")
    (device.dir / "refusing").write_text(f"""#!/bin/sh
case "$*" in
  *" add "* | *" set "*)
    echo "$*" >>/run/changes
    [ "$(wc -l </run/changes)" != "$(cat /run/refused)" ] ||
      {{ echo refused >&2; exit 2; }} ;;
esac
exec {device.dir}/ip "$@"
""")
    (device.dir / "refusing").chmod(0o755)
    device.run("mount", "--bind", device.dir / "refusing", ip)

    def launch_refusing(number):
        device.run("sh", "-c", f"echo {number} >/run/refused; : >/run/changes")
        failed = device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False)
        assert network_of(device) == before
        return failed

    launch_refusing(1)  # another type of interface may do
    for number in range(2, 6):
        failed = launch_refusing(number)
        assert failed.returncode == 1
        assert re.fullmatch(r"vantrel-launch: cannot make the device's network: ip .*: "
                            r"refused; --no-network .*\n", failed.stderr)
    assert "cannot connect unix:/none" in launch_refusing(6).stderr
    nft = device.run("which", "nft").stdout.strip()
    (device.dir / "without").write_text(
        "#!/bin/sh\nip rule show priority 40000 >>/run/led\nexit 1\n")
    (device.dir / "without").chmod(0o755)
    device.run("mount", "--bind", device.dir / "without", nft)
    device.run("sh", "-c", "echo 99 >/run/refused")
    failed = device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False)
    assert "warning: while there is no tunnel" in failed.stderr
    # Nothing is led to the interface before it would be refused.
    assert device.run("cat", "/run/led").stdout == ""
    device.run("umount", nft)
    assert network_of(device) == before


@pytest.fixture
def resolver(bare, monkeypatch):
    """A device whose resolver is set by |name|, a program of these |lines|."""
    def make(name, lines):
        device = bare("mkdir -p /run/etc /run/systemd/resolve; cp -a /etc/passwd /etc/group "
                      "/etc/nsswitch.conf /etc/ld.so.cache /run/etc; mount --bind /run/etc /etc; "
                      "for own in $(which -a resolvconf resolvectl); do "
                      "mount --bind /etc/passwd $own; done; "
                      "echo nameserver 192.0.2.5 | tee /run/ns.eth0.dhcp >/etc/resolv.conf")
        programs = device.dir / "programs"
        programs.mkdir()
        (programs / name).write_text(lines)
        (programs / name).chmod(0o755)
        monkeypatch.setenv("PATH", f"{programs}:{os.environ['PATH']}")
        return device
    return make


def resolver_file(device):
    return device.run("cat", "/etc/resolv.conf").stdout


def test_names_are_looked_up_over_the_tunnel(resolver, dns):  # noqa: F811
    device = resolver("resolvconf", RESOLVCONF)
    run = launch_on(device)
    assert resolver_file(device).startswith(f"nameserver {NAME_SERVER}\n")
    assert device.run("stat", "--format=%a", "/etc/resolv.conf").stdout == "644\n"
    assert device.run("getent", "hosts", NAME).stdout.startswith("198.51.100.80 ")
    assert run.end() == 0 and run.err.read_text() == ""
    assert resolver_file(device) == "nameserver 192.0.2.5\n"
    kill(launch_on(device))
    assert NAME_SERVER in resolver_file(device)
    device.run(BIN_DIR / "vantrel-launch", "--no-dns", "unix:/none", check=False)
    assert NAME_SERVER in resolver_file(device)
    device.run(BIN_DIR / "vantrel-launch", "unix:/none", check=False)
    assert resolver_file(device) == "nameserver 192.0.2.5\n"


def test_both_commands_and_their_picture(resolver, dns, web):  # noqa: F811
    """When the second says that there is a network, there is one; 5 s is the promise."""
    device = resolver("resolvconf", RESOLVCONF)
    commands = (["getent", "hosts", NAME],
                ["curl", "-sSo/dev/null", "-w%{http_code} from %{remote_ip}\n", f"http://{NAME}/9"])
    before, seconds = network_of(device), []
    # What is slow by chance is tried again.
    while min(seconds, default=5 * PATIENCE) >= 5 * PATIENCE and len(seconds) < 3:
        began = time.monotonic()
        run = Launch(device, dns=True, wait=False)
        run.wait_for(run.out, "network 7")
        answers = [device.run(*words).stdout for words in commands]
        seconds.append(time.monotonic() - began)
        assert run.end(signal.SIGINT) == 0 and network_of(device) == before
    assert min(seconds) < 5 * PATIENCE, seconds
    window = terminal.Window("<device>")
    window.type("device#", "vantrel-launch")
    said = [run.err.read_text(), run.out.read_text(), *answers]
    for text in said:
        window.print(text)
    terminal.draw(device.dir / "session.svg", [window, window])
    drawn = ["".join(text.itertext()) for text in
             ElementTree.parse(device.dir / "session.svg").iterfind(".//{*}text")]
    assert "started" in drawn and drawn.count("device# vantrel-launch") == 2
    assert "".join(drawn[2:len(drawn) // 2]) == "".join(said).replace("\n", "")


# At which of its own commands, or later, the launcher's companion is killed.
KILLS = {
    "at the network": ("ip", '*" add "*', "cannot connect unix:.*: Connection refused"),
    "at the resolver": ("resolvconf", "-a*", "the link ended"),
    "at the rules": ("iptables", "*oem_PROXY_TCP*", "the link ended"),
    "in the handshake": (None, "", "the link ended"),
    "with a stream": (None, "", "the link ended"),
    "idle": (None, "", "the link ended"),
}


def hook(device, name, words, step):
    """A part of a shell script: at |words| the victim is dead before it goes on."""
    return f"""case "{name} $*" in "{step} "{words})
  if read -r victim <{device.dir}/victim; then
    rm {device.dir}/victim; kill -KILL $victim; while [ -e /proc/$victim/exe ]; do :; done
  fi 2>/dev/null ;;
esac
"""


@pytest.mark.parametrize("moment", KILLS)
def test_a_companion_that_is_killed(resolver, remote, moment):
    step, pattern, words = KILLS[moment]
    device = resolver("resolvconf", RESOLVCONF)
    programs = device.dir / "programs"
    lines = {name: hook(device, name, pattern, step) for name in ("ip", "resolvconf", "iptables")}
    (programs / "resolvconf").write_text("#!/bin/sh\n" + lines["resolvconf"] + RESOLVCONF)
    (programs / "ip").write_text(f'#!/bin/sh\n{lines["ip"]}exec {shutil.which("ip")} "$@"\n')
    (programs / "ip").chmod(0o755)
    set_wrapper(device, lines["iptables"])
    before = network_of(device), resolver_file(device), standing_rules(device)

    def launch_and_kill(*options):
        companion = device.companion
        (device.dir / "victim").write_text(f"{companion.pid}\n" if step else "")
        if moment == "in the handshake":
            companion.send_signal(signal.SIGSTOP)
        run = Launch(device, *options, dns=True, wait=False)
        with contextlib.ExitStack() as stack:
            if not step:
                run.wait_for(run.out, "started" if moment == "in the handshake" else "network 7")
                app = stack.enter_context(device.connect(*REMOTE)) if "stream" in moment else None
                assert not app or app.recv(100) == b"over the link"
                companion.kill()
                if app:
                    stack.enter_context(pytest.raises(ConnectionResetError))
                    app.recv(1)
        companion.wait(10)
        return run

    run = launch_and_kill()
    assert run.process.wait(20) == (1 if step == "ip" else 0)
    assert re.search(words, run.err.read_text())
    assert (network_of(device), resolver_file(device), standing_rules(device)) == before
    device.start_companion()
    run = launch_and_kill("--restart")
    run.wait_for(run.err, "connecting again")
    assert re.search(words, run.err.read_text())
    assert (resolver_file(device), standing_rules(device)) == before[1:]

    def wait_for_another(path, text, act):
        count = path.read_text().count(text)
        act()
        wait_until(lambda: path.read_text().count(text) > count, text, 20)

    wait_for_another(run.out, "network 7", device.start_companion)
    assert reaches(device)
    wait_for_another(run.err, "connecting again", device.companion.kill)
    assert run.end(signal.SIGINT) == 128 + signal.SIGINT
    assert (network_of(device), resolver_file(device), standing_rules(device)) == before


def test_a_resolver_with_servers_for_each_interface(resolver):
    device = resolver("resolvectl", '#!/bin/sh\necho "$*" >>/run/calls\n')
    device.run("touch", "/run/systemd/resolve/io.systemd.Resolve")
    run = launch_on(device)
    # It asks for the way from the interface that it knows the server by.
    asked = device.run("ip", "route", "get", NAME_SERVER, "oif", "ifb0").stdout
    assert asked.startswith(f"local {NAME_SERVER} dev lo ")
    assert run.end() == 0
    assert device.run("cat", "/run/calls").stdout.splitlines() == [
        "revert ifb0", f"dns ifb0 {NAME_SERVER}", "domain ifb0 ~.", "revert ifb0"]


@pytest.mark.parametrize("fault, words", [
    ("mount -o remount,bind,ro /etc", "warning: names: resolvconf -a tun.vantrel .*"
     "Read-only file system; /etc/resolv.conf is as it was"),
    ("sed -i '2s/^/exec sleep 60;/' {}/programs/resolvconf",
     "warning: names: resolvconf .* did not end within 5 s"),
    ("rm {}/programs/resolvconf; ln -sf /run/gone /etc/resolv.conf",
     "warning: names: /etc/resolv.conf leads to /run/gone, which cannot be read: No such file"
     f'.*"nameserver {NAME_SERVER}"'),
    ("rm {}/programs/resolvconf; : >/etc/resolv.conf", "warning: names: .* no name server with"),
], ids=["read-only", "hangs", "dangling", "empty"])
def test_a_resolver_that_cannot_be_set(resolver, remote, fault, words):
    device = resolver("resolvconf", RESOLVCONF)
    device.run("sh", "-ec", fault.format(device.dir))
    before = network_of(device)
    run = launch_on(device, "--no-dns")
    assert run.end() == 0 and run.err.read_text() == ""
    run = launch_on(device, wait=False)
    run.wait_for(run.out, "network 7", seconds=20)
    assert re.search(words, run.err.read_text())
    assert reaches(device)
    assert run.end() == 0 and network_of(device) == before
