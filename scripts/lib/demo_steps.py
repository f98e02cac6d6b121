"""demo_steps.py WORK PROTOCOL: the demonstration itself, to be run as root. Goes on in
namespaces of its own, and all that it starts ends with it. VANTREL_BIN_DIR says where the
programs are."""

import os
import pathlib
import re
import subprocess
import sys
import time
from hashlib import sha256

from testbed import internet
from testbed.device import BROWSER_UID, MAIL_UID, PACKAGES, Device, standing_rules
from testbed.internet import SERVER_ADDRESS
from testbed.programs import Launch, listening_companion
from testbed.servers import Servers, start_name_server
from testbed.waiting import wait_until

MIB = 1 << 20
NAME = "www.example.test"
GREETING = f"<p>Hello from {NAME}</p>"
# What a transfer has moved: payload, headers and requests.
MOVED = "%{size_header}+%{size_download} %{size_request}+%{size_upload}"


def total(sums):
    return sum(map(int, sums.split("+")))


def megabytes(rate):
    return f"{rate / 1e6:.1f} MB/s"


def tails(directory):
    """What each log has in the end, and what the launcher has said."""
    logs = [log for pattern in ("*.log", "device/*.log", "device/talk.txt")
            for log in sorted(directory.glob(pattern))]
    return "\n".join(line for log in logs for line in [
        f"==> {log} <==", *log.read_text(errors="replace").splitlines()[-20:]])


