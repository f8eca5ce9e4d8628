#!/usr/bin/python3
"""How the daemon starts, what it shows on the bus, and how it ends."""

import signal
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import harness

INTERFACES = Path(__file__).resolve().parent.parent / "docs/interface"


def signatures(document):
    """Every method and signal of the described interfaces: interface, kind, name, and the arguments in order."""
    found = set()
    for interface in ElementTree.fromstring(document).iter("interface"):
        for member in interface:
            if member.tag in ("method", "signal"):
                arguments = tuple((argument.get("name"), argument.get("type"),
                                   argument.get("direction") if member.tag == "method" else "out")
                                  for argument in member.iter("arg"))
                found.add((interface.get("name"), member.tag, member.get("name"), arguments))
    return found


class StartAndStopTest(harness.Scenario):
    def assert_refused(self, *arguments, status):
        ended = self.run_program("orvexd", *arguments)
        self.assertEqual(ended.wait(), status, ended.describe())
        self.assertTrue(ended.log, "says nothing about it on standard error")

    def test_a_stop_signal_ends_it_with_status_0(self):
        bus = self.bus()
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number.name):
                self.assertEqual(self.daemon(bus).stop(number), 0)

    def test_a_hang_up_does_not_end_it(self):
        bus = self.bus()
        daemon = self.daemon(bus)
        daemon.send(signal.SIGHUP)
        daemon.wait_for_log("SIGHUP")
        self.assertIn("version", self.client(bus).status())

    def test_wrong_usage_ends_with_status_2(self):
        bus = self.bus()
        for arguments in (["--no-such-option"], ["surplus"], ["--default", "no-equals-sign"], ["--log-level", "loud"],
                          ["--log-format", "binary"], ["--idle-exit", "-1"], ["--idle-exit", "soon"], ["--bus"]):
            with self.subTest(arguments):
                self.assert_refused(*(["--bus", bus.address] if "--bus" not in arguments else []), *arguments, status=2)

    def test_without_a_bus_it_ends_with_status_3(self):
        for address in (f"unix:path={self.directory}/nobody", "no address"):
            with self.subTest(address):
                self.assert_refused("--bus", address, status=3)

    def test_a_second_one_ends_with_status_3_and_leaves_the_first_alone(self):
        bus = self.bus()
        first = self.daemon(bus)
        # Once with the first one's state directory, once only the name is taken.
        for home in (first.home, self.directory / "other"):
            with self.subTest(home.name):
                self.assertEqual(self.start_daemon(bus, home=home).wait(), 3)
        self.assertIn("version", self.client(bus).status())

    def test_it_ends_with_status_0_when_the_bus_goes_away(self):
        bus = self.bus()
        daemon = self.daemon(bus)
        bus.kill()
        self.assertEqual(daemon.wait(), 0, daemon.describe())

    def test_it_starts_again_after_a_crash(self):
        bus = self.bus()
        self.daemon(bus).kill()
        self.assertIn("version", self.client(self.daemon(bus) and bus).status())

    def test_an_idle_one_leaves_when_told_to(self):
        bus = self.bus()
        daemon = self.start_daemon(bus, "--idle-exit", "0.2")
        self.assertEqual(daemon.wait(), 0, daemon.describe())

    def test_its_directories_are_private(self):
        daemon = self.daemon(self.bus())
        for directory in (daemon.caches, daemon.state):
            with self.subTest(directory.parent.name):
                self.assertEqual(directory.stat().st_mode & 0o777, 0o700)

    def test_introspection_shows_the_public_interface(self):
        bus = self.bus()
        self.daemon(bus)
        shown = signatures(self.client(bus).introspect())
        promised = signatures((INTERFACES / "com.kelvar.orvexd.xml").read_text())
        self.assertEqual({member for member in shown if member[0].startswith(harness.NAME)}, promised)


if __name__ == "__main__":
    unittest.main()
