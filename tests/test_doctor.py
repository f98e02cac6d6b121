"""vantrelctl doctor: with each thing broken that it looks at, and with what helps."""

import http.server
import json
import socket
import threading

import pytest

from testbed.device import BROWSER_UID, set_wrapper
from testbed.processes import end_process
from testbed.programs import BIN_DIR, Launch, listening_companion
from testbed.servers import start_name_server
from testbed.waiting import wait_until

PAGE = ("198.51.100.80", 80)
ETH0 = ("ip link show eth0 || ip link add eth0 type ifb || ip link add eth0 type dummy; "
        "ip link set eth0 up; ")
NO_TPROXY = 'case "$*" in *TPROXY*) echo No such target >&2; exit 1;; esac'
WRAPPER = "/system/bin/iptables-wrapper-1.0"


def doctor(device, *options, uid=0):
    """{check: what was found}, of all of them."""
    result = device.run(BIN_DIR / "vantrelctl", "doctor", "--json", "--host", "server.test",
                        *options, uid=uid, check=False)
    found = {(line := json.loads(text))["check"]: line for text in result.stdout.splitlines()}
    assert len(found) == 21 and result.stderr == ""
    assert (result.returncode == 0) == all(line["held"] for line in found.values())
    return found


def faults(found):
    return {name for name, line in found.items() if line["held"] is False}


