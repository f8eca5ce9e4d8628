#!/usr/bin/python3
"""What the device tells is in the next request: its services on a system bus of the test's own, and its files."""

import json
import shutil
import subprocess
import sys
import unittest
from pathlib import Path
from urllib.parse import parse_qsl, urlsplit

import dbus

import harness
from scripted_server import Answer

MOCK = "org.freedesktop.DBus.Mock"
NOT_LOCATED = "Location determination failed with error"


class DeviceContextTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.system = self.bus()
        self.system_client = self.system.connect()
        self.addCleanup(self.system_client.close)
        self.server = self.scripted_server()
        self.server.script("/search", Answer("[]"))
        self.private_bus = self.bus()

    def mock(self, template, name):
        return self.mock_service(self.system, template, name)

    def tell(self, name, path, interface, member, signature, *arguments):
        return self.system_client.call_blocking(name, path, interface, member, signature, arguments)

    def locate(self, *place):
        """Once the daemon wants to know: as its client it has started."""
        def started():
            return self.tell("org.freedesktop.GeoClue2", "/org/freedesktop/GeoClue2/Client/1", MOCK, "GetMethodCalls",
                             "s", "Start")
        harness.wait_until(started, "the start of the location")
        self.tell("org.freedesktop.GeoClue2", "/org/freedesktop/GeoClue2/Manager", MOCK, "Locate", "ddd", *place)

    def change_locale(self, name, value):
        self.tell("org.freedesktop.locale1", "/org/freedesktop/locale1", MOCK, "Change", "sv", name, value)

    def start(self, sources=("gps", "wifi"), wrapper=(), **bag):
        self.server.script("/bag", json.dumps({
            "version": 1, "search_url": self.server.url("/search"), "supported_geo_location_sources": sources,
            "subscription_provider_domain_whitelist": [],
            "subscription_provider_bundle_identifier_whitelist": []} | bag))
        self.orvexd = self.daemon(self.private_bus, "--log-level", "debug", wrapper=wrapper,
                                  defaults={"ORXBagURL": self.server.url("/bag")},
                                  variables={"DBUS_SYSTEM_BUS_ADDRESS": self.system.address})
        self.user = self.client(self.private_bus).configure()
        self.user.wait_for_signal("BagDidLoad")

    def next_request(self):
        """Query items and headers of a query that is asked now."""
        sent = self.user.request("zero_keyword", verbose_reply=True).reply["http_request"]
        return dict(parse_qsl(urlsplit(sent["url"]).query, keep_blank_values=True)) | sent["headers"]

    def wait_for_request(self, **expected):
        """Until a request tells these; None: does not tell them."""
        def told():
            request = self.next_request()
            return all(request.get(name.replace("_", "-") if name.startswith("X_") else name) == value
                       for name, value in expected.items())
        harness.wait_until(told, lambda: f"a request with {expected}, not {self.next_request()}")

    def wait_for_bags(self, count):
        harness.wait_until(lambda: self.user.counter("com.kelvar.orvexd.bag.fetches") == count, f"{count} bags")

    def test_each_service_is_followed_and_only_locale_and_country_ask_for_a_bag(self):
        self.mock(harness.MOCKS / "locale1.py", "org.freedesktop.locale1")
        self.mock(harness.MOCKS / "geoclue2.py", "org.freedesktop.GeoClue2")
        self.mock("timedated", "org.freedesktop.timedate1")
        self.start()
        self.wait_for_request(kb_ime="ch", locale="en_US", cc="DE", time_zone="Europe/Berlin", latlng=None)

        self.locate(52.52, 13.405, 12.0)
        self.wait_for_request(latlng="52.520000,13.405000", geosrc="gps,12.000000")
        self.locate(52.5, 13.5, 400.0)
        self.wait_for_request(latlng="52.500000,13.500000", geosrc="wifi,400.000000")
        self.locate(52.5, 13.5, 5000.0)
        self.wait_for_request(latlng=None, geosrc="bagno.cell")

        timedate = ("org.freedesktop.timedate1", "/org/freedesktop/timedate1", "org.freedesktop.timedate1")
        self.tell(*timedate, "SetTimezone", "sb", "Europe/Busingen", False)
        self.wait_for_request(time_zone="Europe/Busingen", cc="DE")
        self.change_locale("X11Layout", "fr")
        self.wait_for_request(kb_ime="fr")
        self.change_locale("Locale", dbus.Array(["LANG=fr_FR.UTF-8"], signature="s"))
        self.wait_for_request(locale="fr_FR", esl="fr-FR", X_Kelvar_Languages='["fr-FR"]')
        self.wait_for_bags(2)
        self.tell(*timedate, "SetTimezone", "sb", "Asia/Tokyo", False)
        self.wait_for_request(time_zone="Asia/Tokyo", cc="JP")

        self.wait_for_bags(3)
        fetched = [dict(request.query) for request in self.server.requests_for("/bag")]
        self.assertEqual([(query["cc"], query["locale"]) for query in fetched],
                         [("DE", "en_US"), ("DE", "fr_FR"), ("JP", "fr_FR")])

    def test_a_service_or_the_whole_system_bus_may_die_in_the_middle(self):
        locale = self.mock(harness.MOCKS / "locale1.py", "org.freedesktop.locale1")
        location = self.mock(harness.MOCKS / "geoclue2.py", "org.freedesktop.GeoClue2")
        self.start()
        self.wait_for_request(kb_ime="ch")
        self.orvexd.wait_for_log("location service: starting -> updating")
        locale.kill()
        location.kill()
        self.orvexd.wait_for_log(f"{NOT_LOCATED} the location service has gone")
        self.wait_for_request(kb_ime="ch", geosrc="slow", latlng=None)
        self.orvexd.wait_for_log(f"{NOT_LOCATED} no client")

        self.mock(harness.MOCKS / "geoclue2.py", "org.freedesktop.GeoClue2")
        self.wait_for_request(geosrc="slow")
        self.locate(1.0, 2.0, 12.0)
        self.wait_for_request(latlng="1.000000,2.000000")
        self.system.kill()
        self.orvexd.wait_for_log("the system bus has gone away")
        self.wait_for_request(latlng="1.000000,2.000000", kb_ime="ch")

    def test_subscription_and_policy_files_are_followed(self):
        # The policy is the machine's, so the daemon sees an /etc of the test's own, which takes a mount of ours.
        etc = self.directory / "etc"
        (etc / "orvexd").mkdir(parents=True)
        for name in ("passwd", "ld.so.cache"):
            shutil.copy(f"/etc/{name}", etc)
        wrapper = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc && exec "$@"', str(etc))
        may_mount = subprocess.run([*wrapper, "true"], capture_output=True, check=False).returncode == 0
        self.start(wrapper=wrapper if may_mount else ())
        self.wait_for_request(storefront=None, X_Kelvar_Subscriptions=None, mode=None)

        subscriptions = self.orvexd.settings / "subscriptions.json"
        subscriptions.parent.mkdir(parents=True, exist_ok=True)
        subscriptions.write_text('{"storefront": "143443", "weft": true}')
        told = '[{"provider":"weft","attribute":"premium","active":true}]'
        self.wait_for_request(storefront="143443", X_Kelvar_Subscriptions=told)
        subscriptions.write_text('{"storefront": "1')
        self.orvexd.wait_for_log("Error fetching third party subscription information from daemon")
        self.wait_for_request(storefront="143443", X_Kelvar_Subscriptions=told)
        subscriptions.unlink()
        self.wait_for_request(storefront=None, X_Kelvar_Subscriptions=None)

        if may_mount:
            policy = etc / "orvexd/policy.json"
            policy.write_text('{"managed_account": true}')
            self.wait_for_request(mode="managed")
            policy.write_bytes(bytes(100 << 20))
            self.orvexd.wait_for_log("the policy stays as it was")
            self.wait_for_request(mode="managed")
            policy.write_text("{}")
            self.wait_for_request(mode=None)
        self.assertEqual(len(self.server.requests_for("/bag")), 1)


class ProxyTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.scripted_server()
        self.server.script("/search", Answer("[]"))
        self.private_bus = self.bus()

    def proxy(self, *arguments):
        program = Path(__file__).resolve().parent / "connect_proxy.py"
        process = self._keep(harness.Process([sys.executable, str(program), *arguments], self.environment()))
        process.url = "http://127.0.0.1:" + harness.wait_until(lambda: process.out, "the proxy's port")[0].split()[-1]
        return process

    def answer_through(self, proxy_url):
        """What a search comes to whose bag names that proxy, with the daemon that was asked."""
        self.server.script("/bag", json.dumps({
            "version": 1, "search_url": self.server.url("/search"), "timeout_interval_for_request": 3,
            "cindora_configuration": {"appRule": {"enable": {"Enabled": True}}, "proxy_url": proxy_url}}))
        daemon = self.daemon(self.private_bus, home=self.directory / str(len(self._processes)),
                             defaults={"ORXBagURL": self.server.url("/bag")})
        client = self.client(self.private_bus).configure()
        client.wait_for_signal("BagDidLoad")
        return client.search("x"), daemon

    def test_queries_go_through_the_proxy_of_the_bag_and_not_around_it(self):
        working, silent = self.proxy(), self.proxy("--silent")
        answer, daemon = self.answer_through(working.url)
        self.assertEqual(bytes(answer.reply["data"]), b"[]")
        self.assertEqual(working.out[1:], [f"CONNECT {urlsplit(self.server.url('/')).netloc}"])
        self.assertEqual(daemon.log_lines("Enabling Cindora for request failed."), [])
        self.assertEqual(daemon.stop(), 0)

        answer, daemon = self.answer_through(silent.url)
        self.assertEqual((answer.reply, answer.error["domain"], answer.error["code"]), ({}, "ORXURLErrorDomain", -1001))
        self.assertEqual(daemon.stop(), 0)
        silent.kill()
        answer, daemon = self.answer_through(silent.url)
        self.assertEqual((answer.reply, answer.error["code"]), ({}, -1004))
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(len(self.server.requests_for("/search")), 1)

    def test_a_proxy_that_the_url_rule_refuses_is_none_and_queries_go_direct(self):
        answer, daemon = self.answer_through("http://proxy.example:3128")
        self.assertEqual(bytes(answer.reply["data"]), b"[]")
        daemon.wait_for_log("NSP configuration failed.")
        daemon.wait_for_log("Enabling Cindora for request failed.")


if __name__ == "__main__":
    unittest.main()
