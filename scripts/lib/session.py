#!/usr/bin/python3
"""session.py LOG_DIR BIN_DIR WORKING_DIR WORD... -- COMMAND...: on a device, starts
vantrel-launch with WORDs, the last of which is the link, runs COMMAND, stops the
daemon. Ends with COMMAND's exit status, or 125 when the daemon did not start.

Meant to be the first process of its own process namespace: whatever COMMAND
left running ends with it.
"""

import os
import signal
import subprocess
import sys
import time

NOT_STARTED = 125
FORWARDED = signal.SIGTERM, signal.SIGHUP


def wait_for_start(launcher, status_file):
    for _ in range(200):
        with open(status_file) as status:
            if "started\n" in status:
                return True
        if launcher.poll() is not None:
            return False
        time.sleep(0.05)
    return False


def run(command, working_dir):
    """The terminal's Ctrl-C reaches |command| itself; the rest is passed on."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    os.chdir(working_dir if os.path.isdir(working_dir) else "/")
    # A signal that comes while |command| starts waits until it can be passed on.
    signal.pthread_sigmask(signal.SIG_BLOCK, FORWARDED)

    def be_ordinary():
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, FORWARDED)

    try:
        child = subprocess.Popen(command, preexec_fn=be_ordinary)
    except OSError as error:
        print(f"sandbox: {command[0]}: {error.strerror}", file=sys.stderr)
        return 127
    for signum in FORWARDED:
        signal.signal(signum, lambda number, _: child.send_signal(number))
    signal.pthread_sigmask(signal.SIG_UNBLOCK, FORWARDED)
    status = child.wait()
    return status if status >= 0 else 128 - status


def main():
    log_dir, bin_dir, working_dir, *words = sys.argv[1:]
    end = words.index("--")
    words, command = words[:end], words[end + 1:]
    for signum in FORWARDED:
        signal.signal(signum, lambda number, _: sys.exit(128 + number))
    signal.signal(signal.SIGINT, lambda number, _: sys.exit(128 + number))
    status_file, launch_log = f"{log_dir}/status.txt", f"{log_dir}/launch.log"
    with open(status_file, "w") as status, open(launch_log, "w") as log:
        # A session of its own: the terminal's signals are for COMMAND, and the
        # daemon is stopped in order afterwards.
        launcher = subprocess.Popen(
            [f"{bin_dir}/vantrel-launch", "--daemon", f"{bin_dir}/vantrel",
             "--status-socket", "/run/vantrel.status", "--no-network", "--no-dns", *words],
            stdin=subprocess.DEVNULL, stdout=status, stderr=log,
            start_new_session=True,
            env={**os.environ, "VANTREL_LOG_FILE": f"{log_dir}/daemon.log"})
    if not wait_for_start(launcher, status_file):
        print("sandbox: the daemon did not start:", file=sys.stderr)
        for path in launch_log, status_file:
            with open(path) as text:
                sys.stderr.write(text.read())
        return NOT_STARTED
    result = run(command, working_dir)
    # The end is bounded, and not to be cut short.
    for signum in FORWARDED:
        signal.signal(signum, signal.SIG_IGN)
    launcher.terminate()
    launcher.wait()
    return result


sys.exit(main())
