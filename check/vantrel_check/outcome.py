"""How a check ends that is not simply ok."""


class Failed(Exception):
    """The companion does not do what the document says."""


class Warned(Exception):
    """It does, but a device or a person will feel it."""


class Skipped(Exception):
    """There was nothing to judge."""


def expect(condition, text):
    if not condition:
        raise Failed(text)
