"""UDP over the link with a scripted companion."""

import signal
import socket

from testbed import wire
from testbed.device import DEVICE_ADDRESS
from testbed.programs import Daemon
from testbed.waiting import wait_until


# From 192.168.167.239:5000 to 198.51.100.53:53, written out by hand.
SEND = ("08 0A  {checksum}  8A 0D 15"
        "  0A 09 0A 04 C0 A8 A7 EF 10 88 27  12 08 0A 04 C6 33 64 35 10 35")
# A query for the address of a.test, with id 1234 and recursion desired.
QUERY = bytes.fromhex("1234 0100 0001 0000 0000 0000"
                      "01 61 04 74657374 00 0001 0001".replace(" ", ""))


def udp_app(device, port):
    return device.socket(socket.SOCK_DGRAM, bind=("", port))


def addresses(app_port, remote, remote_port):
    return ((1, wire.endpoint(DEVICE_ADDRESS, app_port)),
            (2, wire.endpoint(remote, remote_port)))


def test_the_bytes_of_a_datagram_and_its_answer(device, connected):
    companion = connected.companion
    app = udp_app(device, 5000)
    app.sendto(b"123456789", ("198.51.100.53", 53))
    sent = wire.frame(bytes.fromhex(SEND.format(checksum="10 83 A5 9A 98 0E")),
                      b"123456789")
    assert companion.receive().raw == sent
    companion.sock.sendall(sent)  # an answer has both endpoints as they were
    assert app.recvfrom(100) == (b"123456789", ("198.51.100.53", 53))

    # A connected socket takes answers from its own remote only.
    app.connect(("198.51.100.54", 4000))
    app.send(bytes(16384))
    largest = companion.expect(wire.UDP_SEND)
    assert largest.payload == bytes(16384)
    app.send(b"")
    assert companion.expect(wire.UDP_SEND).payload == b""
    companion.send(wire.UDP_SEND, *addresses(5000, "198.51.100.53", 53), payload=b"no")
    companion.send(wire.UDP_SEND, *addresses(5000, "198.51.100.54", 4000), payload=b"yes")
    assert app.recv(100) == b"yes"


def test_failures(device, connected):
    companion = connected.companion
    app = udp_app(device, 5000)
    for remote_port, request, answer in [
            (53, QUERY, bytes.fromhex("12348105") + QUERY[4:]),
            (53, QUERY[:12], bytes.fromhex("12348105") + QUERY[4:12]),
            (53, QUERY[:11], None),
            (5353, QUERY, None)]:
        app.sendto(request, ("198.51.100.53", remote_port))
        assert companion.expect(wire.UDP_SEND).payload == request
        flow = addresses(5000, "198.51.100.53", remote_port)
        companion.send(wire.UDP_FAILURE, *flow, payload=request)
        if answer:
            assert app.recvfrom(100) == (answer, ("198.51.100.53", remote_port))
        companion.send(wire.UDP_SEND, *flow, payload=b"next")
        assert app.recv(100) == b"next"  # and nothing came before it


def test_names_are_logged(device, connected):
    udp_app(device, 5000).sendto(QUERY, ("198.51.100.53", 53))
    connected.companion.expect(wire.UDP_SEND)
    lines = [line for line in connected.log() if "[D:1234]" in line]
    assert len(lines) == 1 and "a.test" in lines[0]


