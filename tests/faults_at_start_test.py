#!/usr/bin/python3
"""What a machine can be like when the daemon starts: no home, broken files, no room, no bus, another daemon. It says
what it misses, serves all the same where it can, and touches nothing that is not its own."""

import fcntl
import itertools
import os
import plistlib
import socket
import subprocess
import sys
import unittest
from pathlib import Path

import harness
from feedback_records import decoded, encoded

BASES = ("config", "cache", "state")
VARIABLES = {base: f"XDG_{base.upper()}_HOME" for base in BASES}
VIEW_APPEARED = encoded("CXFeedbackPayload", "type: 1 search_view_appear { view_appear_event: 5 }")
INTERNAL = "com.kelvar.orvexd.Error.Internal"
NO_STATE = "no state directory, nothing will be kept"


def possible(*wrapper):
    """The command that runs another one in its own way, or none where this user or machine does not allow it."""
    allowed = subprocess.run([*wrapper, "true"], capture_output=True, check=False).returncode == 0
    return wrapper if allowed else None


# Root may write where a mode says no, unless it gives that up.
OBEYS_MODES = possible("setpriv", "--bounding-set=-dac_override,-dac_read_search") if os.geteuid() == 0 else ()


def contents(directory):
    """What lies in it, with what it holds."""
    def content(path):
        if path.is_symlink():
            return os.readlink(path)
        return path.read_bytes() if path.is_file() else path.stat().st_mode
    return {str(path.relative_to(directory)): content(path) for path in directory.rglob("*")}


