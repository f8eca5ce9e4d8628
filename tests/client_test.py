#!/usr/bin/python3
"""Programs of others: the examples, in C++ over the client library and in Python over plain D-Bus."""

import unittest
from pathlib import Path

import harness

EXAMPLES = Path(__file__).resolve().parent.parent / "examples"


class ClientTest(harness.Scenario):
    def each_example(self):
        """A bus and a server of its own for each, and how it is started."""
        for command in ([harness.program("suggest")], ["/usr/bin/python3", "-B", str(EXAMPLES / "suggest.py")]):
            yield self.bus(), self.server(), command

    def start(self, bus, command):
        return self.start_typing_to(*command, DBUS_SESSION_BUS_ADDRESS=bus.address)

    def wait_for(self, example, line):
        harness.wait_until(lambda: any(told.startswith(line) for told in list(example.out)),
                           lambda: f"{line!r} from {example.describe()}")

    def test_it_suggests_and_notes_what_was_picked(self):
        for bus, server, command in self.each_example():
            daemon = self.daemon(bus, defaults={"ORXBagURL": server.bag_url}, home=self.directory / str(server.port))
            example = self.start(bus, command)
            example.type("te\ntea\n\n")
            self.wait_for(example, "tea:")
            self.wait_for(example, "remembered")
            self.wait_for(example, "configuration: loaded")
            example.end_input()
            self.assertEqual((example.wait(), example.log), (0, []), example.describe())
            self.assertEqual("reported" in example.out, command[-1].endswith("suggest"))
            self.assertEqual(daemon.stop(), 0)

    def test_every_daemon_that_comes_is_told_who_calls(self):
        for bus, server, command in self.each_example():
            options = {"defaults": {"ORXBagURL": server.bag_url}, "home": self.directory / str(server.port)}
            daemon = self.daemon(bus, **options)
            example = self.start(bus, command)
            example.type("tea\n")
            self.wait_for(example, "tea:")
            self.assertEqual(daemon.stop(), 0)
            self.wait_for(example, "daemon: gone")
            example.out.clear()
            self.daemon(bus, **options)
            self.wait_for(example, "configuration: loaded")
            example.type("coffee\n")
            self.wait_for(example, "coffee:")
            example.end_input()
            self.assertEqual((example.wait(), example.log), (0, []), example.describe())

    def test_without_a_bus_or_a_daemon_it_says_so(self):
        for bus, _, command in self.each_example():
            example = self.start(bus, command)
            example.type("tea\n")
            example.end_input()
            self.assertEqual(example.wait(), 0)
            self.assertIn("com.kelvar.orvexd", "\n".join(example.log))
            bus.stop()
            self.assertNotEqual(self.start(bus, command).wait(), 0)


if __name__ == "__main__":
    unittest.main()
