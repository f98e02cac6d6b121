"""Datagrams in both directions."""

import socket

from .. import message as m
from ..device import APPLICATION
from ..outcome import Warned, expect
from ..registry import check
from ..servers import answer_dns, dns_query, echo_datagram, unused_endpoint
from .streams import pattern

SECTION = "Datagrams"
ENDPOINTS = "Answers carry the endpoints of the request, in the same fields."
OTHER_APPLICATION = (APPLICATION[0], 40001)
REMOTES = 40
AT_ONCE = 8  # small enough for what a companion may hold for a slow link


def _send(env, device, remote, payload, local=APPLICATION):
    device.send(env.codec.datagram(local, remote, payload))


def _answers(device):
    """(local, remote, payload) each; no local in the form without an application."""
    return [(message.fields.get("local"), message.fields["remote"], message.payload)
            for message in device.of_kind(m.DATAGRAM)]


def _local(env, local=APPLICATION):
    return None if env.protocol == 1 else local


def _wait_answers(device, count):
    device.wait(lambda: len(_answers(device)) >= count, f"datagram {count} at the device")
    return _answers(device)


def _check_echo(env, device, server, payload):
    """One datagram there and back; each is asked for alone, so none may be lost."""
    before = len(_answers(device))
    _send(env, device, server.endpoint, payload)
    local, remote, got = _wait_answers(device, before + 1)[before]
    expect((local, remote) == (_local(env), server.endpoint),
           f"an answer from {m.in_words(remote)} to {m.in_words(local)}")
    expect(got == payload, f"{len(payload)} bytes sent, others came back ({len(got)})")


@check(SECTION, ENDPOINTS)
def datagram_echo(env):
    device, server = env.device(), env.udp_server(echo_datagram)
    for turn in range(5):
        _check_echo(env, device, server, b"datagram %d" % turn)
    expect(len({sender for _, sender in server.received}) == 1,
           "one flow comes from several ports: the server takes it for several clients")


@check((SECTION, "Frames"), "All sizes arrive whole, up to the limit of the link and of UDP.")
def datagram_sizes(env):
    device, server = env.device(), env.udp_server(echo_datagram)
    for size in (1, 2, 512, 1472, 1473, 9000, env.codec.max_datagram):
        _check_echo(env, device, server, pattern(size))


@check(("Messages", "Frames"), "A payload may have 0 bytes.")
def datagram_empty(env):
    device, server = env.device(), env.udp_server(echo_datagram)
    _check_echo(env, device, server, b"")


@check((SECTION, "Frames"), "What the link cannot carry is lost, as in any network: the link "
       "goes on.")
def datagram_too_large(env):
    device = env.device()
    if env.protocol == 20:
        # The request is small, its answer fits no frame.
        server = env.udp_server(lambda payload: [bytes(env.codec.max_datagram + 1), payload])
        _check_echo(env, device, server, b"small")
    else:
        # The message can carry what UDP cannot.
        server = env.udp_server(echo_datagram)
        _send(env, device, server.endpoint, bytes(env.codec.max_payload))
        _check_echo(env, device, server, b"small")
        expect(len(server.received) == 1, "a datagram that cannot have been sent whole")
    device.probe()


@check(SECTION, "An application may ask several remotes, and several applications may ask one.")
def datagram_flows(env):
    device = env.device()
    servers = [env.udp_server(echo_datagram) for _ in range(2)]
    locals_ = [APPLICATION] if env.protocol == 1 else [APPLICATION, OTHER_APPLICATION]
    flows = [(local, server.endpoint) for local in locals_ for server in servers] * 3
    for count, (local, remote) in enumerate(flows, 1):
        _send(env, device, remote, b"%d" % count, local)
        got = _wait_answers(device, count)[-1]
        asked = f"{m.in_words(local)} asked {m.in_words(remote)}"
        expect(got == (_local(env, local), remote, b"%d" % count),
               f"{asked}, and {m.in_words(got[0])} has an answer from {m.in_words(got[1])}")


@check(SECTION, "An answer may come late, or several, or none.")
def datagram_answers(env):
    device = env.device()
    server = env.udp_server(lambda payload: [payload + b"1", payload + b"2", payload + b"3"])
    _send(env, device, server.endpoint, b"answer ")
    got = _wait_answers(device, 3)
    expect(sorted(answer[2] for answer in got) == [b"answer 1", b"answer 2", b"answer 3"],
           "not the three answers")
    server.sock.sendto(b"late", server.received[0][1])
    expect(_wait_answers(device, 4)[3][1:] == (server.endpoint, b"late"), "not the late answer")


@check(SECTION, "An answer names the remote that sent it; only one that was written to may "
       "answer.")
def datagram_stranger(env):
    device, server, stranger = env.device(), env.udp_server(), env.udp_server()
    _send(env, device, server.endpoint, b"question")
    env.wait(lambda: server.received, "the datagram at its server")
    client = server.received[0][1]
    stranger.sock.sendto(b"forged", client)
    server.sock.sendto(b"answer", client)
    device.wait(lambda: b"answer" in [answer[2] for answer in _answers(device)],
                "answer of the server")
    expect((_local(env), server.endpoint, b"forged") not in _answers(device),
           "the datagram of a stranger came in the name of the server")


@check(SECTION, "A failed datagram is reported with its endpoints; the payload is the request.")
def datagram_failure(env):
    device = env.device()
    remote = unused_endpoint(env.address, socket.SOCK_DGRAM)
    request = dns_query(0x4242)
    _send(env, device, remote, request)
    if not env.loop.wait(lambda: device.of_kind(m.FAILURE) or device.link.ended, 2):
        device.probe()
        raise Warned("nothing reports that nobody listens there: names are looked up in vain "
                     "until the application gives up")
    failure = device.wait_message(m.FAILURE)
    expect(failure.fields["remote"] == remote, "the failure names another remote")
    expect(failure.fields.get("local") == _local(env), "the failure names another application")
    expect(failure.payload == request, "the payload of the failure is not the request")
    device.probe()


@check(SECTION, "Look-ups of names are datagrams like others.")
def datagram_dns(env):
    device, server = env.device(), env.udp_server(answer_dns)
    for query_id in (1, 0xFFFF):
        query = dns_query(query_id)
        before = len(_answers(device))
        _send(env, device, server.endpoint, query)
        got = _wait_answers(device, before + 1)[before]
        expect(got[2] == answer_dns(query)[0], "another answer than the server's")


@check(SECTION, f"The device remembers many remotes ({REMOTES} here), and each answers in its "
       "own name.")
def datagram_many_remotes(env):
    device = env.device()
    servers = [env.udp_server(echo_datagram) for _ in range(REMOTES)]
    for number, server in enumerate(servers):
        _send(env, device, server.endpoint, b"%d" % number)
        if (number + 1) % AT_ONCE == 0:
            _wait_answers(device, number + 1)
    expected = {(_local(env), server.endpoint, b"%d" % number)
                for number, server in enumerate(servers)}
    expect(set(_answers(device)) == expected, "answers in the name of other remotes")
