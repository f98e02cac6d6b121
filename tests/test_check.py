"""vantrel-check: companions that speak the protocol pass, each fault is found."""

import json
import re
import socket
import subprocess
import sys
import xml.etree.ElementTree
from concurrent.futures import ThreadPoolExecutor
from threading import Event, Thread
from types import SimpleNamespace

import pytest

from check.vantrel_check import checks  # noqa: F401 it registers them
from check.vantrel_check.environment import LinkSource
from check.vantrel_check.links import LinkAddress
from check.vantrel_check.registry import CHECKS, DOCUMENTS, RULES
from check.vantrel_check.runner import Runner
from testbed.processes import end_process
from testbed.programs import BIN_DIR, SOURCE_DIR, program_environment, sanitizer_reports
from testbed.waiting import wait_until
from tests.faulty_companion import FAULTS, PLAIN


CHECK = str(BIN_DIR / "vantrel-check")
ALL_BUT_FIGURES = "[!f]*"
OWN = [BIN_DIR / "vantrel-companion", "--allow", "127.0.0.0/8", "--network", "7"]


@pytest.fixture
def serve(tmp_path):
    """serve(*command) starts a companion and waits for its socket file."""
    running = []

    def start(path, *command):
        log = open(f"{path}.log", "wb")
        running.append(subprocess.Popen(command, stderr=log, cwd=SOURCE_DIR,
                                        env=program_environment(tmp_path)))
        wait_until(path.exists, "the companion")
        return running[-1]

    yield start
    for process in running:
        end_process(process)
    assert sanitizer_reports(tmp_path) == ""


def check(*arguments, wrapper=()):
    """(exit status, {check: record}) of one run."""
    run = subprocess.run([*wrapper, CHECK, "--json", *map(str, arguments)], capture_output=True,
                         text=True, timeout=100)
    records = [json.loads(line) for line in run.stdout.splitlines()]
    assert run.stderr == ""
    return run.returncode, {record["check"]: record for record in records if "check" in record}


def not_ok(results):
    return {name: record["reason"] for name, record in results.items()
            if record["result"] in ("fail", "warn")}


@pytest.mark.parametrize("protocol", [1, 5, 20])
def test_own_companion(serve, tmp_path, protocol):
    process = serve(tmp_path / "link", *OWN, "--protocol", str(protocol),
                    "--listen", f"unix:{tmp_path}/link", "--listen", "tcp:127.0.0.1:7700")
    for link, names in ((f"unix:{tmp_path}/link", "*"), ("tcp:127.0.0.1:7700", ALL_BUT_FIGURES)):
        status, results = check("--protocol", protocol, "--pid", process.pid, "--only", names,
                                "--junit", tmp_path / "junit.xml", link)
        assert (status, not_ok(results)) == (0, {})
        skipped = [record["reason"] for record in results.values() if record["result"] == "skip"]
        assert all(reason.startswith("only with protocol") for reason in skipped)
    suite = xml.etree.ElementTree.parse(tmp_path / "junit.xml").getroot()[0]
    assert (suite.get("failures"), suite.get("tests")) == ("0", str(len(results)))


def test_own_companion_recognises_each_protocol(serve, tmp_path):
    serve(tmp_path / "link", *OWN, "--listen", f"unix:{tmp_path}/link")
    status, results = check("--protocol", "all", f"unix:{tmp_path}/link", "--only",
                            ALL_BUT_FIGURES)
    assert (status, not_ok(results)) == (0, {})


def test_example_companion(serve, tmp_path):
    serve(tmp_path / "link", SOURCE_DIR / "examples/companion.py", f"unix:{tmp_path}/link")
    status, results = check(f"unix:{tmp_path}/link", "--only", ALL_BUT_FIGURES)
    assert (status, not_ok(results)) == (0, {})


def find(path, name):
    """What the check that is meant for a fault says to it."""
    protocol, meant, words, _ = FAULTS[name]
    options = SimpleNamespace(timeout=5, server_address="127.0.0.1", pid=None, header=False)
    source = LinkSource(LinkAddress(f"unix:{path}/{name}", False), False, 10)
    judge = next(one for one in CHECKS if one.name == meant)
    result = Runner(protocol, source, options).run(judge)
    said = f"{result.outcome} {result.reason} {result.document}"
    return "found" if re.search(f"^(FAIL|warn).*{words}", said) else said


