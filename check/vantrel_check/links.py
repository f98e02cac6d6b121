"""Opens links: unix:, tcp: and rfcomm:, by connecting or by waiting."""

import errno
import os
import re
import socket
import stat


class LinkError(Exception):
    """An address that cannot be read or used; the text says why."""


class LinkAddress:
    """unix:PATH (unix:@NAME for an abstract one), tcp:HOST:PORT, rfcomm:ADDRESS/CHANNEL;
    to wait for links at, rfcomm:CHANNEL."""

    def __init__(self, text, listens):
        self._text = text
        self.kind, _, rest = text.partition(":")
        if self.kind == "unix" and rest:
            self._family = socket.AF_UNIX
            self._where = "\0" + rest[1:] if rest[0] == "@" else rest
        elif self.kind == "tcp":
            self._parse_tcp(rest)
        elif self.kind == "rfcomm":
            self._parse_rfcomm(rest, listens)
        else:
            raise LinkError(f"not a link's address: '{text}' "
                            "(unix:PATH, tcp:HOST:PORT or rfcomm:ADDRESS/CHANNEL)")

    def _parse_tcp(self, rest):
        host, _, port = rest.rpartition(":")
        host = host[1:-1] if host[:1] + host[-1:] == "[]" else host
        if not host or not port.isdecimal() or int(port) > 65535:
            raise LinkError(f"not tcp:HOST:PORT: '{self._text}'")
        self._family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self._where = (host, int(port))

    def _parse_rfcomm(self, rest, listens):
        if not hasattr(socket, "AF_BLUETOOTH"):
            raise LinkError("rfcomm: this Python was built without Bluetooth sockets")
        address, channel = (socket.BDADDR_ANY, rest) if listens else rest.partition("/")[::2]
        is_address = re.fullmatch(r"([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}", address)
        if not is_address or not channel.isdecimal() or not 1 <= int(channel) <= 30:
            raise LinkError(f"not rfcomm:{'' if listens else 'ADDRESS/'}CHANNEL: '{self._text}'")
        self._family = socket.AF_BLUETOOTH
        self._where = (address, int(channel))

    def _socket(self):
        if self.kind != "rfcomm":
            return socket.socket(self._family)
        try:
            return socket.socket(self._family, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM)
        except OSError as error:
            if error.errno != errno.EAFNOSUPPORT:
                raise
            raise OSError(error.errno, "this kernel has no Bluetooth sockets") from None

    def connect(self, seconds):
        """A connected socket, or an OSError."""
        sock = self._socket()
        try:
            sock.settimeout(seconds)
            sock.connect(self._where)
        except OSError:
            sock.close()
            raise
        return sock

    def listen(self):
        """A socket that waits for links. A socket file left by an earlier run is replaced."""
        if self.kind == "unix" and self._where[0] != "\0" and _is_left_over(self._where):
            os.unlink(self._where)
        sock = self._socket()
        if self.kind == "tcp":
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(self._where)
        sock.listen(16)
        return sock

    def __str__(self):
        return self._text


def _is_left_over(path):
    """Whether |path| is a socket file on which nobody listens."""
    try:
        if not stat.S_ISSOCK(os.stat(path).st_mode):
            return False
        with socket.socket(socket.AF_UNIX) as probe:
            probe.connect(path)
    except ConnectionRefusedError:
        return True
    except OSError:
        return False
    return False