class Demonstration:
    def __init__(self, work, protocol):
        self.work, self.protocol = work, protocol
        self.has_failed = False
        self.moved = {}  # by UID: what its clients say they moved, down and up
        work.chmod(0o755)
        self._make_internet()
        self.device = Device(work / "device", packages={
            uid: PACKAGES[uid] for uid in (BROWSER_UID, MAIL_UID)})
        self._start_tunnel()

    def _make_internet(self):
        start_name_server(NAME)
        Servers(self.work).start("web")
        self.files = self.work / "web/files"
        (self.files / "index.html").write_text(GREETING + "\n")
        (self.files / "small.bin").write_bytes(os.urandom(MIB))
        (self.files / "down.bin").write_bytes(os.urandom(64 * MIB))

    def _start_tunnel(self):
        listening_companion(self.device, "--allow", internet.NETWORK, protocol=self.protocol)
        self.companion_log = self.device.dir / "companion.log"
        self.launch = Launch(self.device, "--protocol", self.protocol)
        wait_until(lambda: "link up" in self.companion_log.read_text(), "the link")

    def step(self, held, text):
        """One line of what is shown."""
        self.has_failed |= not held
        print(f"{'ok' if held else 'FAILED':6} {text}", flush=True)

    def curl(self, *arguments, uid=0, figure="size_download"):
        """(what it printed, |figure|) of one transfer or of many; all are counted."""
        run = self.device.run(
            "curl", "-sS", "--max-time", "50", "-w", f"%{{stderr}}\n%{{{figure}}} {MOVED}\n",
            *arguments, uid=uid, check=False)
        figures, counts = [0], self.moved.setdefault(uid, [0, 0])
        for found in re.findall(r"^([\d.]+) ([\d+]+) ([\d+]+)$", run.stderr, re.M):
            figures.append(float(found[0]))
            counts[0] += total(found[1])
            counts[1] += total(found[2])
        return run.stdout, figures[-1]

    def count_rules(self):
        return sum("oem_PROXY_" in rule for rule in standing_rules(self.device))

    def run(self):
        count = self.count_rules()
        self.step(count == 10, f"interception rules in place: {count} lines in the device's "
                  "packet filter")
        self.show_name()
        page, _ = self.curl(f"http://{NAME}/")
        self.step(GREETING in page, f"curl: http://{NAME}/ says: {page.strip()}")
        self.show_download()
        self.show_upload()
        self.show_fifty_at_once()
        self.show_application(BROWSER_UID)
        self.show_application(MAIL_UID)
        self.show_end()
        if self.protocol != "20":  # which keeps no statistics
            self.show_report()

    def show_name(self):
        answer = self.device.run("dig", "+tries=1", NAME, check=False).stdout
        addresses = " ".join(re.findall(r"\sA\s+(\S+)$", answer, re.M))
        took = "".join(re.findall(r"^;; Query time: (.*)", answer, re.M))
        self.step(addresses == SERVER_ADDRESS, f"dig: {NAME} is {addresses}, answered in {took}")

    def show_download(self):
        got = self.work / "down.bin"
        _, rate = self.curl("-o", got, f"http://{NAME}/down.bin", figure="speed_download")
        self.show_whole("64 MiB down", rate, got, self.files / "down.bin")

    def show_upload(self):
        given = self.work / "up.bin"
        given.write_bytes(os.urandom(16 * MIB))
        _, rate = self.curl("-o", "/dev/null", "-T", given, f"http://{NAME}/up/up.bin",
                            figure="speed_upload")
        self.show_whole("16 MiB up", rate, self.files / "up/up.bin", given)

    def show_whole(self, what, rate, got, given):
        data = got.read_bytes() if got.exists() else b""
        self.step(data == given.read_bytes(), f"{what} at {megabytes(rate)}, sha256 "
                  f"{sha256(data).hexdigest()[:16]}...")

    def show_fifty_at_once(self):
        directory = self.work / "many"
        directory.mkdir()
        begin = time.monotonic()
        self.curl("--parallel", "--parallel-immediate", "--parallel-max", "50", "-o",
                  directory / "#1", f"http://{NAME}/small.bin?[1-50]")
        took = time.monotonic() - begin
        small = (self.files / "small.bin").read_bytes()
        count = sum(path.read_bytes() == small for path in directory.iterdir())
        self.step(count == 50, f"50 downloads of 1 MiB at once: {count} whole in "
                  f"{took * 1e3:.0f} ms ({megabytes(50 * MIB / took)})")

    def show_application(self, uid):
        self.curl("-o", "/dev/null", f"http://{NAME}/small.bin", uid=uid)
        # A name is told once per UID, after the first stream; both lines may trail.
        named = f"uid {uid} is {PACKAGES[uid]}"
        wait_until(lambda: named in self.companion_log.read_text(), f"UID {uid} at the companion")
        seen = [line.split(": ", 1)[1] for line in self.companion_log.read_text().splitlines()
                if f"connect to {SERVER_ADDRESS}:80 (uid {uid}" in line]
        self.step(seen, f"an application with UID {uid}; the companion saw: "
                  f"{' '.join(seen[-1:])}, and that {named}")

    def show_end(self):
        status = self.launch.end()
        records = "; ".join(self.launch.out.read_text().splitlines())
        form = r"started; network 7.*stats: .*daemon ended: exit status 0"
        self.step(status == 0 and re.fullmatch(form, records), f"status records: {records}")
        count = self.count_rules()
        self.step(count == 0, f"interception rules gone: {count} lines left")

    def show_report(self):
        """It counts what crossed the link: what the clients moved, and on top the headers
        of messages and look-ups, a few percent at most."""
        records = self.launch.out.read_text()
        for uid, moved in self.moved.items():
            found = re.search(rf"uid {uid} [^;]*received (\d+) bytes, sent (\d+) bytes", records)
            is_near = found and all(least <= int(count) <= least * 1.02 + 4096
                                    for count, least in zip(found.groups(), moved))
            self.step(is_near, f"report: {found and found[0]}; its clients say {moved[0]} down, "
                      f"{moved[1]} up")


def main():
    work, protocol = pathlib.Path(sys.argv[1]), sys.argv[2]
    internet.enter()
    try:
        shown = Demonstration(work, protocol)
        shown.run()
    except (AssertionError, OSError, subprocess.SubprocessError) as error:
        print(f"FAILED {error}; see below\n{tails(work)}", file=sys.stderr)
        return 1
    if shown.has_failed:
        print(f"demo: not every step held\n{tails(work)}", file=sys.stderr)
    return 1 if shown.has_failed else 0


if __name__ == "__main__":
    sys.exit(main())
