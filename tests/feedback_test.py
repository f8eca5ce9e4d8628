#!/usr/bin/python3
"""What clients report: its way into the session, and what the daemon makes of it."""

import json
import unittest

import harness
from feedback_records import decoded, encoded
from scripted_server import Answer

ENGAGEMENT = """type: 7 result_engagement { title_text: "Paris" result {
    type: 1 is_top_hit: true user_input: "par" completed_query: "paris hotels" completion: "paris hotels" } }"""
VIEW_APPEARED = "type: 1 search_view_appear { view_appear_event: 5 }"


class FeedbackTest(harness.Scenario):
    def start(self):
        self.server = self.scripted_server()
        self.server.script("/bag", json.dumps({
            "version": 1, "feedback_enabled": True, "search_url": self.server.url("/search"),
            "warm_url": self.server.url("/warm"), "smart_history_enabled": True}))
        self.server.script("/search", '[{"status": "OK", "fbq": "from the server"}]')
        self.server.script("/warm", Answer(status=204))
        bus = self.bus()
        self.orvexd = self.daemon(bus, defaults={"ORXBagURL": self.server.url("/bag"), "ORXNoQueryCache": True})
        client = self.client(bus).configure("com.kelvar.lumisk", "lumisk/1.0")
        client.wait_for_signal("BagDidLoad")
        return client

    def report(self, client, payload, query_id=0):
        client.call("ReportFeedbackPayloadData", "ayt", encoded("CXFeedbackPayload", payload), query_id)

    def records(self, client):
        records, error = client.call("Feedback", "s", "")
        self.assertEqual(error, {})
        return [decoded("CXOrvexFeedback", record) for record in records]

    def test_what_was_engaged_is_offered_from_then_on(self):
        client = self.start()
        self.report(client, ENGAGEMENT, query_id=7)

        def offered():
            client.search("pari", trigger_event=21)
            return ("lc", "paris hotels") in self.server.requests_for("/search")[-1].query
        harness.wait_until(offered, "the completion in a search")

        records = self.records(client)
        self.assertIn('title_text: "Paris"', records[0])
        self.assertIn("query_id: 7", records[0])
        self.assertIn('fbq: "from the server"', records[-1])
        self.assertTrue(all("lumisk/1.0" in record and "user_guid" in record for record in records), records)

    def test_what_is_no_record_is_refused_and_the_next_is_taken(self):
        client = self.start()
        call = client.call_async("ReportFeedbackPayloadData", "ayt", b"\x0a", 0)
        self.assertEqual(call.error_name(), "com.kelvar.orvexd.Error.Internal")
        self.assertEqual(call.error_message(), "Couldn't deserialize feedback protobuf")
        self.report(client, VIEW_APPEARED)
        self.assertIn("view_appear_event: 5", "".join(self.records(client)))


if __name__ == "__main__":
    unittest.main()