@pytest.fixture
def internet():
    """Of one page and its name; yields what ends one of them."""
    server = http.server.HTTPServer(PAGE, http.server.SimpleHTTPRequestHandler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    names = start_name_server("server.test")
    yield {"names": lambda: end_process(names), "page": server.shutdown}
    end_process(names)
    server.shutdown()
    server.server_close()


@pytest.fixture
def bare(make_device):
    device = make_device()
    device.run("ip", "route", "delete", "local", "default", "dev", "lo")
    device.run("ip", "link", "delete", "ifb0")
    device.run("mount", "--bind", device.dir / "resolv.conf", "/etc/resolv.conf", check=False)
    return device


@pytest.fixture
def running(bare):
    companion = listening_companion(bare, "--allow", "198.51.100.0/24", "--dns", "198.51.100.53")
    run = Launch(bare, "--protocol", "5", "--status-socket", "/run/status")
    run.wait_for(run.out, "network 7")
    yield run
    end_process(run.process)
    end_process(companion)


def test_a_device_on_which_one_thing_is_broken(running, internet, needs_root):
    device = running.device
    daemon = running.daemon()
    ifconfig = device.run("which", "ifconfig").stdout.strip()
    assert faults(doctor(device)) == set() and doctor(device)["owner"]["held"]
    text = device.run(BIN_DIR / "vantrelctl", "doctor", "--host", "server.test").stdout
    assert "\nok    name            server.test is 198.51.100.80\n" in text
    assert "rights" in faults(doctor(device, uid=BROWSER_UID))
    # What breaks it, which checks tell, and what mends it unless they say so.
    for breaks, told, mends in (
            (f"mv {WRAPPER} /run", {"wrapper"}, f"mv /run/iptables-wrapper-1.0 {WRAPPER}"),
            (f"mount --bind /etc/passwd {ifconfig}", {"programs"}, f"umount {ifconfig}"),
            ("ip link set ifb0 down", {"interface"}, None),
            ("ip rule delete priority 40000", {"route", "name server", "name"}, None),
            (ETH0 + "ip route add default dev eth0",
             {"route", "default routes", "name server", "name"}, None),
            (ETH0 + "ip -6 route add default dev eth0", {"IPv6"}, None),
            ("iptables-legacy -t nat -D OUTPUT -o lo -p tcp -j oem_PROXY_TCP",
             {"rules", "connection"},
             "iptables-legacy -t nat -A OUTPUT -o lo -p tcp -j oem_PROXY_TCP"),
            (f"prlimit --pid={daemon} --nofile=100:", {"descriptors"},
             f"prlimit --pid={daemon} --nofile=20000:"),
            ("echo ro.debuggable=true >/system/build.prop", {"control port"},
             "echo ro.debuggable=false >/system/build.prop"),
            (": >/etc/resolv.conf", {"name server", "name"}, None)):
        device.run("sh", "-ec", breaks)
        found = doctor(device)
        assert faults(found) == told, breaks
        wrong = [line for line in found.values() if line["held"] is False]
        command = mends or wrong[0]["command"]
        device.run("sh", "-ec", f"PATH={BIN_DIR}:$PATH; {command}")
        assert faults(doctor(device)) == set(), command
    set_wrapper(device, NO_TPROXY)
    assert doctor(device)["packet filter"]["command"] == "modprobe xt_TPROXY"
    set_wrapper(device, "")
    internet["page"]()
    assert faults(doctor(device)) == {"connection"}
    internet["names"]()
    assert faults(doctor(device)) == {"name"}


def test_an_owner_that_the_companion_was_not_told(running, internet):
    """The daemon's log names what it told; it has a line of somebody else here."""
    device = running.device
    log = device.dir / "another.log"
    log.touch()
    answer = {}
    asking = threading.Thread(target=lambda: answer.update(doctor(device, "--log", log)))
    asking.start()
    wait_until(lambda: "198.51.100.80:80 (uid=0)" in running.log.read_text(), "the connection")
    log.write_text(running.log.read_text().replace("80:80 (uid=0)", "80:80 (uid=10124)"))
    asking.join()
    assert faults(answer) == {"owner"} and "UID 10124 and not 0" in answer["owner"]["text"]


def test_a_device_without_a_daemon(bare):
    assert faults(doctor(bare)) == {"launcher"}
    away = Launch(bare, "--restart", link="away", wait=False)
    away.wait_for(away.err, "connecting again")
    found = doctor(bare)
    assert faults(found) == {"launcher", "link"}
    assert "waits for its link" in found["launcher"]["text"]
    away.process.kill()
    away.process.wait()
    bare.run("iptables-legacy", "-t", "nat", "-N", "oem_PROXY_TCP")
    found = doctor(bare)
    assert faults(found) == {"launcher", "route", "rules"}
    for check in "route", "rules":
        bare.run("sh", "-ec", f"PATH={BIN_DIR}:$PATH; {found[check]['command']}")
    taken = bare.socket(socket.SOCK_DGRAM, bind=("127.0.0.1", 2374))
    assert faults(doctor(bare)) == {"launcher", "control port"}
    taken.close()
    bare.run("sh", "-ec", "mkdir -p /run/bluetooth; mount --bind /run/bluetooth /var/lib; "
             "mkdir -p /var/lib/bluetooth/00:00:00:00:00:01/01:23:45:67:89:AB")
    bluetooth = "--link", "rfcomm:01:23:45:67:89:AB/5"
    found = doctor(bare, *bluetooth)
    assert found["pairing"]["command"] == "bluetoothctl pair 01:23:45:67:89:AB"
    assert found["adapter"]["held"] is False  # there is none in this network
    bare.run("sh", "-c", "cd /var/lib/bluetooth/*/*; echo '[LinkKey]' >info")
    assert doctor(bare, *bluetooth)["pairing"]["held"]
    bare.run("sh", "-ec", "mkdir /run/etc; cp /etc/passwd /etc/group /run/etc; "
             "mount --bind /run/etc /etc; ln -s /run/gone /etc/resolv.conf")
    found = doctor(bare, "--link", "unix:/run/none")
    assert faults(found) == {"launcher", "link", "name server"}
    assert "leads to /run/gone" in found["name server"]["text"]


def test_a_companion_that_says_nothing(bare):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{bare.dir}/silent")
        listener.listen()
        run = Launch(bare, "--status-socket", "/run/status", link="silent")
        found = doctor(bare)
        assert faults(found) >= {"protocol"}
        assert found["protocol"]["command"] == "vantrel-companion --protocol 20"
    run.process.wait(20)