class FaultsAtStartTest(harness.Scenario):
    def setUp(self):
        super().setUp()
        self.private_bus, self.bag_server = self.bus(), self.server()

    def home(self, name):
        home = self.directory / name
        home.mkdir()
        return home

    def start(self, home, wrapper=(), **variables):
        """A daemon that is ready and a client of it whose search was answered."""
        self.orvexd = self.daemon(self.private_bus, home=home, wrapper=wrapper, variables=variables,
                                  defaults={"ORXBagURL": self.bag_server.bag_url})
        self.user = self.client(self.private_bus).configure()
        self.user.wait_for_signal("BagDidLoad")
        self.assertTrue(self.user.search("apple").suggestions, self.orvexd.describe())
        return self.user

    def stop(self):
        self.assertEqual(self.orvexd.stop(), 0, self.orvexd.describe())

    def report(self):
        """How a feedback record was answered: no error when it is on disk."""
        return self.user.call_async("ReportFeedbackPayloadData", "ayt", VIEW_APPEARED, 1).error_name()

    def set_scale(self, scale, configuration):
        written = self.run_program("orvex_tool", "defaults", "write", "ORXScreenScale", scale,
                                   XDG_CONFIG_HOME=str(configuration))
        self.assertEqual(written.wait(), 0, written.describe())

    def assert_serves_without_keeping(self, home, wrapper):
        before = contents(home)
        self.start(home, wrapper)
        self.assertEqual(self.report(), INTERNAL)
        self.assertEqual(self.user.call_async("AddCompletion", "ss", "apple", "app").error_name(), INTERNAL)
        self.stop()
        self.assertEqual(contents(home), before)

    def test_directories_that_cannot_be_had_cost_what_they_would_keep_and_no_more(self):
        def own(base):
            base.mkdir()
            return base / harness.NAME

        def link_to_a_directory(base):
            (base.parent / f"{base.name}.elsewhere").mkdir()
            own(base).symlink_to(f"../{base.name}.elsewhere")
        cases = {"file": lambda base: base.write_text("not ours"),
                 "own file": lambda base: own(base).write_text("not ours"),
                 "own link": link_to_a_directory,
                 "dangling link": lambda base: base.symlink_to("nowhere"),
                 "link to itself": lambda base: base.symlink_to(base.name)}
        if OBEYS_MODES is not None:
            cases["read-only"] = lambda base: base.mkdir(mode=0o500)
        for name, spoil in cases.items():
            with self.subTest(name):
                home = self.home(name)
                for base in BASES:
                    spoil(home / base)
                self.assert_serves_without_keeping(home, OBEYS_MODES or ())
                self.assertTrue(self.orvexd.log_lines(NO_STATE), self.orvexd.describe())

    def test_a_read_only_file_system_is_read_and_left_as_it_is(self):
        wrapper = possible("unshare", "--mount", "sh", "-c", 'mount --bind -o ro "$HOME" "$HOME" && exec "$@"', "-")
        if wrapper is None:
            return  # this user may not mount, and there is no other way to such a file system
        home = self.home("used")
        self.start(home)
        self.assertIsNone(self.report())
        self.orvexd.kill()
        for base in BASES:
            (home / base / harness.NAME / "left alone").touch()
        self.assert_serves_without_keeping(home, wrapper)
        self.assertTrue(self.orvexd.log_lines("Read-only file system"))

    def test_the_base_directories_are_found_by_the_rules(self):
        below_home = {"config": ".config", "cache": ".cache", "state": ".local/state"}
        cases = {"unset": ({}, below_home),
                 "empty": (dict.fromkeys(BASES, ""), below_home),
                 "relative": (dict.fromkeys(BASES, "somewhere/else"), below_home),
                 "linked, slash": ({base: f"{{home}}/link.{base}///" for base in BASES}, dict(zip(BASES, BASES)))}
        for name, (values, expected) in cases.items():
            with self.subTest(name):
                home, working = self.home(name), self.home(f"{name} working directory")
                for base in BASES:
                    (home / f"link.{base}").symlink_to(base)
                    (home / expected[base]).mkdir(parents=True)
                settings = home / expected["config"] / harness.NAME / "defaults.plist"
                settings.parent.mkdir()
                settings.write_bytes(plistlib.dumps({"ORXScreenScale": 2}))
                unset = [part for variable in VARIABLES.values() for part in ("-u", variable)]
                assigned = [f"{VARIABLES[base]}={value.format(home=home)}" for base, value in values.items()]
                self.start(home, ("env", f"--chdir={working}", *unset, *assigned))
                self.set_scale("3", home / expected["config"])
                words = (f"apple {number}" for number in itertools.count())
                harness.wait_until(lambda: self.user.search(next(words)).reply["scale"] == 3.0, "the new setting")
                self.assertIsNone(self.report())
                self.stop()
                for base, file in zip(BASES, ("defaults.plist", "bag.plist", "counters")):
                    self.assertTrue((home / expected[base] / harness.NAME / file).is_file(), file)
                self.assertEqual(contents(working), {})

    def test_without_a_home_it_serves(self):
        etc = self.directory / "etc"
        etc.mkdir()
        (etc / "passwd").touch()
        if Path("/etc/ld.so.cache").exists():
            (etc / "ld.so.cache").write_bytes(Path("/etc/ld.so.cache").read_bytes())
        unset = [part for variable in ("HOME", *VARIABLES.values()) for part in ("-u", variable)]
        wrapper = possible("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc && exec "$@"', str(etc),
                           "env", f"--chdir={self.directory}", *unset)
        if wrapper is None:
            return  # the user database of this machine has a home for us
        self.start(self.home("home"), wrapper)
        self.assertEqual(self.report(), INTERNAL)
        self.assertIn("there is no home directory", self.orvexd.log_lines(NO_STATE)[0])
        self.stop()
        self.assertEqual(contents(self.directory / "home"), {})

    def test_files_that_were_broken_by_hand_are_set_aside(self):
        # The whole file is wrong, or there is none: what can be read of counters is kept, so only the latter are moved.
        not_files = {"directory": Path.mkdir, "pipe": os.mkfifo, "link": lambda path: path.symlink_to("/etc/passwd"),
                     "huge": lambda path: path.touch() or os.truncate(path, 1 << 40)}
        good = {"ORXScreenScale": 3}
        wrong = {"empty": b"", "garbage": bytes(range(256)) * 20, "cut off": plistlib.dumps(good)[:-20],
                 "a list": plistlib.dumps([good])}
        cases = not_files | {name: lambda path, content=content: path.write_bytes(content)
                             for name, content in wrong.items()}
        home = self.home("home")
        settings, state = home / "config" / harness.NAME, home / "state" / harness.NAME
        for name, spoil in cases.items():
            with self.subTest(name):
                for path in (settings / "defaults.plist", state / "counters", state / "activities"):
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.unlink(missing_ok=True)
                    spoil(path)
                self.start(home)
                self.assertEqual(self.user.search().reply["scale"], 1.0)
                self.assertEqual(len(self.orvexd.log_lines("defaults.plist is broken and set aside")), 1)
                self.set_scale("2", home / "config")
                self.stop()
                self.assertEqual(plistlib.loads((settings / "defaults.plist").read_bytes())["ORXScreenScale"], 2)
                aside = {path.name for path in [*settings.iterdir(), *state.iterdir()] if ".corrupt" in path.name}
                self.assertEqual(aside, {"defaults.plist.corrupt", "counters.corrupt", "activities.corrupt"})
                self.assertIn(b"com.kelvar.orvexd.launch ", (state / "counters").read_bytes())

    @unittest.skipIf(OBEYS_MODES is None, "nothing is unreadable here")
    def test_files_that_cannot_be_read_are_not_overwritten(self):
        home = self.home("home")
        kept = {"config": "defaults.plist", "state": "counters"}
        for base, file in kept.items():
            path = home / base / harness.NAME / file
            path.parent.mkdir(parents=True)
            path.write_text("precious")
            path.chmod(0)
        self.start(home, OBEYS_MODES)
        self.assertTrue(self.orvexd.log_lines("user defaults stay as they were"))
        self.stop()
        self.assertEqual((home / "config" / harness.NAME / "defaults.plist").read_text(), "precious")
        self.assertEqual((home / "state" / harness.NAME / "counters.corrupt").read_text(), "precious")

    def test_without_a_bus_or_its_name_it_ends_with_status_3_and_says_so(self):
        owner = self.private_bus.connect()
        self.addCleanup(owner.close)
        owner.request_name(harness.NAME)
        cases = {"none": ({}, "no bus"), "nonsense": ({"DBUS_SESSION_BUS_ADDRESS": "nonsense"}, "no bus"),
                 "no runtime directory": ({"XDG_RUNTIME_DIR": ""}, "no bus"),
                 "the name is another's": ({"DBUS_SESSION_BUS_ADDRESS": self.private_bus.address},
                                           f"another program owns the bus name {harness.NAME}")}
        for name, (variables, message) in cases.items():
            with self.subTest(name):
                ended = self.run_program("orvexd", **variables)
                self.assertEqual(ended.wait(), 3, ended.describe())
                self.assertTrue(ended.log_lines(message), ended.describe())

    def test_a_start_that_waits_can_be_stopped(self):
        mute = socket.socket(socket.AF_UNIX)
        self.addCleanup(mute.close)
        mute.bind(str(self.directory / "mute"))
        mute.listen()
        address = f"unix:path={self.directory}/mute"
        waiting = self._keep(harness.Process([harness.program("orvexd"), "--bus", address], self.environment()))
        connection, _ = mute.accept()
        self.addCleanup(connection.close)
        self.assertEqual(waiting.stop(), 0, waiting.describe())

    def test_an_old_daemon_that_leaves_is_waited_for(self):
        home = self.home("home")
        (home / "state" / harness.NAME).mkdir(parents=True)
        with open(home / "state" / harness.NAME / "lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            lock.write("4711\n")
            lock.flush()
            impatient = self.start_daemon(self.private_bus, home=home)
            impatient.wait_for_log("another daemon (process 4711) holds")
            self.assertEqual(impatient.stop(), 0)
            patient = self.start_daemon(self.private_bus, home=home)
            patient.wait_for_log("waiting for it to leave")
        patient.wait_until_ready()

    def test_closed_standard_descriptors_lead_nowhere(self):
        self.start(self.home("closed"), ("sh", "-c", 'exec "$@" <&- >&- 2>&-', "-"))
        standard = [os.readlink(f"/proc/{self.orvexd.pid}/fd/{number}") for number in range(3)]
        self.assertEqual(standard, ["/dev/null"] * 3)
        self.stop()

    def test_a_log_that_nobody_reads_any_more_costs_nothing_else(self):
        without_a_reader = "import os, sys; os.dup2(os.pipe()[1], 2); os.execvp(sys.argv[1], sys.argv[1:])"
        self.start(self.home("home"), (sys.executable, "-c", without_a_reader))
        self.assertIsNone(self.report())
        self.stop()

    def test_without_room_what_was_accepted_is_on_disk_and_the_rest_is_refused(self):
        cases = {"no byte": possible("prlimit", "--fsize=0"), "a page": possible("prlimit", "--fsize=4096")}
        for name, wrapper in cases.items():
            with self.subTest(name):
                home = self.home(name)
                # The thread sanitizer's runtime would write a file of its own to TMPDIR before `main`, and die of it.
                self.start(home, wrapper, TMPDIR="/nonexistent")
                accepted = 0
                while (error := self.report()) is None:
                    accepted += 1
                self.assertEqual(error, INTERNAL)
                self.assertTrue(self.user.search().suggestions)
                self.stop()
                kept = "".join(decoded("CXClientSession", file.read_bytes())
                               for file in self.orvexd.caches.glob("session.*"))
                self.assertEqual(kept.count("view_appear_event: 5"), accepted)
                self.assertEqual(accepted > 0, name != "no byte")
                self.start(home)  # there is room again
                self.assertIsNone(self.report())
                self.stop()

    @unittest.skipIf("undefined" in os.environ.get("ORVEX_SANITIZE", ""),
                     "the sanitizer reads memory through a pipe, and takes what it cannot read for broken")
    def test_without_descriptors_every_call_is_answered(self):
        self.start(self.home("home"))
        used, log = len(os.listdir(f"/proc/{self.orvexd.pid}/fd")), []
        self.stop()
        for spare in (-3, 0):
            with self.subTest(spare):
                home, limit = self.home(f"spare {spare}"), used + spare
                daemon = self.daemon(self.private_bus, home=home, wrapper=("prlimit", f"--nofile={limit}"),
                                     defaults={"ORXBagURL": self.bag_server.bag_url})
                clients = [self.client(self.private_bus).configure(f"client {number}") for number in range(8)]
                calls = [client.request_async("search", query_id=1, query_string="app") for client in clients]
                self.assertEqual({call.error_name() for call in calls}, {None}, daemon.describe())
                self.assertIn("version", clients[0].status())
                self.assertEqual(daemon.stop(), 0, daemon.describe())
                log += daemon.log
        self.assertRegex("\n".join(log), "Too many open files|Couldn't connect|no descriptors to give")

    def test_a_stop_in_the_middle_of_a_call_keeps_what_was_accepted(self):
        self.start(self.home("home"))
        self.assertIsNone(self.report())
        self.bag_server.misbehave({"path": "/search", "action": "stall"})
        asked = self.user.request_async("search", query_id=2, query_string="pear")
        harness.wait_until(lambda: self.bag_server.state()["requests"].get("/search"), "the request")
        self.stop()
        self.assertEqual(asked.error_name(), "org.freedesktop.DBus.Error.NoReply")
        kept = "".join(decoded("CXClientSession", file.read_bytes()) for file in self.orvexd.caches.glob("session.*"))
        self.assertIn("view_appear_event: 5", kept)


if __name__ == "__main__":
    unittest.main()
