"""All checks, in the order in which they run, and what the documents say."""

from typing import Callable, NamedTuple

ALL = (1, 5, 20)
V1 = (1, 5)
DOCUMENTS = {1: "protocol-v1.md", 5: "protocol-v1.md", 20: "protocol-v2.md"}


class Rule(NamedTuple):
    section: dict  # protocol -> heading in its document
    says: str  # what the document says there, in short

    def document(self, protocol):
        return f'docs/{DOCUMENTS[protocol]}, "{self.section[protocol]}"'


class Check(NamedTuple):
    name: str
    rule: Rule
    protocols: tuple
    needs_server: bool  # can tell nothing of a companion that opens no connection
    run: Callable


CHECKS = []
RULES = []  # of the checks, and those that any message can break


def rule(section, says):
    """|section| is the heading in both documents, or (that of protocol-v1.md, that of
    protocol-v2.md)."""
    first, second = section if isinstance(section, tuple) else (section, section)
    RULES.append(Rule({1: first, 5: first, 20: second}, says))
    return RULES[-1]


def check(section, says, protocols=ALL, needs_server=True):
    """Registers a function under its name, with what rule() takes."""

    def register(function):
        name = function.__name__.replace("_", "-")
        CHECKS.append(Check(name, rule(section, says), protocols, needs_server, function))
        return function

    return register
