#!/usr/bin/python3
"""What the daemon sends to the systemd journal, read at a socket in the journal's place."""

import socket
import subprocess
import unittest
from pathlib import Path

import harness

MESSAGES = Path(__file__).resolve().parent.parent / "docs/messages.md"


def identity(event):
    """The event's MESSAGE_ID as it is documented."""
    return MESSAGES.read_text().split(f"\n## {event}\n\n`")[1][:32]


class JournalTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        run = self.directory / "run-systemd"
        (run / "journal").mkdir(parents=True)
        self.journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self.addCleanup(self.journal.close)
        self.journal.bind(str(run / "journal/socket"))
        self.entries = []
        # The place of the socket is fixed, so the daemon sees a /run/systemd of the test's own.
        self.wrapper = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /run/systemd && exec "$@"', str(run))
        if subprocess.run([*self.wrapper, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("takes a mount of our own over /run/systemd")

    def entry(self, event):
        """The fields of the event's first entry."""
        def found():
            try:
                while True:
                    fields = self.journal.recv(1 << 20).decode().splitlines()
                    self.entries.append(dict(field.split("=", 1) for field in fields))
            except BlockingIOError:
                pass
            return next((entry for entry in self.entries if entry.get("ORVEX_EVENT") == event), None)
        return harness.wait_until(found, lambda: f"the event {event} among {self.entries}")

    def test_events_come_with_their_identities_and_fields(self):
        settings = self.directory / "home/config/com.kelvar.orvexd/defaults.plist"
        settings.parent.mkdir(parents=True)
        settings.write_text("broken by hand")
        daemon = self.start_daemon(self.bus(), "--log-format", "journal", wrapper=self.wrapper)
        started = self.entry("started")
        self.assertEqual(started["MESSAGE_ID"], identity("started"))
        self.assertEqual((started["SUBSYSTEM"], started["CATEGORY"], started["PRIORITY"]),
                         ("com.kelvar.orvexd", "-", "5"))
        self.assertTrue(started["ORVEX_VERSION"])

        broken = self.entry("settings-broken")
        self.assertEqual(broken["MESSAGE_ID"], identity("settings-broken"))
        self.assertEqual(broken["ORVEX_FILE"], str(settings))
        self.assertTrue(broken["ORVEX_REASON"])
        self.assertEqual(broken["PRIORITY"], "3")

        unreachable = self.entry("bag-fetch-failed")
        self.assertEqual(unreachable["CATEGORY"], "Orvex_Bag")
        self.assertIn("-1004", unreachable["ORVEX_REASON"])

        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(self.entry("stopping")["ORVEX_SIGNAL"], "15")


if __name__ == "__main__":
    unittest.main()
