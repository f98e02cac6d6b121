"""What one check has: links, servers, the time that an answer may take."""

import time

from . import codec_v1, codec_v2, servers
from .device import Device
from .loop import Loop
from .outcome import Failed
from .trace import Trace


class LinkSource:
    """Where links come from: by connecting, or by waiting for the companion."""

    def __init__(self, address, listens, seconds):
        self.address = address
        self._seconds = seconds
        self._listener = address.listen() if listens else None

    def open(self):
        """A connected socket. A companion that has one link only may need a moment
        to be ready for the next one."""
        deadline = time.monotonic() + self._seconds
        while True:
            left = deadline - time.monotonic()
            try:
                if self._listener:
                    self._listener.settimeout(max(left, 0.01))
                    return self._listener.accept()[0]
                return self.address.connect(max(left, 0.01))
            except OSError as error:
                if left <= 0.1:
                    raise LinkRefused(f"no link over {self.address}: "
                                      f"{error.strerror or error}") from None
                time.sleep(0.05)

    def close(self):
        if self._listener:
            self._listener.close()


class LinkRefused(Failed):
    """There is no connection at all."""


class Environment:
    def __init__(self, protocol, link_source, options):
        self.protocol = protocol
        self.codec = codec_v2.Codec() if protocol == 20 else codec_v1.Codec(protocol)
        self.timeout = options.timeout
        self.address = options.server_address
        self.pid = options.pid
        self.loop = Loop()
        self.trace = Trace()
        self.devices = []
        self._has_header = options.header
        self._link_source = link_source
        self._servers = []
        self._echo = None

    def open_link(self):
        """A device on a new link, before the handshake."""
        sock = self._link_source.open()
        self.trace.note("a new link")
        if self._has_header:
            self._take_header(sock)
        self.devices.append(Device(self, sock))
        return self.devices[-1]

    def device(self):
        """A device on a new link, after the handshake."""
        return self.open_link().shake_hands()

    def _take_header(self, sock):
        header = b""
        sock.settimeout(self.timeout)
        while len(header) < 24:
            piece = sock.recv(24 - len(header))
            if not piece:
                raise Failed("the link ended before the connection header was complete")
            header += piece
        if header[16:20] != bytes(4):
            raise Failed(f"the connection header has the status {header[16:20].hex()}")

    def _keep(self, server):
        self._servers.append(server)
        return server

    def server(self, serve=None, **options):
        return self._keep(servers.TcpServer(self.loop, self.address, serve, **options))

    def silent_server(self):
        return self._keep(servers.SilentServer(self.address))

    def udp_server(self, answer=None):
        return self._keep(servers.UdpServer(self.loop, self.address, answer))

    @property
    def echo_endpoint(self):
        if not self._echo:
            self._echo = self.server(servers.echo)
        return self._echo.endpoint

    def wait(self, condition, what):
        """As Device.wait(), for what happens at the servers."""
        if not self.loop.wait(condition, self.timeout):
            has_ended = self.devices and self.devices[-1].link.ended
            raise Failed(f"{what}: not within {self.timeout:g} s" +
                         (", and the link has ended" if has_ended else ""))

    def accept(self, server, count=1):
        """The |count|th connection to a server."""
        self.wait(lambda: len(server.peers) >= count, "a connection from the companion")
        return server.peers[count - 1]

    def check_next_link(self):
        """Whatever has happened to one link, the next one is as good as new."""
        try:
            self.device().probe()
        except Failed as failure:
            raise Failed(f"the next link does not work: {failure}") from None

    def verify(self):
        """What has to hold in every check."""
        for device in self.devices:
            if device.faults:
                raise Failed(device.faults[0])

    def close(self):
        for device in self.devices:
            device.link.close()
        for server in self._servers:
            server.close()
