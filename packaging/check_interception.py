#!/usr/bin/env python3
"""check_interception.py: scripts, units, documents and the testbed use the address, interface,
chains and packet-filter tool that the daemon's headers define. Differences go to
standard error and make the exit status 1.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HEADERS = ROOT / "common/interception.h", ROOT / "daemon/interception_rules.h"
# Each file, and what of the definitions it must mention.
USERS = {
    "testbed/device.sh": ["kApplicationAddressText", "kInterface", "kIptablesWrapper"],
    "testbed/device.py": ["kApplicationAddressText", "kTcpChain", "kUdpChain"],
    "scripts/lib/demo_steps.py": [],
    "docs/android.md": ["kApplicationAddressText", "kInterface", "kIptablesWrapper", "kTcpChain",
                        "kUdpChain"],
    "docs/bluetooth.md": ["kApplicationAddressText", "kNameServerAddressText", "kInterface"],
    "docs/protocol-v2.md": ["kApplicationAddressText", "kNameServerAddressText"],
    "packaging/man/vantrel-launch.1.scd": ["kApplicationAddressText", "kNameServerAddressText",
                                           "kInterface"],
}
# What looks like one of the definitions, and so must be one.
LOOKALIKES = {
    r"\b192\.168\.\d+\.\d+\b": ["kApplicationAddressText", "kNameServerAddressText"],
    r"\bifb\d+\b": ["kInterface"],
    r"\boem_PROXY_[A-Z]+\b": ["kTcpChain", "kUdpChain"],
    r"/system/bin/\S*iptables[^\s\"'`]*": ["kIptablesWrapper"],
}


def main():
    text = "".join(header.read_text() for header in HEADERS)
    defined = dict(re.findall(r'constexpr char (\w+)\[\] = "([^"]+)";', text))
    faults = []
    for name, needed in USERS.items():
        user = (ROOT / name).read_text()
        faults += [f"{name}: no {defined[constant]} ({constant})" for constant in needed
                   if defined[constant] not in user]
        for pattern, constants in LOOKALIKES.items():
            known = {defined[constant] for constant in constants}
            faults += [f"{name}: {found} is none of {known}"
                       for found in set(re.findall(pattern, user)) - known]
    print("\n".join(faults), file=sys.stderr)
    return 1 if faults else 0


sys.exit(main())
