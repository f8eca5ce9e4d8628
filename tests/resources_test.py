#!/usr/bin/python3
"""What the server gives to keep: new, changed, unchanged, missing, removed and redirected files, across restarts and a
kill, and the signature of the installed applications. A download begins a minute after the bag that wants it, so each
step tries many resources at a time."""

import base64
import hashlib
import json
import os
import plistlib
import random
import struct
import unittest
import zlib

import harness
from scripted_server import Answer

HEADER = "X-Kelvar-Download-Identifier"


def decoded_signature(text):
    """(last two bytes of the version, ids), read with nothing of the daemon's."""
    raw = base64.b64decode(text, validate=True)
    crc, head, low, length, digest = struct.unpack(">IBBH4s", raw[:12])
    if crc != zlib.crc32(raw[4:]):
        raise AssertionError("checksum")
    bitmap = raw[12:]
    if head & 0x80:
        count = struct.unpack(">H", bitmap[:2])[0]
        lengths, values = bitmap[2:2 + count], bitmap[2 + count:]
        if len(bitmap) != 2 + count + (count + 7) // 8:
            raise AssertionError("stream")
        runs = (str(values[i // 8] >> (7 - i % 8) & 1) * (lengths[i] + 1) for i in range(count))
        bits = "".join(runs)
        bitmap = int(bits, 2).to_bytes(len(bits) // 8, "big")
    if len(bitmap) != length or hashlib.md5(bitmap).digest()[12:] != digest:
        raise AssertionError("bitmap")
    ids = {8 * i + bit for i, byte in enumerate(bitmap) for bit in range(8) if byte & 0x80 >> bit}
    return (head & 0x7f) << 8 | low, ids, bool(head & 0x80)


class ResourcesTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.private_bus = self.bus()
        self.web = self.scripted_server()

    def bag(self, resources):
        """Resources by identifier with their paths; none lists one without a URL."""
        urls = {identifier: self.web.url(path) for identifier, path in resources.items() if path}
        self.web.script("/bag", json.dumps({"version": "1", "download_resources_list": list(resources)} | urls))

    def start(self, **options):
        daemon = self.daemon(self.private_bus, defaults={"ORXBagURL": self.web.url("/bag")}, **options)
        client = self.client(self.private_bus).configure()
        client.wait_for_signal("BagDidLoad")
        return daemon, client

    def asked(self, path):
        """(identifier, reason, If-None-Match) of each request for that path."""
        return [(request.headers[HEADER], request.headers["X-Kelvar-Download-Reason"], request.headers["If-None-Match"])
                for request in self.web.requests_for(path)]

    def content(self, client, identifier):
        file, attributes = client.call("FileHandleAndAttributesForResource", "s", identifier)
        with os.fdopen(file.take(), "rb") as opened:
            content = opened.read()
        self.assertEqual(attributes["size"], len(content))
        return content

    def saved(self, daemon):
        file = daemon.settings / "defaults.plist"
        return plistlib.loads(file.read_bytes()).get("download_resources", {}) if file.exists() else {}

    def forget_bag(self, daemon):
        (daemon.caches / "bag.plist").unlink(missing_ok=True)

    def test_resources_follow_the_bag_across_restarts_and_a_kill(self):
        names = ["same", "changed", "missing", "removed", "truncated", "bare"]
        self.bag({name: f"/{name}?version=1" for name in names} | {
            "lookup_hints_weekly": "/weekly", "bag.plist": None, "../climbs": "/climbs",
            "refused": "/refused?version=1"})
        for name in names:
            self.web.script(f"/{name}", f"{name} 1")
        self.web.script("/refused", Answer("no", status=404))
        self.web.script("/weekly", Answer(status=302, headers={"Location": "/hints/weekly/aaaa/bbbb/hints"}))
        self.web.script("/hints/weekly/aaaa/bbbb/hints", "hint words")
        daemon, client = self.start()
        wanted = {*names, "lookup_hints_weekly"}
        harness.wait_until(lambda: wanted <= self.saved(daemon).keys() and all(
            "url" in self.saved(daemon)[name] for name in wanted), lambda: f"the downloads of {daemon.describe()}")
        for name in names:
            self.assertEqual(self.content(client, name), f"{name} 1".encode())
        self.assertEqual({arguments[0] for name, arguments in client.signals if name == "DidDownloadResource"}, wanted)
        self.assertEqual(client.counter("com.kelvar.orvexd.bag.resourcefilesfetched"), 2 * len(wanted))
        self.assertEqual(self.asked("/same"), [("same", "update", None)])
        self.assertEqual(self.web.requests_for("/climbs"), [])
        self.assertTrue((daemon.caches / "bag.plist").exists())
        detectors = daemon.state / "data-detectors"
        self.assertEqual((detectors / "2").read_text(), "hint words")
        self.assertEqual((detectors / "2.signature").read_text(), "aaaa-bbbb-weekly")
        for name in ("refused", "bag.plist", "session.1", "../climbs", ""):
            opened = client.call_async("FileHandleAndAttributesForResource", "s", name)
            self.assertEqual(opened.error_name(), "com.kelvar.orvexd.Error.NotFound", name)
        written = self.directory / "written"
        tool = self.run_program("orvex_tool", "--bus", self.private_bus.address, "--json", "resource", "same", "-o",
                                str(written))
        self.assertEqual((tool.wait(), json.loads(tool.out[0])["size"], written.read_text()), (0, 6, "same 1"))
        daemon.kill()

        (daemon.caches / "missing").unlink()
        self.forget_bag(daemon)
        self.bag({"same": "/same?version=1", "changed": "/changed?version=2", "missing": "/missing?version=1",
                  "truncated": "/truncated?version=2", "bare": None, "lookup_hints_weekly": "/weekly"})
        for name in ("changed", "missing"):
            self.web.script(f"/{name}", f"{name} 2")
        self.web.script("/truncated", Answer("half", length=1000), "truncated 2")
        self.web.script("/weekly", Answer(status=304))
        daemon, client = self.start()
        harness.wait_until(lambda: self.saved(daemon).get("changed", {}).get("url", "").endswith("version=2") and
                           (daemon.caches / "missing").exists() and len(self.asked("/weekly")) == 2,
                           lambda: f"the changes of {daemon.describe()}")
        harness.wait_until(lambda: self.saved(daemon)["truncated"]["url"].endswith("version=2"), "another attempt")
        for name, content in {"same": "same 1", "changed": "changed 2", "missing": "missing 2",
                              "truncated": "truncated 2"}.items():
            self.assertEqual(self.content(client, name), content.encode())
        self.assertEqual(self.asked("/same"), [("same", "update", None)])
        self.assertEqual(self.asked("/changed")[1:], [("changed", "update", "1")])
        self.assertEqual(self.asked("/missing")[1:], [("missing", "missing", None)])
        self.assertEqual(self.asked("/weekly")[1:], [("lookup_hints_weekly", "lookup", "aaaa-bbbb-weekly")])
        self.assertEqual((detectors / "2").read_text(), "hint words")
        for name in ("removed", "bare"):
            self.assertFalse((daemon.caches / name).exists())
            self.assertNotIn(name, self.saved(daemon))
        daemon.kill()

    def application(self, name, version):
        share = self.directory / "home/data"
        for kind in ("applications", "metainfo"):
            (share / kind).mkdir(parents=True, exist_ok=True)
        (share / f"applications/{name}.desktop").write_text("[Desktop Entry]\nType=Application\n")
        (share / f"metainfo/{name}.xml").write_text(
            f"<component><id>{name}</id><releases><release version='{version}'/></releases></component>")

    def test_an_independent_decoder_reads_the_ids_of_random_sets_of_applications(self):
        rolls = random.Random(11)
        caches = self.directory / "home/cache/com.kelvar.orvexd"
        caches.mkdir(parents=True, mode=0o700)
        names = [f"org.example.app{number}" for number in range(60)]
        for number, name in enumerate(names):
            self.application(name, f"1.{number}")
        self.application("org.example.unlisted", "1")
        for bound in (60, 500, 20_000, 524_280):
            with self.subTest(bound):
                ids = {name: rolls.randrange(bound) for name in rolls.sample(names, 40)}
                version = rolls.randbytes(rolls.randrange(2, 6))
                listed = {name: [{"encoding_id": 1}, {"encoding_id": number}] for name, number in ids.items()}
                listed["org.example.absent"] = [{"encoding_id": 7}]
                inner = json.dumps({"version": version.hex(), "apps": listed})
                (caches / "installed_app_whitelist").write_text(
                    json.dumps({"compression": "RLE", "encoding": "bitmap", "apps": inner}))
                daemon = self.daemon(self.private_bus)
                daemon.wait_for_log("installed app signature: ")
                settings = daemon.settings / "defaults.plist"
                signature = harness.wait_until(
                    lambda: settings.exists() and plistlib.loads(settings.read_bytes()).get("ORXAppWhitelistSignature"),
                    "the signature")
                greatest = max(ids.values())
                told = set(ids.values()) - ({greatest} if greatest % 8 == 0 else set())
                number, read, _ = decoded_signature(signature)
                self.assertEqual((number, read), (int.from_bytes(version[-2:], "big") & 0x7fff, told))
                tool = self.run_program("orvex_tool", "--json", "signature", signature)
                self.assertEqual(json.loads(tool.out[0])["ids"], sorted(told))
                self.assertEqual(daemon.stop(), 0)
                settings.unlink()


if __name__ == "__main__":
    unittest.main()
