"""Waiting by polling: a condition is asked again until it holds or time runs out."""
import time


class Timeout(AssertionError):
    """A wait that ran out: a test failure in a test, an error in a tool."""


def wait_until(condition, what, timeout, interval=0.02):
    """Polls `condition` until it returns something true and returns that.
    After `timeout` seconds raises Timeout naming `what` (a callable `what` is
    asked only then, so it may describe the state at that moment)."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise Timeout("timed out after %g s waiting for %s" % (timeout, what() if callable(what) else what))
        time.sleep(interval)
