#!/usr/bin/env python3
"""check_options.py BIN_DIR: what each program says about itself, what its man
page says, and what the shell completes are the same options and commands.
Differences go to standard error and make the exit status 1.
"""
import re
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
PROGRAMS = {"vantrel-launch": "_vantrel_launch", "vantrel-companion": "_vantrel_companion",
            "vantrelctl": "_vantrelctl", "vantrel-check": "_vantrel_check"}


def help_words(program, *command):
    """The options and commands that --help lists, with those of its commands."""
    text = subprocess.run([program, *command, "--help"], check=True, capture_output=True,
                          text=True).stdout
    words = set(re.findall(r"^ +(?:-\w, ?)?(--[a-z-]+)", text, re.M))
    commands = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.M)
    for name in re.findall(r"^  (\w+)", commands[1], re.M) if commands else []:
        words |= {name} | help_words(program, *command, name)
    return words


def main():
    completion = (HERE / "linux/completion/vantrel.bash").read_text()
    faults = []
    for program, function in PROGRAMS.items():
        helped = help_words(Path(sys.argv[1]) / program)
        page = (HERE / f"man/{program}.1.scd").read_text()
        described = set(re.findall(r"\*(?:-\w, )?(--[a-z-]+)\*", page))
        described |= set(re.findall(r"(?<=\*)[a-z]+(?=\*)", page)) & helped
        body = re.search(rf"^{function}\(\) {{\n(.*?)^}}", completion, re.M | re.S)[1]
        completed = set(re.findall(r"(?<![\w-])(--[a-z-]+|[a-z]+)(?![\w:=-])", body))
        for where, words in (("its man page", described), ("its completion", completed)):
            faults += [f"{program}: {word} is missing in {where}" for word in sorted(helped - words)]
            faults += [f"{program}: {word} is only in {where}" for word in sorted(words - helped)
                       if word.startswith("--")]
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
