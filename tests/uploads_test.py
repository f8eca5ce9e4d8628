"""Feedback on its way: from a client's record to what the server keeps, across kills of the daemon at each stage."""

import collections
import json
import unittest

from harness import Process, Scenario, program, wait_until

FLUSH = "com.kelvar.orvexd.flusher.background"


class Uploads(Scenario):
    def setUp(self):
        super().setUp()
        self.kept = self.directory / "uploads"
        self.kept.mkdir()
        self.session_bus = self.bus()
        self.reference = self.server("--feedback-dir", str(self.kept))

    def start(self):
        """A daemon that has its bag, as often as one has been killed."""
        # Debug: the session is found in the log, and dictionaries are compared with what is private.
        self.running = self.daemon(self.session_bus, "--log-level", "debug",
                                   defaults={"ORXBagURL": self.reference.bag_url})
        client = self.client(self.session_bus).configure(user_agent="lumisk/7 (scenario)")
        self.assertTrue(client.wait_for_signal("BagDidLoad")[0])
        return client

    def tool(self, *arguments):
        return self.run_program("orvex_tool", "--bus", self.session_bus.address, "--user-agent", "lumisk/7 (scenario)",
                                *arguments)

    def listen(self, what):
        """A tool that listens until the daemon leaves."""
        arguments = [program("orvex_tool"), "--bus", self.session_bus.address, "listen", what]
        return self._keep(Process(arguments, self.environment()))

    def report(self, *identifiers):
        for identifier in identifiers:
            record = {"identifier": identifier, "timestamp": 5000000, "viewAppearEvent": 1, "isOnLockScreen": False}
            reported = self.tool("report", json.dumps({"searchViewAppear": record}))
            self.assertEqual(reported.wait(), 0, reported.describe())

    def uploads(self):
        """What the server has kept, in order: each the head and the session."""
        heads = sorted(self.kept.glob("upload.*.json"), key=lambda path: int(path.name.split(".")[1]))
        return [(json.loads(head.read_text()), json.loads(head.with_suffix(".body").read_text())) for head in heads]

    @staticmethod
    def reported(session):
        """The records of ours; the daemon's own, a bag fetch for instance, come in sessions of their own."""
        return [record for record in session["fb"] if record["type"] == "search_view_appear"]

    def wait_for_reported(self):
        """The uploads that hold records of ours."""
        return wait_until(lambda: [upload for upload in self.uploads() if self.reported(upload[1])],
                          lambda: f"an upload; {self.running.describe()}")

    def test_a_dump_uploads_what_was_reported_and_shows_it(self):
        client = self.start()
        self.report("one", "two")
        dumped = self.tool("dump")
        self.assertEqual(dumped.wait(), 0, dumped.describe())
        (head, session), = self.wait_for_reported()
        self.assertTrue(session["agent"].endswith("lumisk/7 (scenario)"), session)
        self.assertIn(session, [json.loads(line) for line in dumped.out])
        self.assertEqual(head["path"], "/feedback")
        self.assertIn(["v", "2"], head["items"])
        self.assertEqual(set(session), {"fb", "agent", "user_guid", "resource_versions", "first_use", "base_time",
                                        "previous_session_end_reason"})
        self.assertEqual((session["first_use"], session["previous_session_end_reason"]), (True, "unknown"))
        self.assertEqual([record["identifier"] for record in self.reported(session)], ["one", "two"])
        self.assertEqual(session["fb"][-1], session["fb"][-1] | {"type": "session_end", "reason": "external_request"})
        wait_until(lambda: client.counter("com.kelvar.orvexd.feedbacksent") == 7 * len(self.uploads()),
                   "the count of what was sent")
        wait_until(lambda: client.status()["sessions_waiting"] == 0, "no session that waits")
        self.assertEqual(self.reference.state()["violations"], 0)

    def test_a_kill_at_any_stage_loses_nothing_and_repeats_an_upload_once_at_most(self):
        def flush(client):
            client.call_async("RunActivity", "s", FLUSH, interface="com.kelvar.orvexd.LaunchEvents")

        def open_session(_):
            pass

        def flushing(client):
            flush(client)
            self.running.wait_for_log("Sessions Flushed")

        def on_the_wire(client):
            self.reference.misbehave({"path": "/feedback", "action": "stall", "times": 0})
            flush(client)
            wait_until(lambda: self.reference.state()["requests"].get("/feedback"), "an upload on the wire")

        def kept_by_the_server(client):
            before = len(self.uploads())
            flush(client)
            wait_until(lambda: len(self.uploads()) > before, "an upload that the server has kept")

        stages = [open_session, flushing, on_the_wire, kept_by_the_server]
        for number, reach in enumerate(stages):
            self.reference.misbehave()
            client = self.start()
            self.report(f"record-{number}")
            reach(client)
            self.running.kill()
        self.reference.misbehave()
        client = self.start()
        everything = {f"record-{number}" for number in range(len(stages))}

        def arrived():
            flush(client)
            return everything == {record["identifier"] for _, session in self.uploads()
                                  for record in self.reported(session)}
        wait_until(arrived, lambda: f"all records; {self.running.describe()}")
        digests = collections.Counter(head["digest"] for head, _ in self.uploads())
        # A kill between the server's answer and its being noted costs a repetition, and two of the stages can be there.
        kills = [flushing, kept_by_the_server]
        self.assertLessEqual(max(digests.values()), 1 + len(kills))
        self.assertEqual(self.reference.state()["violations"], 0)

    def test_stopped_flushing_outlives_the_process_and_ends_with_a_dump(self):
        self.start()
        self.report("one")
        stopped = self.tool("stop-flushing")
        self.assertEqual(stopped.wait(), 0, stopped.describe())
        self.running.kill()
        client = self.start()
        client.call("RunActivity", "s", FLUSH, interface="com.kelvar.orvexd.LaunchEvents")
        self.running.wait_for_log("Flusher bailing because periodic flush is disabled.")
        self.assertEqual(self.uploads(), [])
        self.assertEqual(self.tool("dump").wait(), 0)
        self.assertEqual(len(self.wait_for_reported()), 1)
        client.call("RunActivity", "s", FLUSH, interface="com.kelvar.orvexd.LaunchEvents")
        self.running.wait_for_log("Flushing Orvex feedback.")

    def test_a_listener_sees_records_as_they_come(self):
        self.start()
        listener = self.listen("feedback")
        self.running.wait_for_log("new listener for client feedbacks")
        self.report("one")
        seen = wait_until(lambda: [json.loads(line) for line in list(listener.out) if "search_view_appear" in line],
                          lambda: f"the record; {listener.describe()}")
        self.assertEqual(seen[0]["timestamp"], 5)
        self.running.stop()
        self.assertEqual(listener.wait(), 3)


if __name__ == "__main__":
    unittest.main()
