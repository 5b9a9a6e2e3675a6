"""Waiting for conditions."""

import time

# Upper bounds are generous: a loaded machine must not fail a test.
PATIENCE = 60.0
PAUSE = 0.01


def eventually(condition, what, timeout=PATIENCE):
    """Returns the first true value of `condition()`; fails after `timeout` seconds with
    `what` in the message."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {timeout:.0f} s: {what}")
        time.sleep(PAUSE)
