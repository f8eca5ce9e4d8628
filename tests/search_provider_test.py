#!/usr/bin/python3
"""orvex_search_provider: what the desktop's shell does with it while someone types, and with a daemon that is not there,
slow, or killed."""

import json
import unittest

import dbus

import harness
from harness import wait_until

NAME = "com.kelvar.orvexd.SearchProvider"
PATH = "/com/kelvar/orvexd/SearchProvider"
INTERFACE = "org.gnome.Shell.SearchProvider2"
PORTAL = "org.freedesktop.portal.Desktop"
PORTAL_PATH = "/org/freedesktop/portal/desktop"


class SearchProviderTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.private_bus = self.bus()
        self.shell = self.private_bus.connect()
        self.addCleanup(self.shell.close)
        self.reference = self.server()

    def start_daemon_with_bag(self):
        self.orvexd = self.daemon(self.private_bus, defaults={"ORXBagURL": self.reference.bag_url})

    def start_provider(self, *arguments, deadline=harness.DEADLINE):
        provider = self.start_program("orvex_search_provider", "--bus", self.private_bus.address, "--log-level", "debug",
                                      "--deadline", str(deadline), *arguments)
        wait_until(lambda: self.shell.name_has_owner(NAME) or not provider.running, provider.describe)
        return provider

    def ask(self, member, signature, *arguments):
        return self.shell.call_blocking(NAME, PATH, INTERFACE, member, signature, arguments, timeout=harness.DEADLINE)

    def find(self, *terms):
        return [str(identifier) for identifier in self.ask("GetInitialResultSet", "as", terms)]

    def find_something(self, *terms):
        """What is found once the daemon has its bag."""
        return wait_until(lambda: self.find(*terms), f"results for {terms}")

    def metas(self, identifiers):
        return self.ask("GetResultMetas", "as", identifiers)

    def opened(self):
        calls = self.shell.call_blocking(PORTAL, PORTAL_PATH, "org.freedesktop.DBus.Mock", "GetMethodCalls", "s",
                                         ["OpenURI"])
        return [str(arguments[1]) for _, arguments in calls]

    def records(self):
        """The open session's, by type."""
        tool = self.run_program("orvex_tool", "--bus", self.private_bus.address, "--json", "feedback")
        return {record["type"]: record for record in json.loads("\n".join(tool.out))}

    def test_what_is_typed_is_found_shown_and_opened(self):
        self.mock_service(self.private_bus, harness.MOCKS / "desktop_portal.py", PORTAL)
        self.start_daemon_with_bag()
        self.start_provider()
        first = self.find_something("te")
        identifiers = self.ask("GetSubsearchResultSet", "asas", first, ["tea"])
        metas = self.metas(identifiers)
        self.assertEqual([meta["id"] for meta in metas], identifiers)
        self.assertTrue(metas[0]["name"].startswith("tea"), "what goes on as the text does comes first")
        self.assertIn(": ", metas[0]["description"])
        self.assertEqual(metas[0]["gicon"], "applications-internet")
        self.assertEqual(len({meta["name"] for meta in metas[:5]}), 5, "suggestions come before further senses")

        self.ask("ActivateResult", "sasu", identifiers[0], ["tea"], dbus.UInt32(1))
        page = json.loads(identifiers[0])["url"]
        self.assertTrue(page.startswith(self.reference.url("/card?word=tea")), page)
        wait_until(lambda: self.opened() == [page], "the page")
        self.ask("LaunchSearch", "asu", ["tea"], dbus.UInt32(2))
        wait_until(lambda: self.opened() == [page, page], "the page again")

        wait_until(lambda: {"rank_sections", "visible_results", "result_engagement"} <= self.records().keys(), "the records")
        engagement = self.records()["result_engagement"]
        self.assertEqual((engagement["query_id"], engagement["result"]["userInput"], engagement["titleText"]),
                         (json.loads(identifiers[0])["query"], "tea", metas[0]["name"]))

    def test_without_an_answer_in_time_nothing_is_found_and_typing_goes_on(self):
        provider = self.start_provider()
        self.assertEqual(self.find("tea"), [], "nobody has the daemon's name")
        self.start_daemon_with_bag()
        known = self.find_something("tea")
        self.orvexd.kill()
        self.assertEqual(self.find("coffee"), [])
        self.assertEqual(len(self.metas(known)), len(known), "they are known without the daemon")
        self.start_daemon_with_bag()
        self.find_something("coffee")

        self.assertEqual(provider.stop(), 0, provider.describe())
        self.reference.misbehave({"path": "/search", "action": "stall", "times": 0})
        provider = self.start_provider(deadline=0.05)
        self.assertEqual(self.find("milk"), [])
        provider.wait_for_log("has no answer in time")
        self.assertEqual(self.metas(known)[0]["id"], known[0], "a restart forgets no result")

    def test_what_the_shell_must_not_send_is_refused(self):
        self.mock_service(self.private_bus, harness.MOCKS / "desktop_portal.py", PORTAL)
        provider = self.start_provider()
        result = {"query": 1, "name": "a", "description": "", "identifier": "a"}
        for url in ("file:///etc/passwd", "http://elsewhere.example/", "https://user@elsewhere.example/"):
            with self.subTest(url), self.assertRaisesRegex(dbus.DBusException, "InvalidArgs"):
                self.ask("ActivateResult", "sasu", json.dumps(result | {"url": url}), ["a"], dbus.UInt32(1))
        provider.wait_for_log("must not be opened", count=3)
        with self.assertRaisesRegex(dbus.DBusException, "LimitsExceeded"):
            self.find(*["a"] * 1000)
        self.assertEqual(self.find("a" * 100_000), [])
        self.assertEqual(self.metas(["", "x" * 100_000]), [])
        self.assertEqual(self.opened(), [])

    def test_it_leaves_when_idle_and_loses_no_call(self):
        for _ in range(5):
            provider = self.start_provider("--idle-exit", "0.001")
            with self.assertRaisesRegex(dbus.DBusException, "ServiceUnknown|NameHasNoOwner"):
                while True:
                    self.metas([])  # answered, or sent to nobody
            self.assertEqual(provider.wait(), 0, provider.describe())

    def test_it_says_why_it_does_not_start(self):
        self.start_provider()
        for arguments, status in ((["--deadline", "soon"], 2), (["--log-level", "loud"], 2),
                                  (["--bus", "unix:path=/nonexistent"], 3),
                                  (["--bus", self.private_bus.address], 3)):
            ended = self.run_program("orvex_search_provider", *arguments)
            self.assertEqual((ended.wait(), bool(ended.log)), (status, True), ended.describe())


if __name__ == "__main__":
    unittest.main()
