#!/usr/bin/python3
"""A daemon that the bus starts for the first call and that leaves when it is idle: no call may fall between the two."""

import os
import time
import unittest

from gi.repository import GLib

import harness

CALLS = int(os.environ.get("ORVEX_IDLE_EXIT_CALLS", 10000))
AIMED = 32  # calls around one exit
SPREAD = 0.006  # seconds, the first to the last of them


class Caller:
    """One call of a program that nobody has heard of before: a connection of its own, opened ahead of its moment."""

    def __init__(self, bus):
        self.answer = self.error = None
        self._connection = bus.connect()

    def call_at(self, moment):
        GLib.timeout_add(max(0, round((moment - time.monotonic()) * 1000)), self._call)
        return self

    @property
    def ended(self):
        return self.answer is not None or self.error is not None

    def _call(self):
        self._connection.call_async(harness.NAME, harness.PATH, harness.DIAGNOSTICS, "Status", "", (), self._answered,
                                    self._failed, timeout=harness.DEADLINE)
        return GLib.SOURCE_REMOVE

    def _answered(self, status):
        self.answer = status
        self._connection.close()

    def _failed(self, error):
        self.error = error
        self._connection.close()


class IdleExitTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.private_bus = self.activating_bus("--idle-exit", "0.05")
        self.lives = 0
        self.began = None  # when the daemon that is there took its name
        self.life = 0.05  # seconds, as the last ones had it
        observer = self.private_bus.connect()
        self.addCleanup(observer.close)
        observer.add_signal_receiver(self.owner_changed, "NameOwnerChanged", "org.freedesktop.DBus",
                                     "org.freedesktop.DBus", arg0=harness.NAME)

    def owner_changed(self, _name, _old, new):
        now = time.monotonic()
        if new:
            self.lives += 1
            self.began = now
        elif self.began:
            self.life += 0.2 * (now - self.began - self.life)
            self.began = None

    def call_around_the_exit(self):
        """A call that finds a daemon or starts one, then many that come as it leaves: some reach it, some the next."""
        callers = [Caller(self.private_bus) for _ in range(AIMED)]
        first, *others = callers
        first.call_at(time.monotonic())
        harness.wait_until(lambda: first.ended, "the first answer")
        leaves = (self.began or time.monotonic()) + self.life
        for index, caller in enumerate(others):
            caller.call_at(leaves + SPREAD * (index / len(others) - 0.5))
        harness.wait_until(lambda: all(caller.ended for caller in others), "the answers")
        return callers

    def test_every_call_is_answered(self):
        ended = 0
        while ended < CALLS:
            for caller in self.call_around_the_exit():
                self.assertIsNone(caller.error, self.private_bus.describe())
                self.assertIn("version", caller.answer)
                ended += 1
        # It did leave, again and again.
        self.assertGreater(self.lives, CALLS / AIMED / 2)


if __name__ == "__main__":
    unittest.main()