def test_answers_reach_only_those_who_asked(make_device):
    """Otherwise the companion could talk to every service of the device."""
    device = make_device(debuggable=True)
    daemon = Daemon(device)
    companion = daemon.companion
    companion.shake_hands()
    daemon.ports()
    app = udp_app(device, 5000)
    app.sendto(b"x", ("198.51.100.53", 4000))
    companion.expect(wire.UDP_SEND)
    control = ((1, wire.endpoint("127.0.0.1", 2374)),
               (2, wire.endpoint("198.51.100.53", 4000)))
    companion.send(wire.UDP_SEND, *control, payload=b"\1")
    companion.send(wire.UDP_FAILURE, *control, payload=b"\1")
    companion.send(wire.UDP_SEND, *addresses(5000, "198.51.100.53", 4000), payload=b"yes")
    assert app.recv(100) == b"yes"
    flow = "packet from 198.51.100.53:4000 to 127.0.0.1:2374: evicted"
    assert [line for line in daemon.log() if line.startswith("W ")] == [
        f"W [B] Dropping v2 {flow}", f"W [B] Dropping failed {flow}"]
    daemon.close()  # it has not been stopped


def test_a_flood_is_dropped_and_others_go_on(make_device):
    """What waits for a slow link is bounded, and the log with it. Streams and small
    datagrams of others find room beside it."""
    device = make_device()
    daemon = Daemon(device, link_buffer=16384)
    daemon.companion.shake_hands()
    daemon.ports()
    app, look_up = udp_app(device, 5000), udp_app(device, 5001)
    drop = "W [B] Dropping datagrams: "

    def flooded():  # nobody reads a byte of it
        app.sendto(bytes(1400), ("198.51.100.53", 4000))
        return any(line.startswith(drop) for line in daemon.log())

    wait_until(flooded, "the drop")
    look_up.sendto(b"name", ("198.51.100.53", 53))
    with device.connect("198.51.100.7", 80) as stream:
        stream.sendall(b"written")
    frames = []
    while not frames or frames[-1].kind != wire.TCP_CLOSE:
        frames.append(daemon.companion.receive())
    flood = [frame.raw for frame in frames if len(frame.payload) == 1400]
    assert 60000 < sum(map(len, flood)) < 65536 + 2 * 16384  # with what the kernel holds
    others = [(frame.kind, frame.payload) for frame in frames if frame.raw not in flood]
    others.remove((wire.UDP_SEND, b"name"))  # whichever of the two the daemon has read first
    assert others == [(wire.TCP_CONNECT, b""), (wire.PACKAGE_NAMES, b""),
                      (wire.TCP_WRITE, b"written"), (wire.TCP_CLOSE, b"")]
    app.sendto(b"later", ("198.51.100.53", 4000))
    assert daemon.companion.expect(wire.UDP_SEND).payload == b"later"
    assert sum(line.startswith(drop) for line in daemon.log()) < 10
    daemon.close()


def test_a_burst_waits_in_the_socket(device, connected):
    """While the daemon is kept from its work, an application may send a lot."""
    app = udp_app(device, 5000)
    connected.process.send_signal(signal.SIGSTOP)
    for number in range(1000):
        app.sendto(b"%d" % number, ("198.51.100.53", 53))
    connected.process.send_signal(signal.SIGCONT)
    for number in range(1000):
        assert connected.companion.expect(wire.UDP_SEND).payload == b"%d" % number


def test_the_65th_remote_takes_the_place_of_the_first(device, connected):
    companion = connected.companion
    app = udp_app(device, 5000)
    for n in range(65):
        app.sendto(b"x", (f"198.51.100.{n + 1}", 4000))
        companion.expect(wire.UDP_SEND)
    companion.send(wire.UDP_SEND, *addresses(5000, "198.51.100.1", 4000), payload=b"no")
    companion.send(wire.UDP_FAILURE, *addresses(5000, "198.51.100.1", 4000), payload=b"")
    companion.send(wire.UDP_SEND, *addresses(5000, "198.51.100.2", 4000), payload=b"yes")
    assert app.recvfrom(100) == (b"yes", ("198.51.100.2", 4000))
    flow = f"packet from 198.51.100.1:4000 to {DEVICE_ADDRESS}:5000: evicted"
    assert [line for line in connected.log() if line.startswith("W ")] == [
        f"W [B] Dropping v2 {flow}", f"W [B] Dropping failed {flow}"]
