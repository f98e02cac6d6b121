"""How a check ends that is not simply ok."""


class Failed(Exception):
    """The companion does not do what the document says: |rule|, or without one what
    the check is about."""

    def __init__(self, text, rule=None):
        super().__init__(text)
        self.rule = rule


class NoHandshake(Failed):
    """The link serves nothing, for its handshake did not come to an end."""


class NoServer(Failed):
    """The companion opens no connection to the servers of this program."""


class Warned(Exception):
    """It does, but a device or a person will feel it."""


class Skipped(Exception):
    """There was nothing to judge."""


def expect(condition, text):
    if not condition:
        raise Failed(text)
