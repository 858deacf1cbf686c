"""What tests with real processes wait for."""

import time


def wait_until(condition, what, seconds=15.0):
    """Returns the first true value of `condition`. If there is none within `seconds`, the test fails with `what`, which
    may be a function: it is called at the end of the time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timeout after {seconds} s: {what() if callable(what) else what}")
        time.sleep(0.02)
