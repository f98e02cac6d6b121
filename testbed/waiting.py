"""How long one waits, and for what."""

import os
import time

# How many times longer than usual: slow machines are no fault.
PATIENCE = float(os.environ.get("VANTREL_PATIENCE", "1"))


def wait_until(state, what, seconds=10):
    """The first true result of |state|; fails when |seconds| have passed."""
    end = time.monotonic() + seconds * PATIENCE
    while True:
        result = state()
        if result:
            return result
        assert time.monotonic() < end, f"waited {seconds} s for {what}"
        time.sleep(0.01)
