"""Ping, pull and push of protocols 1 and 5."""

from .. import codec_v1
from .. import message as m
from ..outcome import expect
from ..registry import V1, check

SECTION = "Measurements"
PUSH_CHUNK = b"a" * 65535


@check(SECTION, "PING_ECHO: send the five bytes back unchanged.", V1)
def ping(env):
    device = env.device()
    for count, value in enumerate((0, 0xFFFFFFFF, 0x01020304, 0x80000000), 1):
        device.send(codec_v1.encode("PING_ECHO", value))
        answer = device.wait_message(m.PING, count)
        expect(answer.fields["milliseconds"] == value, "another ping comes back")
    device.probe()
    expect(len(device.of_kind(m.PING)) == 4, "more answers than pings")


@check(SECTION, "PULL_REQUEST: send PULL_DATA with that request id until the sum of the lengths "
       "is the number asked for.", V1)
def pull(env):
    device = env.device()
    requests = {0: 1, 1: 65535, 2: 65536, 3: 300000, 4: 0}

    def sums():
        got = dict.fromkeys(requests, 0)
        for message in device.of_kind(m.PULL_DATA):
            number = message.fields["request"]
            got[number] = got.get(number, 0) + len(message.payload)
        return got

    for number in (0, 1, 2):  # one after the other, then two at once
        device.send(codec_v1.encode("PULL_REQUEST", number, requests[number]))
        device.wait(lambda: sums()[number] >= requests[number], f"the bytes of pull {number}")
    for number in (3, 4):
        device.send(codec_v1.encode("PULL_REQUEST", number, requests[number]))
    device.wait(lambda: sums()[3] >= requests[3], "the bytes of pull 3")
    device.probe()
    expect(sums() == requests, f"asked for {requests}, got {sums()}")


@check(SECTION, "PUSH_REQUEST announces PUSH_DATA messages with that id. Read and drop them. A "
       "push of 0 bytes is one empty PUSH_DATA.", V1)
def push(env):
    device = env.device()
    for number, size in enumerate((0, 1, len(PUSH_CHUNK), 3 * len(PUSH_CHUNK) + 100)):
        device.send(codec_v1.encode("PUSH_REQUEST", number, size))
        left = size
        while True:
            chunk = PUSH_CHUNK[:left]
            device.send(codec_v1.encode("PUSH_DATA", number, payload=chunk))
            left -= len(chunk)
            if left == 0:
                break
        device.probe()
