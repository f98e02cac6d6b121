"""What one check has: links, servers, the time that an answer may take."""

import time

from . import codec_v1, codec_v2, guess, rules, servers
from .device import Device
from .loop import Loop
from .outcome import Failed
from .trace import Trace, describe_undecoded


class LinkSource:
    """Where links come from: by connecting, or by waiting for the companion."""

    def __init__(self, address, listens, seconds):
        self.address = address
        self._seconds = seconds
        try:
            self._listener = address.listen() if listens else None
        except OSError as error:
            raise LinkRefused(f"cannot wait at {address}: {error.strerror}") from None

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
        self.has_server = True
        self.pid = options.pid
        self.loop = Loop()
        self.trace = Trace()
        self.devices = []
        self._has_header = options.header
        self._link_source = link_source
        self._servers = []
        self._echo = self._probe_server = None

    def open_link(self, codec=None):
        """A device on a new link, before the handshake; with |codec| one that speaks
        another protocol."""
        sock = self._link_source.open()
        self.trace.note("a new link")
        if self._has_header:
            self._take_header(sock)
        self.devices.append(Device(self, sock, codec or self.codec))
        return self.devices[-1]

    def device(self):
        """A device on a new link, after the handshake."""
        return self.open_link().shake_hands()

    def _take_header(self, sock):
        header, end = b"", time.monotonic() + self.timeout
        while len(header) < guess.HEADER_SIZE:
            sock.settimeout(max(end - time.monotonic(), 0.001))
            try:
                piece = sock.recv(guess.HEADER_SIZE - len(header))
            except TimeoutError:
                raise Failed(f"the connection header: {len(header)} of its "
                             f"{guess.HEADER_SIZE} bytes within {self.timeout:g} s",
                             rules.HEADER) from None
            if not piece:
                raise Failed("the link ended before the connection header was complete",
                             rules.HEADER)
            header += piece
        if header[16:20] != bytes(4):
            likeness = guess.likeness(header)
            raise Failed(f"the connection header has the status {header[16:20].hex()}" +
                         (f"; these bytes look like {likeness}" if likeness else ""),
                         rules.HEADER)

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

    @property
    def probe_server(self):
        """The echo server of Device.probe() alone, so that its connections count."""
        if not self._probe_server:
            self._probe_server = self.server(servers.echo)
        return self._probe_server

    def wait(self, condition, what):
        """As Device.wait(), for what happens at the servers."""
        if not self.loop.wait(condition, self.timeout):
            has_ended = self.devices and self.devices[-1].link.ended
            raise Failed(f"{what}: not within {self.timeout:g} s" +
                         (", and the link has ended" if has_ended else ""))

    def accept(self, server, count=1):
        """The |count|th connection to a server."""
        self.wait(lambda: len(server.peers) >= count or any(d.faults for d in self.devices),
                  "a connection from the companion")
        self.verify()
        return server.peers[count - 1]

    def check_next_link(self):
        """Whatever has happened to one link, the next one is as good as new."""
        try:
            self.device().probe()
        except Failed as failure:
            raise Failed(f"{failure}; so the next link does not work", failure.rule) from None

    def verify(self):
        """What has to hold in every check."""
        for device in self.devices:
            if device.faults:
                raise device.faults[0]

    def exchange(self):
        """Lines of the last messages of all links, and what is none yet."""
        return self.trace.lines() + [line for device in self.devices
                                     for line in describe_undecoded(device.decoder)]

    def close(self):
        for device in self.devices:
            device.link.close()
        for server in self._servers:
            server.close()
