#!/usr/bin/python3
"""What a daemon finds on disk: its bag, its clients, its settings, and files that others left there."""

import json
import plistlib
import unittest

import harness


def exploding():
    """A list of 2^40 elements that takes a kilobyte: each level names the one below twice."""
    value = ["x"]
    for _ in range(40):
        value = [value, value]
    return plistlib.dumps({"version": value}, fmt=plistlib.FMT_BINARY)


class RestartTest(harness.Scenario):
    def test_a_restarted_daemon_searches_without_fetching_its_bag_and_knows_its_clients(self):
        bus, server = self.bus(), self.server()
        for start in (1, 2):
            daemon = self.daemon(bus, defaults={"ORXBagURL": server.bag_url, "ORXPersistSessions": "true"})
            client = self.client(bus)
            known = [(session["identifier"], session["agent"].split()[-1]) for session in client.call("ListSessions")]
            self.assertEqual(known, [("scenario", "scenario/1.0")] if start == 2 else [])
            client.configure()
            if start == 1:
                client.wait_for_signal("BagDidLoad")
            self.assertTrue(client.search().suggestions)
            harness.wait_until((daemon.settings / "defaults.plist").exists, "the kept sessions")
            self.assertEqual(daemon.stop(), 0)
            self.assertEqual(server.state()["requests"]["/bag"], 1)

    def test_a_broken_bag_file_is_set_aside_and_replaced(self):
        bus, server = self.bus(), self.server()
        outside = self.directory / "outside"
        outside.write_bytes(plistlib.dumps({"enabled": False}))
        unread = {"__expiration": 9e9, "__bagurl": "http://127.0.0.1:9/", "search_url": server.url("/search")}
        cases = {"empty": b"", "garbage": b"bplist00" + bytes(100), "half": plistlib.dumps(unread)[:200],
                 "array": plistlib.dumps(["x"]), "exploding": exploding(), "link": None, "XML": plistlib.dumps(unread)}
        for name, content in cases.items():
            with self.subTest(name):
                home = self.directory / name
                file = home / "cache/com.kelvar.orvexd/bag.plist"
                file.parent.mkdir(parents=True, mode=0o700)
                if content is None:
                    file.symlink_to(outside)
                else:
                    file.write_bytes(content)
                daemon = self.daemon(bus, home=home, defaults={"ORXBagURL": server.bag_url})
                client = self.client(bus).configure()
                client.wait_for_signal("BagDidLoad")
                self.assertTrue(client.search().suggestions)
                harness.wait_until(lambda: client.counter("com.kelvar.orvexd.bag.fetches") == 1, "the new bag")
                self.assertEqual(daemon.stop(), 0)
                self.assertFalse(file.is_symlink())
                self.assertEqual(plistlib.loads(file.read_bytes())["version"], "1")
                self.assertEqual(file.with_suffix(".plist.corrupt").exists(), name != "XML")
        self.assertEqual(plistlib.loads(outside.read_bytes()), {"enabled": False})

    def test_a_setting_that_changes_is_followed(self):
        bus, server = self.bus(), self.scripted_server()
        first, second = ({"version": version, "search_url": server.url("/search")} for version in "12")
        server.script("/first", json.dumps(first))
        server.script("/second", json.dumps(second))
        server.script("/search", "[]")
        daemon = self.daemon(bus, defaults={"ORXBagURL": None})
        client = self.client(bus).configure()

        def set_default(key, value):
            written = self.run_program("orvex_tool", "defaults", "write", key, value,
                                       XDG_CONFIG_HOME=f"{daemon.home}/config")
            self.assertEqual(written.wait(), 0, written.describe())

        def version():
            client.search()  # what has the daemon look whether its bag is still the right one
            return json.loads(client.bag()[0] or "{}").get("version")

        for path, expected in (("/first", "1"), ("/second", "2")):
            set_default("ORXBagURL", server.url(path))
            harness.wait_until(lambda: version() == expected, f"version {expected}")
        set_default("ORXScreenScale", "3")
        harness.wait_until(lambda: client.search().reply["scale"] == 3.0, "the new scale")
        self.assertEqual((daemon.settings / "defaults.plist").stat().st_mode & 0o777, 0o600)


if __name__ == "__main__":
    unittest.main()
