"""Processes: what they use, and how they are ended."""

import contextlib
import os
import pathlib
import resource
import shutil
import signal
import subprocess

from testbed.waiting import PATIENCE


class Missing(Exception):
    """A program is not installed; the text says which."""


def find_program(name):
    path = shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin")
    if not path:
        raise Missing(f"{name} is not installed")
    return path


def end_process(process, signum=signal.SIGTERM):
    """The exit status of one that ends at |signum|, and if not by itself yet."""
    if process.poll() is None:
        process.send_signal(signum)
    try:
        return process.wait(10 * PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise


def threads_of(pid):
    return [path.name for path in pathlib.Path(f"/proc/{pid}/task").iterdir()]


def with_children(pid):
    """|pid| and every process that it or one of those has started."""
    pids = [pid]
    with contextlib.suppress(OSError):
        for thread in threads_of(pid):
            children = pathlib.Path(f"/proc/{pid}/task/{thread}/children").read_text()
            for child in children.split():
                pids += with_children(int(child))
    return pids


def processor_seconds(pids):
    """Of threads that still live; what works here starts none for a moment only."""
    nanoseconds = 0
    for pid in pids:
        with contextlib.suppress(OSError):
            for thread in threads_of(pid):
                text = pathlib.Path(f"/proc/{pid}/task/{thread}/schedstat").read_text()
                nanoseconds += int(text.split()[0])
    return nanoseconds / 1e9


def resident_bytes(pids):
    return sum(int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1])
               for pid in pids) * resource.getpagesize()


def descriptors(pids):
    """What each open descriptor of these processes is, as /proc names it."""
    names = []
    for pid in pids:
        for path in pathlib.Path(f"/proc/{pid}/fd").iterdir():
            with contextlib.suppress(OSError):
                names.append(os.readlink(path))
    return names
