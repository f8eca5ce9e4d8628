#!/usr/bin/python3
"""Servers that fail, lie or attack: each is answered as an error, and the next good answer is served."""

import json
import subprocess
import unittest

import harness
from scripted_server import Answer, Held, Reset

MEBIBYTE = 1 << 20


def redirect(location):
    return Answer(status=302, headers={"Location": location})


class HostileServerTest(harness.Scenario):
    def start(self, bag_url, *arguments):
        self.private_bus = self.bus()
        self.orvexd = self.daemon(self.private_bus, *arguments, defaults={"ORXBagURL": bag_url})
        return self.client(self.private_bus)

    def test_a_bad_bag_is_no_bag_and_the_next_good_one_serves(self):
        server, words = self.scripted_server(), self.server()
        client = self.start(server.url("/bag"))  # the start's own fetch finds no path

        def failures():
            return client.counter("com.kelvar.orvexd.bag.fetchesfailed")

        harness.wait_until(lambda: failures() == 1, "the first failure")
        client.configure()
        harness.wait_until(lambda: failures() == 2, "the second failure")
        bags = {
            "truncated": Answer('{"version": 1'), "shorter than it says": Answer("{}", length=1000),
            "array": Answer("[{}]"), "10 MB": Answer(json.dumps({"version": "x" * (10 * MEBIBYTE)})),
            "nested": Answer('{"a":' * 100000), "empty": Answer(""), "garbage": Answer(b"\xff\x00\xfe"),
            "503": Answer("{}", status=503), "reset": Reset(), "reset halfway": Reset(b"HTTP/1.1 200 OK\r\n\r\n{"),
            "file": redirect("file:///etc/passwd"), "plain HTTP": redirect("http://192.0.2.1/bag"),
        }
        for number, (name, answer) in enumerate(bags.items(), start=3):
            with self.subTest(name):
                server.script("/bag", answer)
                text, error = client.bag()
                self.assertEqual((text, error["domain"]), ("", "ORXErrorDomain"))
                harness.wait_until(lambda: failures() == number, "the failure")
        server.script("/bag", json.dumps({"search_url": words.url("/search")}))
        harness.wait_until(lambda: client.search().suggestions, "suggestions")
        self.assertEqual(list(self.orvexd.caches.glob("bag.plist*")), [self.orvexd.caches / "bag.plist"])

    def test_a_bag_that_comes_late_is_told_when_it_comes(self):
        server, words = self.scripted_server(), self.server()
        late = Held(Answer(json.dumps({"search_url": words.url("/search")})))
        server.script("/bag", late)
        client = self.start(server.url("/bag")).configure()
        self.assertIn("code", client.wait_for_signal("BagDidLoad")[1])
        self.assertEqual(client.search(query_id=3).reply, {})
        late.release()
        self.assertEqual(client.wait_for_signal("BagDidLoad", 2)[1], {})
        self.assertTrue(client.search().suggestions)
        self.assertEqual(len(server.requests_for("/bag")), 1)

    def test_wrong_types_in_a_bag_are_told_and_taken_as_absent(self):
        server, words = self.scripted_server(), self.server()
        wrong = {"version": [], "enabled": "x", "resources": 7, "timeout_interval_for_request": -1,
                 "user_agents": {}, "minimum_query_length": "long", "search_render_timeout": {}}
        server.script("/bag", json.dumps(wrong | {"search_url": words.url("/search")}))
        client = self.start(server.url("/bag")).configure()
        client.wait_for_signal("BagDidLoad")
        self.assertTrue(client.search().suggestions)
        for key in wrong:
            self.assertEqual(len(self.orvexd.log_lines(f" bag: {key} is ")), 1, self.orvexd.describe())

    def test_a_bad_search_answer_is_an_error_and_the_next_is_good(self):
        words, elsewhere, bags = self.server(), self.scripted_server(), self.scripted_server()
        elsewhere.script("/elsewhere", "[]")
        bags.script("/bag", json.dumps({"search_url": words.url("/search"), "timeout_interval_for_request": 0.5}))
        client = self.start(bags.url("/bag")).configure()
        client.wait_for_signal("BagDidLoad")
        for rule, code in (
                ({"action": "reset"}, -1005), ({"action": "stall"}, -1001), ({"action": "truncate"}, -1005),
                ({"action": "redirect", "value": "file:///etc/passwd"}, -1),
                ({"action": "redirect", "value": "http://192.0.2.1/"}, -1),
                ({"action": "bomb", "value": 16 * MEBIBYTE}, -1005)):
            with self.subTest(rule):
                words.misbehave(rule | {"path": "/search", "times": 0})
                query_id, reply, error = client.search(query_id=9)
                self.assertEqual((query_id, reply, error["domain"], error["code"]), (9, {}, "ORXURLErrorDomain", code))
                words.misbehave()
                self.assertTrue(client.search().suggestions)
        words.misbehave({"path": "/search", "action": "redirect",
                         "value": elsewhere.url("/elsewhere").replace("127.0.0.1", "localhost")})
        self.assertEqual(client.search().error, {})
        arrived, = elsewhere.requests_for("/elsewhere")
        self.assertEqual((arrived.query, arrived.headers["X-Kelvar-UserGuid"], "scenario" in str(arrived.headers)),
                         ([], None, False))

    def test_only_a_server_of_the_given_authority_is_believed(self):
        def openssl(*arguments):
            subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=self.directory)

        for name in ("ours", "other"):
            openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                    "-subj", f"/CN={name} authority", "-keyout", f"{name}.key", "-out", f"{name}.pem")
        (self.directory / "names").write_text("subjectAltName=IP:127.0.0.1\n")
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=server",
                "-keyout", "server.key", "-out", "server.csr")
        openssl("x509", "-req", "-in", "server.csr", "-CA", "ours.pem", "-CAkey", "ours.key", "-CAcreateserial",
                "-days", "2", "-extfile", "names", "-out", "server.pem")
        server = self.server("--tls-cert", f"{self.directory}/server.pem", "--tls-key", f"{self.directory}/server.key")
        for name, believed in (("other", False), ("ours", True)):
            with self.subTest(name):
                client = self.start(server.bag_url, "--ca-file", f"{self.directory}/{name}.pem").configure(name)
                self.assertEqual(client.wait_for_signal("BagDidLoad")[1] == {}, believed)
                self.assertEqual(len(client.search().suggestions) > 0, believed)
                self.orvexd.stop()


if __name__ == "__main__":
    unittest.main()