def test_each_fault_is_found(serve, tmp_path):
    serve(tmp_path / "plain-1", sys.executable, "-B", "-m", "tests.faulty_companion", tmp_path)
    wait_until((tmp_path / list(FAULTS)[-1]).exists, "all of them")
    for name in PLAIN:  # which pass: it is the fault that is found
        status, results = check("--protocol", name[-1], f"unix:{tmp_path}/{name}", "--only",
                                ALL_BUT_FIGURES)
        assert (status, not_ok(results)) == (0, {})
    assert len(FAULTS) >= 30
    # Judged by their pace, so each has the scripted companion for itself.
    said = {name: find(tmp_path, name)
            for name in ("TakesAllOfTheRemote", "DropsWhenTheLinkIsFull")}
    floods = [name for name in FAULTS if name.startswith("Floods")]
    others = FAULTS.keys() - said.keys() - set(floods)
    with ThreadPoolExecutor(12) as pool:
        said.update(zip(others, pool.map(lambda name: find(tmp_path, name), others)))
    assert {name: text for name, text in said.items() if text != "found"} == {}
    for name in floods:  # within 300 MB, which they would fill
        _, meant, words, _ = FAULTS[name]
        status, results = check("--timeout", "5", f"unix:{tmp_path}/{name}", "--only", meant,
                                wrapper=["prlimit", "--as=300000000"])
        assert (status, len(results)) == (1, 1) and re.search(words, results[meant]["reason"])


def test_one_fault_is_told_once(serve, tmp_path):
    """Not by minutes of failures; a companion that refuses the servers, at once."""
    serve(tmp_path / "refusing", BIN_DIR / "vantrel-companion", "--listen",
          f"unix:{tmp_path}/refusing")
    status, results = check(f"unix:{tmp_path}/refusing")
    assert status == 1 and list(results)[0] == "reach-server"
    assert "refuses 127.0.0.1" in not_ok(results)["reach-server"]
    assert len(not_ok(results)) == 1 and results["handshake"]["result"] == "ok"
    serve(tmp_path / "plain-1", sys.executable, "-B", "-m", "tests.faulty_companion", tmp_path)
    link = f"unix:{tmp_path}/AcknowledgesNothing"
    wait_until((tmp_path / list(FAULTS)[-1]).exists, "all of them")
    arguments = ["--timeout", "0.5", link, "--only", "stream-[eiosu]*"]
    text = subprocess.run([CHECK, *arguments], capture_output=True, text=True, timeout=100).stdout
    assert text.count('"Streams": Credit: send one') == 5
    assert re.search("FAIL stream-.* as stream-", text)
    status, results = check(*arguments, "--fail-fast")
    assert status == 1 and list(not_ok(results)) == list(results)[-1:]


def test_a_companion_that_connects_by_itself(tmp_path):
    """And one that sends the connection header."""
    path, links, is_over = tmp_path / "link", [], Event()

    def connect_again():
        while not is_over.wait(0.01):
            with socket.socket(socket.AF_UNIX) as link:
                if link.connect_ex(str(path)) != 0:  # the checker begins
                    continue
                links.append(subprocess.run([*OWN, "--header", "--fd", str(link.fileno())],
                                            pass_fds=[link.fileno()], capture_output=True))

    companion = Thread(target=connect_again)
    companion.start()
    status, results = check("--listen", "--header", f"unix:{path}", "--only", "hand*", "stream-o*")
    is_over.set()
    companion.join()
    assert (status, not_ok(results)) == (0, {}) and len(links) > len(results)


def test_documents_have_the_sections():
    for protocol, name in DOCUMENTS.items():
        headings = set(re.findall(r"^## (.*)", (SOURCE_DIR / "docs" / name).read_text(), re.M))
        of_others = {id(one.rule) for one in CHECKS if protocol not in one.protocols}
        used = {rule.section[protocol] for rule in RULES if id(rule) not in of_others}
        assert used <= headings


def test_command_line(tmp_path):
    for arguments, words in ((["nowhere"], "not a link's address"),
                             (["tcp:127.0.0.1:x"], "not tcp:HOST:PORT"),
                             (["--only", "nothing", "unix:x"], "no check is called"),
                             (["--server-address", "192.0.2.1", "unix:x"],
                              "--server-address 192.0.2.1: Cannot assign"),
                             (["--listen", "unix:/none/x"], "at unix:/none/x: No such file"),
                             (["--timeout", "0.2", f"unix:{tmp_path}/none"], "no link over"),
                             (["--timeout", "nan", "unix:x"], "'nan' is no number of seconds"),
                             (["--junit", "/none/junit.xml", "unix:x"], "/none/junit.xml: No such"),
                             (["--timeout", "0.2", "unix:\x1b[2J\x9b"], r"unix:\x1b[2J\x9b"),
                             ([], "one LINK")):
        run = subprocess.run([CHECK, *arguments], capture_output=True, text=True, timeout=20)
        assert run.returncode == 2 and words in run.stderr and "Traceback" not in run.stderr
