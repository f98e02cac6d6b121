"""All checks, in the order in which they run."""

from typing import Callable, NamedTuple

ALL = (1, 5, 20)
V1 = (1, 5)


class Check(NamedTuple):
    name: str
    section: dict  # protocol -> heading in its document
    says: str  # what the document says, in short
    protocols: tuple
    run: Callable

    def document(self, protocol):
        return f'docs/{DOCUMENTS[protocol]}, "{self.section[protocol]}"'


DOCUMENTS = {1: "protocol-v1.md", 5: "protocol-v1.md", 20: "protocol-v2.md"}
CHECKS = []


def check(section, says, protocols=ALL):
    """Registers a function under its name. |section| is the heading in both
    documents, or (that of protocol-v1.md, that of protocol-v2.md)."""
    first, second = section if isinstance(section, tuple) else (section, section)

    def register(function):
        name = function.__name__.replace("_", "-")
        headings = {1: first, 5: first, 20: second}
        CHECKS.append(Check(name, headings, says, protocols, function))
        return function

    return register
