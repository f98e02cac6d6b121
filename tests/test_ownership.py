"""Flows of several UIDs, which only root can make."""

import subprocess

import pytest

import wire
from bench import BROWSER_UID, MAIL_UID

pytestmark = pytest.mark.usefixtures("needs_root")


def test_every_stream_says_whose_it_is(device, connected):
    companion = connected.companion
    for uid, name in [(BROWSER_UID, b"com.example.browser"),
                      (MAIL_UID, b"com.example.mail"), (10999, b""),
                      (BROWSER_UID, None), (10999, None)]:
        app = subprocess.Popen(device.command(
            ["bash", "-c", "read -r </dev/tcp/198.51.100.7/80"], uid))
        connect = companion.expect(wire.TCP_CONNECT)
        assert connect.fields[3] == uid
        if name is not None:  # the first time only
            names = companion.expect(wire.PACKAGE_NAMES).fields
            assert wire.decode(names[1]) == {1: uid, 2: name}
        companion.send(wire.TCP_CLOSE, (1, connect.fields[1]))
        app.wait(10)
    log = connected.log()
    assert "E No packages for calling UID: 10999" in log
    assert any(line.startswith(
        "D [T:1] Establishing a new TCP stream to: 198.51.100.7:80 (uid=10123)"
        " (package=com.example.browser) (cookie=") for line in log)
