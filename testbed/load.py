"""The load of measurements on a road: load.cc on its device."""

import subprocess

from testbed.processes import end_process
from testbed.servers import LOAD_PROGRAM


class Load:
    """What |road|'s device asks of the server, see load.cc. Its connections stand
    when it is made, unless to make them is part of the measurement."""

    def __init__(self, road, kind, **options):
        args = [LOAD_PROGRAM, kind, "--address", road.server[0], "--port", road.server[1]]
        for name, value in options.items():
            args += [f"--{name}"] if value is True else [f"--{name}", value]
        self.process = subprocess.Popen(
            road.device.command(args), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True)

        if self.process.stdout.readline() != "ready\n":
            errors = self.process.stderr.read()
            self.close()
            raise AssertionError(errors)

    def start(self):
        """From now on it works; what comes before is no part of a measurement."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def result(self, seconds):
        """What it prints at its end; ends it after |seconds|."""
        try:
            out, errors = self.process.communicate(timeout=seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise
        assert self.process.returncode == 0, errors
        return out

    def close(self):
        self.process.stdin.close()
        end_process(self.process)
        self.process.stdout.close()
        self.process.stderr.close()
