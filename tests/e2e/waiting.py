"""Bounded waits on conditions. No test waits for a time."""

import time


def wait_for(condition, what, seconds=60.0):
    """Returns the first true value of `condition()`; an assertion that names `what` fails when there is none in time."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"timed out after {seconds:g} s waiting until {what}"
        time.sleep(0.02)
