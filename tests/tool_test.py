#!/usr/bin/python3
"""orvex_tool: what each command prints, as JSON and for people, and how it ends."""

import contextlib
import fcntl
import itertools
import json
import os
import pty
import signal
import sqlite3
import struct
import subprocess
import termios
import unittest

import harness


class Screen:
    """A program on a terminal of its own, 40 rows of 100 columns."""

    def __init__(self, arguments, environment):
        self._controller, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 100, 0, 0))
        os.set_blocking(self._controller, False)
        self._process = subprocess.Popen(arguments, stdin=terminal, stdout=terminal, stderr=terminal,
                                         env=environment | {"TERM": "xterm"})
        os.close(terminal)
        self._drawn = b""

    def close(self):
        self._process.kill()
        self._process.wait()
        os.close(self._controller)

    def wait_for(self, text):
        """Until that was drawn, after what was waited for before."""
        def drawn():
            self._read()
            return text in self._drawn
        harness.wait_until(drawn, lambda: f"{text!r} on the screen: {self._drawn!r}")
        self._drawn = self._drawn.partition(text)[2]

    def press(self, keys):
        os.write(self._controller, keys)

    def wait(self):
        """Reads to the end, since a terminal that nobody reads holds its program up."""
        harness.wait_until(lambda: self._read() or self._process.poll() is not None, "the end of the program")
        return self._process.returncode

    def _read(self):
        with contextlib.suppress(BlockingIOError, OSError):
            while data := os.read(self._controller, 65536):
                self._drawn += data


class ToolTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.private_bus = self.bus()

    def tool(self, *arguments, bus=None):
        return self.run_program("orvex_tool", "--bus", bus or self.private_bus.address, *arguments)

    def start(self):
        self.reference = self.server()
        self.running = self.daemon(self.private_bus, defaults={"ORXBagURL": self.reference.bag_url})
        client = self.client(self.private_bus).configure()
        client.wait_for_signal("BagDidLoad")

    def test_each_command_prints_a_page_or_one_json_document(self):
        self.start()
        for arguments, check in (
                (["search", "tea", "--set", "query_id=5", "--set", "scale=2"],
                 lambda d: d["query_id"] == 5 and d["reply"]["data"][0]["query"].startswith("tea")),
                (["bag"], lambda d: d["version"] == "1"),
                (["sessions"], lambda d: [session["identifier"] for session in d] == ["orvex_tool", "scenario"]),
                (["images"], lambda d: all(url.startswith("http") for url in d.values()) and d),
                (["status"], lambda d: d["bag_version"] == "1" and "connections" in d),
                (["counters"], lambda d: d["com.kelvar.orvexd.launch"] == 1),
                (["run-activity", "com.kelvar.orvexd.dp.flush"], lambda d: d["ran"] == "com.kelvar.orvexd.dp.flush"),
                (["defaults", "write", "key", "[1, true]"], None),
                (["defaults", "read", "key"], lambda d: d == [1, True]),
                (["defaults", "read"], lambda d: d == {"key": [1, True]})):
            with self.subTest(arguments):
                page, document = self.tool(*arguments), self.tool("--json", *arguments)
                self.assertEqual((page.wait(), document.wait()), (0, 0), document.describe())
                self.assertEqual(page.log + document.log, [])
                if check:
                    self.assertTrue(check(json.loads("\n".join(document.out))), document.describe())
        self.assertEqual(self.tool("defaults", "delete", "key").wait(), 0)

    def test_the_status_says_what_happened_and_why_something_was_dropped(self):
        self.start()
        self.assertEqual(self.tool("search", "tea").wait(), 0)
        settings = {"XDG_CONFIG_HOME": str(self.running.home / "config")}
        self.run_program("orvex_tool", "defaults", "write", "ORXNetworkSearchDisabled", "true", **settings)
        words = (f"tea{number}" for number in itertools.count())

        def told():
            self.tool("search", next(words))
            page = self.tool("status").out
            return page if any("queries not sent" in line for line in page) else None
        lines = harness.wait_until(told, "a query that was not sent")
        text = "\n".join(lines)
        self.assertRegex(lines[0], r"^orvexd \S+ is running, up ")
        self.assertRegex(text, r"(?m)^bag +version 1, \d+ s old, good for 3 h 5\d min$")
        self.assertRegex(text, r"(?m)^busy with .*serving clients")
        self.assertRegex(text, r"(?m)^by the clock +upload of \w+: next in ")
        self.assertRegex(text, r"(?m)^switched off  by ORXNetworkSearchDisabled$")
        self.assertRegex(text, r"(?m)^ +\d+ +searches sent to the server$")
        self.assertRegex(text, r"dropped since the start\n(.*\n)* +\d+ +queries not sent: ORXNetworkSearchDisabled is on")

    def test_a_watched_status_starts_no_daemon_and_keeps_none_alive(self):
        bus = self.activating_bus("--idle-exit", "3")
        observer = bus.connect()
        self.addCleanup(observer.close)
        watch = ["--bus", bus.address, "status", "--watch", "--interval", "0.1"]
        pages, documents = self.start_program("orvex_tool", *watch), self.start_program("orvex_tool", "--json", *watch)
        screen = Screen([harness.program("orvex_tool"), *watch], self.environment())
        self.addCleanup(screen.close)

        def count(beginning, ending):
            return sum(line.startswith(beginning) and line.endswith(ending) for line in list(pages.out))

        screen.wait_for(b"orvexd is not running")
        harness.wait_until(lambda: count("orvexd is not running", "") and documents.out, "the absence told")
        self.assertFalse(observer.name_has_owner(harness.NAME))
        self.assertEqual(self.tool("--json", "status", bus=bus.address).wait(), 0)  # which starts it
        screen.wait_for(b"busy with")
        harness.wait_until(lambda: count("busy with", "") > 1 and len(documents.out) > 2, "more than one look")
        screen.wait_for(b"first call of a program")
        harness.wait_until(lambda: count("orvexd is not running", "") == 2 and documents.out[-1] == "null",
                           "a daemon that left although it was watched")
        looks = [json.loads(line) for line in documents.out]
        self.assertIsNone(looks[0])
        self.assertIn("version", looks[1])
        screen.press(b"\x03")
        self.assertEqual((screen.wait(), pages.stop(signal.SIGINT), documents.stop(signal.SIGINT)), (0, 0, 0))
        self.assertEqual(pages.log + documents.log, [])

    def test_completions_are_stored_when_the_command_ends_and_cleared_between_dates(self):
        self.start()
        store = self.running.caches / "EngagedCompletions/Cache.db"

        def stored():
            with contextlib.closing(sqlite3.connect(f"file:{store}?mode=ro", uri=True)) as database:
                return database.execute("SELECT completion, input, client FROM completion_cache_engagement").fetchall()

        added = self.tool("--json", "completions", "add", "tea house", "te")
        self.assertEqual((added.wait(), json.loads(added.out[0])), (0, {"added": "tea house"}))
        self.assertEqual(stored(), [("tea house", "te", 0)])
        for arguments, left in ((["--from", "5", "--to", "9"], 1), (["--from", "5"], 0)):
            self.assertEqual(self.tool("completions", "clear", *arguments).wait(), 0)
            self.assertEqual(len(stored()), left)

    def test_a_record_that_was_reported_is_in_the_open_session(self):
        self.start()
        for arguments in (["report", '{"visibleResults": {"results": [{"identifier": "r"}]}}', "--query-id", "7"],
                          ["report", '{"custom": {"jsonFeedback": "eyJhIjogMS41fQ=="}}']):
            self.assertEqual(self.tool(*arguments).wait(), 0)
        document = self.tool("--json", "feedback")
        self.assertEqual(document.wait(), 0, document.describe())
        records = {record["type"]: record for record in json.loads(document.out[0])}
        self.assertEqual(records["visible_results"]["results"], [{"identifier": "r"}])
        self.assertEqual(records["visible_results"]["query_id"], 7)
        self.assertGreater(records["visible_results"]["timestamp"], 0, "it was given the time of its arrival")
        self.assertIn("orvex_tool/", records["visible_results"]["user_agent"])
        self.assertEqual(records["custom_unknown"]["a"], 1.5)
        page = self.tool("feedback")
        self.assertEqual(page.wait(), 0)
        self.assertTrue(any("visible_results" in line for line in page.out), page.describe())
        self.assertEqual(self.tool("report", '{"type": 12, "endSearch": {}}').wait(), 1)

    def test_what_a_request_tells_is_explained_and_kept_back(self):
        self.start()
        rows = {row["name"]: row for row in json.loads(self.tool("--json", "explain", "search", "tea").out[0])}
        self.assertEqual((rows["q"]["value"], rows["q"]["where"], rows["q"]["personal"]), ("tea", "query", True))
        self.assertTrue(all(row["source"] for row in rows.values()), rows)
        self.assertTrue({"kb_ime", "X-Kelvar-UI-Scale"} <= set(rows), rows)  # which the daemon fills in
        self.assertIn("query  q = tea", self.tool("explain", "search", "tea").out)
        self.assertEqual(self.reference.state()["requests"].get("/search", 0), 0)

        def privacy(*arguments):
            return self.run_program("orvex_tool", "--json", "privacy", *arguments,
                                    XDG_CONFIG_HOME=str(self.running.home / "config"))

        self.assertEqual(privacy("search", "off").wait(), 0)
        words = (f"tea{number}" for number in itertools.count())  # none of which is in the cache
        harness.wait_until(lambda: not json.loads(self.tool("--json", "search", next(words)).out[0])["reply"],
                           "an answer from nobody")
        self.assertEqual(privacy("search", "on").wait(), 0)
        self.assertEqual(json.loads(privacy().out[0])["search"], True)
        erased = json.loads(self.tool("--json", "erase", "all").out[0])
        self.assertEqual(set(erased), {"completions", "feedback", "resources"})
        self.assertEqual(json.loads(self.tool("--json", "feedback", "--pending").out[0]), [])
        self.assertIn("# TYPE orvexd_launch_total counter", self.tool("counters", "--prometheus").out)

    def test_an_answered_error_is_status_1(self):
        self.start()
        self.reference.misbehave({"path": "/search", "action": "reset", "times": 0})
        document = self.tool("--json", "search", "tea")
        self.assertEqual(json.loads(document.out[0])["error"]["code"], -1005)
        for arguments in (["--json", "search", "tea"], ["search", "tea"], ["run-activity", "none"],
                          ["--identifier", "x" * 300, "search", "tea"], ["defaults", "read", "nothing"]):
            with self.subTest(arguments):
                self.assertEqual(self.tool(*arguments).wait(), 1)

    def test_wrong_usage_is_status_2_whether_a_daemon_runs_or_not(self):
        for arguments in ([], ["nonsense"], ["search"], ["search", "a", "b"], ["bag", "--set", "x=1"],
                          ["search", "a", "--set", "scale"], ["search", "a", "--set", "scale=wide"],
                          ["defaults"], ["defaults", "write", "key"], ["completions", "add", "tea"],
                          ["completions", "clear", "--from", "noon"], ["status", "--interval", "1"],
                          ["status", "--watch", "--interval", "0"], ["run-activity"], ["report"],
                          ["report", "{"], ["report", "{}"], ["report", '{"startSearch": {"nonsense": 1}}']):
            with self.subTest(arguments):
                ended = self.tool(*arguments)
                self.assertEqual((ended.wait(), ended.out), (2, []), ended.describe())
                self.assertTrue(ended.log)

    def test_without_a_daemon_or_a_bus_it_is_status_3(self):
        for command in (["search", "a"], ["bag"], ["sessions"], ["images"], ["status"], ["counters"],
                        ["run-activity", "com.kelvar.orvexd.dp.flush"], ["feedback"], ["feedback", "--pending"],
                        ["report", '{"startSearch": {}}']):
            with self.subTest(command):
                self.assertEqual(self.tool(*command).wait(), 3)
        self.assertEqual(self.tool("status", bus=f"unix:path={self.directory}/nobody").wait(), 3)
        self.assertEqual(self.tool("--help").wait(), 0)


if __name__ == "__main__":
    unittest.main()
