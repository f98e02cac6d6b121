"""The end of a link, and the next one."""

from .. import message as m
from ..outcome import Skipped, expect
from ..registry import check
from ..servers import source

LINKS = 5


def _open_two(env):
    """A device with a busy and an idle stream, and the two remotes."""
    device, idle, busy = env.device(), env.server(), env.server(source)
    device.connect(idle.endpoint)
    stream = device.connect(busy.endpoint)
    device.wait(lambda: stream.received, "bytes of the server")
    return device, env.accept(idle), env.accept(busy)


@check(("Errors", "Errors"), "The device ends the link by closing it. What belongs to the link "
       "ends with it, and the next link begins anew.")
def device_ends(env):
    device, *peers = _open_two(env)
    device.link.end_writing()
    env.wait(lambda: device.link.ended, "the end of a link that the device has ended")
    for peer in peers:
        env.wait(lambda: peer.ended, "the end of a remote's connection")
    env.check_next_link()


@check(("Errors", "Errors"), "A device may vanish in the middle of a message. What belongs to the "
       "link ends with it, and the next link begins anew.")
def device_vanishes(env):
    for _ in range(2):
        device, *peers = _open_two(env)
        device.send(env.codec.data(1, b"never whole")[:-4], "a part of a message")
        device.link.reset()
        for peer in peers:
            env.wait(lambda: peer.ended, "the end of a remote's connection")
        env.check_next_link()


@check(("Messages", "Frames"), "A link that says nothing and goes is no fault.")
def device_says_nothing(env):
    for _ in range(2):
        env.open_link().link.close()
    device = env.open_link()
    device.link.end_writing()
    env.wait(lambda: device.link.ended, "the end of a link that the device has ended")
    env.check_next_link()


@check(("Messages", "Handshake"), "Links come one after the other; the ids of streams begin anew.")
def connect_again(env):
    server = env.server()
    for count in range(1, LINKS + 1):
        device = env.device()
        stream = device.connect(server.endpoint)
        peer = env.accept(server, count)
        stream.write(b"link %d" % count)
        stream.wait_acks()
        device.wait(lambda: peer.received == b"link %d" % count, "the bytes at the server")
        device.link.close()
        env.wait(lambda: peer.ended, "the end of a remote's connection")


@check(("Errors", "Messages"), "TEARDOWN says why the companion ends the link; it is the last "
       "message.", (20,))
def teardown(env):
    device = env.device()
    # The one thing after which no companion can go on.
    device.send(b"no frame" + bytes(20000), "bytes that are no frame")
    env.wait(lambda: device.link.ended, "the end of a link that cannot be decoded")
    if not device.of_kind(m.TEARDOWN):
        raise Skipped("the companion ends a link without a word")
    expect(device.messages[-1].kind == m.TEARDOWN, "a message behind the teardown")
    expect(device.messages[-1].fields.get("reason"), "a teardown without a reason")
