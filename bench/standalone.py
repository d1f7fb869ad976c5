"""The end-to-end harness outside a test case: benchmarks run one supervisor
each and call its cleanup() themselves."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))

import watchdog_harness  # noqa: E402


class _NoTestCase:
    def assertTrue(self, value, message):  # noqa: N802 - the harness's name
        if not value:
            raise SystemExit(message)

    def addCleanup(self, _fn):  # noqa: N802 - callers clean up themselves
        pass


def watchdog(binary=None):
    """A harness Watchdog for `binary` (default: the harness's); benchmarks need no vantrelctl."""
    if binary:
        watchdog_harness.BIN = os.path.abspath(binary)
    watchdog_harness.CTL = watchdog_harness.CTL or "unused"
    return watchdog_harness.Watchdog(_NoTestCase())
