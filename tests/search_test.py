#!/usr/bin/python3
"""A search from a client to the reference server and back, and several clients side by side."""

import json
import unittest

import harness
from scripted_server import Answer, Held, Reset


class SearchTest(harness.Scenario):
    def start(self, bag_url):
        self.private_bus = self.bus()
        self.orvexd = self.daemon(self.private_bus, defaults={"ORXBagURL": bag_url})

    def configured(self, identifier="scenario"):
        client = self.client(self.private_bus).configure(identifier)
        client.wait_for_signal("BagDidLoad")
        return client

    def held_search(self):
        """A server whose first search waits to be released; the next ones are answered."""
        server = self.scripted_server()
        held = Held(Answer("[]"))
        server.script("/bag", json.dumps({"version": 1, "search_url": server.url("/search")}))
        server.script("/search", held)
        self.start(server.url("/bag"))
        return server, held

    def scripted(self, *answers, **bag):
        """A client of a daemon whose searches get these answers, and the server."""
        server = self.scripted_server()
        server.script("/bag", json.dumps({"version": 1, "search_url": server.url("/search"),
                                          "more_results_url": server.url("/search"),
                                          "warm_url": server.url("/warm")} | bag))
        server.script("/search", *answers)
        self.start(server.url("/bag"))
        return server, self.configured()

    def test_typing_on_is_answered_from_memory(self):
        answers = json.dumps([{"query": query, "completion_score": score} for query, score in
                              (("weak", 0.2), ("wear", 0.9), ("weather", 5.0))])
        server, client = self.scripted(answers, "[]")
        self.assertEqual(bytes(client.search("we").reply["data"]).decode(), answers)
        answer = client.search("wea", query_id=2, verbose_reply=True)
        self.assertEqual((answer.query_id, bytes(answer.reply["data"]).decode()), (2, answers))
        self.assertNotIn("http_response", answer.reply)
        self.assertEqual(len(server.requests_for("/search")), 1)
        self.orvexd.wait_for_log("prefix:", 2)  # of weak and wear, and not of weather
        self.assertEqual(client.search("w").suggestions, [])
        self.assertEqual(len(server.requests_for("/search")), 2)

    def test_lookups_are_tried_again_three_times_and_what_has_no_time_never(self):
        server, client = self.scripted(Reset(), search_render_timeout=600_000)
        for kind, attempts in (("lookup", 4), ("zero_keyword", 1), ("more_results", 1)):
            with self.subTest(kind):
                before = len(server.requests_for("/search"))
                answer = client.request(kind, query_id=3)
                self.assertEqual((answer.query_id, answer.error["code"], answer.reply), (3, -1005, {}))
                self.assertEqual(len(server.requests_for("/search")) - before, attempts)

    def test_a_search_goes_over_the_connection_that_was_warmed(self):
        server, client = self.scripted("[]")
        server.script("/warm", Answer("warm"))
        tool = self.run_program("orvex_tool", "--bus", self.private_bus.address, "--identifier", "another",
                                "report", json.dumps({"searchViewAppear": {"viewAppearEvent": 2}}))
        self.orvexd.wait_for_log("Status for warm request: (200)")
        client.search("tea")
        warm, search = server.requests_for("/warm"), server.requests_for("/search")
        self.assertEqual((len(warm), len(search)), (1, 1))
        self.assertEqual(warm[0].connection, search[0].connection)
        self.assertEqual(tool.wait(), 0, tool.describe())

    def test_a_typed_word_comes_back_with_suggestions(self):
        server = self.server()
        self.start(server.bag_url)
        client = self.configured()
        answer = client.search("tea", query_id=7, verbose_reply=True, scale=2.0, query_items=[("ours", "a b&c")])

        self.assertEqual((answer.query_id, answer.error), (7, {}))
        self.assertTrue(all(text.startswith("tea") for text in answer.suggestions), answer.suggestions)
        self.assertGreater(len(answer.suggestions), 3)
        self.assertEqual(answer.reply["scale"], 2.0)
        self.assertEqual(answer.reply["http_response"]["status_code"], 200)
        self.assertIn("q=tea", answer.reply["http_request"]["url"])
        self.assertIn("ours=a%20b%26c", answer.reply["http_request"]["url"])
        self.assertIn("scenario/1.0", answer.reply["http_request"]["headers"]["User-Agent"])
        self.assertNotIn("http_request", client.search("tea").reply)
        self.assertEqual(server.state()["violations"], 0)

    def test_a_signal_is_for_the_client_that_configured(self):
        self.start(self.server().bag_url)
        listener = self.client(self.private_bus)
        listener.status()
        configured = self.configured()
        # What the bus sent to the listener before this answer has arrived with it.
        listener.status()
        self.assertEqual(len(configured.signals), 1)
        self.assertEqual(listener.signals, [])

    def test_a_client_that_leaves_before_its_answer_harms_nobody(self):
        server, held = self.held_search()
        leaving, staying = self.configured("leaving"), self.configured("staying")
        leaving.request_async("search", query_id=1, query_string="x")
        harness.wait_until(lambda: server.requests_for("/search"), "the search at the server")
        leaving.close()
        self.orvexd.wait_for_log("invalidated")
        held.release()
        self.assertEqual(staying.search("y", query_id=2)[::2], (2, {}))
        self.assertEqual(staying.status()["connections"], 1)

    def test_one_call_too_many_is_refused_and_the_others_are_answered(self):
        _, held = self.held_search()
        client = self.configured()
        calls = [client.request_async("search", query_id=i, query_string="x") for i in range(256)]
        self.assertEqual(client.request_async("search", query_string="x").error_name(), harness.LIMITS_EXCEEDED)
        self.assertIn("version", self.client(self.private_bus).status(), "another client is served meanwhile")
        held.release()
        self.assertEqual([call.result()[::2] for call in calls], [(i, {}) for i in range(256)])
        self.assertEqual(client.search("x").error, {})


if __name__ == "__main__":
    unittest.main()
