"""The beginning of a link."""

from .. import codec_v1, codec_v2
from .. import message as m
from ..device import APPLICATION
from ..outcome import Failed, Warned, expect
from ..registry import check
from ..servers import echo_datagram

SECTION = ("Handshake (`vantrel 5`)", "Handshake")


@check(SECTION, "The acknowledgement has the version of the device, and comes once.", (5, 20),
       needs_server=False)
def handshake(env):
    device = env.device()
    device.settle()
    expect(len(device.of_kind(m.HANDSHAKE_ACK)) == 1, "not one acknowledgement")


@check(SECTION, "The bytes of the handshake may come in any pieces.", (5, 20),
       needs_server=False)
def handshake_pieces(env):
    device = env.open_link()
    for byte in env.codec.handshake():
        device.send_piece(bytes([byte]), "a byte of the handshake")
    device.wait_handshake_ack()
    device.settle()


@check(SECTION, "The device does not wait for the acknowledgement: streams and datagrams may "
       "come right after the first message. Keep or serve them.", (5, 20))
def handshake_early_messages(env):
    device, server, udp = env.open_link(), env.server(), env.udp_server(echo_datagram)
    stream = device.adopt(1)
    device.send(env.codec.handshake() + env.codec.connect(1, server.endpoint) +
                env.codec.names((10123, b"com.example")) +
                env.codec.datagram(APPLICATION, udp.endpoint, b"early"))
    device.wait_handshake_ack()
    peer = env.accept(server)
    stream.write(b"question")
    device.wait(lambda: peer.received == b"question", "the question at the server")
    env.wait(lambda: udp.received, "the early datagram at its server")


@check(("Handshake (`vantrel 5`)", "Handshake"), "`vantrel 1` sends no handshake and waits for "
       "none: the first message opens a stream.", (1,))
def handshake_none(env):
    device, server = env.open_link(), env.server()
    device.connect(server.endpoint)
    env.accept(server)
    device.probe()


@check(SECTION, "An unknown version is refused by an acknowledgement of another version, or by "
       "the end of the link.", (5, 20))
def handshake_version(env):
    device = env.open_link()
    version = env.codec.handshake_version + 1
    device.send(env.codec.handshake(version))
    if not env.loop.wait(lambda: device.messages or device.link.ended, env.timeout):
        raise Failed("the companion neither answers nor ends the link")
    acks = device.of_kind(m.HANDSHAKE_ACK)
    expect(not acks or acks[0].fields["version"] != version,
           f"the companion accepts version {version}, which does not exist")
    if env.protocol == 20 and acks and acks[0].fields["version"] == codec_v2.HANDSHAKE_REFUSED:
        expect(acks[0].fields.get("error"), "a refusal without a reason in `error`")
    env.check_next_link()


@check(SECTION, "A device that was started with another protocol: end the link, or serve it if "
       "you speak that one, too.")
def handshake_other_protocol(env):
    other = codec_v1.Codec(5) if env.protocol == 20 else codec_v2.Codec()
    device = env.open_link(other)
    device.adopt(1)
    device.send(other.handshake() + other.connect(1, env.echo_endpoint),
                "the first messages of another protocol")

    def is_served():
        return [one for one in device.of_kind(m.HANDSHAKE_ACK)
                if one.fields["version"] == other.handshake_version]
    is_settled = env.loop.wait(lambda: device.link.ended or is_served(), min(env.timeout, 2))
    # What the companion says in its own protocol before it ends is no fault.
    device.faults.clear()
    device.link.close()
    env.check_next_link()
    if not is_settled:
        raise Warned("the link stays open, so nobody learns what is wrong")
