"""The processes of a scenario: a private bus, the reference server, the daemon, and clients, all in one directory.

Every wait is for a condition and ends with it; DEADLINE only says when to give up. Binaries are found in the directory
that the environment variable ORVEX_BIN names, without it in that of the release preset. A scenario is a `Scenario` test case:

    def test_a_word_has_suggestions(self):
        bus, server = self.bus(), self.server()
        daemon = self.daemon(bus, defaults={"ORXBagURL": server.bag_url})
        client = self.client(bus).configure()
        client.wait_for_signal("BagDidLoad")
        answer = client.request("search", query_id=1, query_string="apple")
"""

import ctypes
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.request
from collections import namedtuple
from pathlib import Path

import dbus
import dbus.bus
import dbus.mainloop.glib
from gi.repository import GLib

from scripted_server import ScriptedServer

MOCKS = Path(__file__).resolve().parent / "mocks"

DEADLINE = 120  # seconds; a sanitizer's build on a busy machine is slow

NAME = "com.kelvar.orvexd"
PATH = "/com/kelvar/orvexd"
DAEMON = "com.kelvar.orvexd.Daemon"
DIAGNOSTICS = "com.kelvar.orvexd.Diagnostics"
LAUNCH_EVENTS = "com.kelvar.orvexd.LaunchEvents"
NO_REPLY = "com.kelvar.orvexd.Error.NoReply"
INVALID_CONFIGURATION = "com.kelvar.orvexd.Error.InvalidConfiguration"
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded"

# What XDG and the locale say is part of a scenario, so nothing of them is inherited.
_INHERITED = ("PATH", "LD_LIBRARY_PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
_libc = ctypes.CDLL(None)


def program(name):
    release = Path(__file__).resolve().parent.parent / "build/release/bin"
    return str(Path(os.environ.get("ORVEX_BIN", release)) / name)


def wait_until(condition, what):
    """Serves the bus connections until `condition()` is true, and returns what it gave. `what` is text, or makes it."""
    context = GLib.MainContext.default()
    end = time.monotonic() + DEADLINE
    while True:
        while context.iteration(False):
            pass
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"gave up waiting for {what() if callable(what) else what}")
        wake_up = GLib.timeout_add(10, lambda: GLib.SOURCE_REMOVE)
        context.iteration(True)
        if context.find_source_by_id(wake_up):
            GLib.source_remove(wake_up)


class Process:
    """A child of the test, with what it wrote so far, line by line, on standard output and on standard error."""

    def __init__(self, arguments, environment, stdin=subprocess.DEVNULL):
        self.arguments = arguments
        self.out, self.log = [], []
        self._process = subprocess.Popen(arguments, stdin=stdin, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, env=environment, preexec_fn=self._end_with_the_test)
        self._readers = [threading.Thread(target=self._read, args=pair, daemon=True) for pair in
                         ((self._process.stdout, self.out), (self._process.stderr, self.log))]
        for reader in self._readers:
            reader.start()

    @staticmethod
    def _end_with_the_test():
        _libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: a test that is killed leaves nothing behind

    @staticmethod
    def _read(stream, lines):
        with stream:
            for line in stream:
                lines.append(line.decode(errors="backslashreplace").rstrip("\n"))

    @property
    def pid(self):
        return self._process.pid

    @property
    def running(self):
        return self._process.poll() is None

    def type(self, text):
        self._process.stdin.write(text.encode())
        self._process.stdin.flush()

    def end_input(self):
        self._process.stdin.close()

    def send(self, number):
        self._process.send_signal(number)

    def wait(self):
        """The exit status, once it has ended and all it wrote is in `out` and `log`."""
        wait_until(lambda: not self.running, lambda: f"the end of {self.describe()}")
        for reader in self._readers:
            reader.join(DEADLINE)
        if self._process.stdin:
            self.end_input()
        return self._process.returncode

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait()

    def kill(self):
        """As a crash would: it can do nothing about it."""
        return self.stop(signal.SIGKILL)

    def wait_for_log(self, text, count=1):
        """The lines of standard error that hold `text`, once there are `count` of them."""
        def found():
            lines = self.log_lines(text)
            if len(lines) >= count:
                return lines
            if not self.running and not any(reader.is_alive() for reader in self._readers):
                raise AssertionError(f"ended without logging {text!r}: {self.describe()}")
            return None
        return wait_until(found, lambda: f"the log line {text!r} of {self.describe()}")

    def log_lines(self, text):
        return [line for line in list(self.log) if text in line]

    def describe(self):
        state = "running" if self.running else f"status {self._process.returncode}"
        return f"{' '.join(self.arguments)} ({state})\n  " + "\n  ".join(self.out[-20:] + self.log[-60:])


class PrivateBus(Process):
    """A session bus of the scenario's own. It starts no services but those that the scenario lets it start: the
    standard configuration would start those that are installed, an orvexd among them."""

    CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
     "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
    <busconfig>
      <type>session</type>
      <listen>{address}</listen>
      <auth>EXTERNAL</auth>
      <servicedir>{services}</servicedir>
      <policy context="default">
        <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
      </policy>
      <limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
      <limit name="max_message_size">1000000000</limit><limit name="max_replies_per_connection">50000</limit>
      <limit name="max_completed_connections">100000</limit><limit name="max_connections_per_user">100000</limit>
      <limit name="max_pending_service_starts">10000</limit><limit name="service_start_timeout">120000</limit>
    </busconfig>"""

    def __init__(self, directory, environment):
        self.address = f"unix:path={directory}/bus"
        configuration = Path(directory) / "bus.conf"
        configuration.write_text(self.CONFIGURATION.format(
            address=self.address, services=f"{environment['XDG_DATA_HOME']}/dbus-1/services"))
        super().__init__(["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile",
                          "--print-address=1"], environment)
        wait_until(lambda: self.out or not self.running, "the private bus")
        if not self.out:
            raise AssertionError(f"no bus: {self.describe()}")

    def connect(self):
        """A connection of its own, with a unique name of its own."""
        return dbus.bus.BusConnection(self.address)


class ReferenceServer(Process):
    def __init__(self, arguments, environment):
        super().__init__([program("orvex_service"), *arguments], environment)
        wait_until(lambda: self._port_line() or not self.running, "the reference server's port")
        if not self._port_line():
            raise AssertionError(f"no reference server: {self.describe()}")
        self.port = int(self._port_line().split()[-1])
        self._scheme = "https" if "--tls-cert" in arguments else "http"

    def _port_line(self):
        return next((line for line in list(self.out) if line.startswith("listening on ")), None)

    def url(self, path):
        return f"{self._scheme}://127.0.0.1:{self.port}{path}"

    @property
    def bag_url(self):
        return self.url("/bag")

    def misbehave(self, *rules):
        """These rules of docs/reference-server.md and no others. Forgets the requests so far."""
        self._control(None, "DELETE")
        self._control(json.dumps(rules).encode(), "POST")

    def state(self):
        return json.loads(self._control(None, "GET"))

    def _control(self, body, method):
        request = urllib.request.Request(self.url("/control"), body, method=method)
        with urllib.request.urlopen(request, timeout=DEADLINE) as answer:
            return answer.read()


class Daemon(Process):
    """orvexd. Its directories are those of the environment, so a second one with the same `home` is a restart."""

    def __init__(self, bus, home, arguments, defaults, environment, wrapper=()):
        self.home = Path(home)
        self._observer = bus.connect()
        # The bag of a scenario without a server is refused at once; nothing asks the network. None: as stored.
        defaults = {"ORXBagURL": "http://127.0.0.1:9/bag"} | defaults
        values = [part for key, value in defaults.items() if value is not None
                  for part in ("--default", f"{key}={value}")]
        super().__init__([*wrapper, program("orvexd"), "--bus", bus.address, *values, *arguments], environment)

    @property
    def caches(self):
        return self.home / "cache/com.kelvar.orvexd"

    @property
    def state(self):
        return self.home / "state/com.kelvar.orvexd"

    @property
    def settings(self):
        return self.home / "config/com.kelvar.orvexd"

    def wait_until_ready(self):
        """Returns once this very process owns the name."""
        wait_until(lambda: self._owns_name() or not self.running, lambda: f"the name of {self.describe()}")
        if not self.running:
            raise AssertionError(f"did not start: {self.describe()}")
        return self

    def _owns_name(self):
        try:
            return self._observer.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "GetConnectionUnixProcessID", "s",
                                                [NAME]) == self.pid
        except dbus.DBusException:
            return False


class Answer(namedtuple("Answer", "query_id reply error")):
    @property
    def suggestions(self):
        """The texts that the reference server suggested; none without a reply."""
        return [result["suggestion"] for result in json.loads(bytes(self.reply.get("data", b"[]")))]


# The types of a request's entries; an entry that is not here goes out as dbus-python guesses.
_ENTRY_TYPES = {
    "query_id": dbus.UInt64,
    "scale": dbus.Double,
    "verbose_reply": dbus.Boolean,
    "trigger_event": dbus.UInt32,
    "query_items": lambda items: dbus.Array(items, signature="(ss)"),
    "lookup_selection_type": dbus.UInt32,
    "flight_date": dbus.Double,
}


def _typed(entries):
    # A value that has a bus type already keeps it: that is how a test sends a wrong one.
    return dbus.Dictionary({key: value if type(value).__module__ == "dbus" else _ENTRY_TYPES.get(key, lambda v: v)(value)
                            for key, value in entries.items()}, signature="sv")


class Call:
    """A call whose answer is still to come. Its end is `result()`, or `error_name()` when it failed."""

    def __init__(self, what):
        self._what = what
        self._result = self._error = None
        self.done = False

    def succeed(self, *values):
        self._result, self.done = values, True

    def fail(self, error):
        self._error, self.done = error, True

    def wait(self):
        wait_until(lambda: self.done, f"the answer to {self._what}")
        return self

    def result(self):
        self.wait()
        if self._error:
            raise self._error
        return self._result[0] if len(self._result) == 1 else self._result

    def error_name(self):
        self.wait()
        return self._error.get_dbus_name() if self._error else None

    def error_message(self):
        self.wait()
        return self._error.get_dbus_message() if self._error else None


class Client:
    """One program on the bus, with its own connection and the signals that came to it."""

    def __init__(self, bus):
        self.connection = bus.connect()
        self.signals = []  # (name, arguments), in the order of arrival
        self._beginnings = (first + second for second in "aeiou" for first in "bcdfghklmnprstvw")
        self.connection.add_signal_receiver(self._received, dbus_interface=DAEMON, path=PATH, member_keyword="member")

    def _received(self, *arguments, member):
        self.signals.append((str(member), arguments))

    def close(self):
        self.connection.close()

    def call_async(self, member, signature="", *arguments, interface=DAEMON, path=PATH):
        call = Call(f"{interface}.{member}")
        self.connection.call_async(NAME, path, interface, member, signature, arguments, call.succeed, call.fail,
                                   timeout=DEADLINE)
        return call

    def call(self, member, signature="", *arguments, interface=DAEMON, path=PATH):
        return self.call_async(member, signature, *arguments, interface=interface, path=path).result()

    def configure(self, identifier="scenario", user_agent="scenario/1.0", **entries):
        self.call("Configure", "a{sv}", {"identifier": identifier, "user_agent": user_agent} | entries)
        return self

    def request_async(self, kind, **entries):
        return self.call_async("Request", "sa{sv}", kind, _typed(entries))

    def request(self, kind, **entries):
        return Answer(*self.request_async(kind, **entries).result())

    def search(self, text=None, query_id=1, **entries):
        """Without a text: for the next beginning of words, so that no answer is there from an earlier one."""
        return self.request("search", query_id=query_id, query_string=text or next(self._beginnings), **entries)

    def bag(self):
        """(the bag as JSON text, error)"""
        return self.call("Bag")

    def status(self):
        return self.call("Status", interface=DIAGNOSTICS)

    def counter(self, name):
        return int(self.call("Counters", interface=DIAGNOSTICS).get(name, 0))

    def introspect(self, path=PATH):
        return str(self.call("Introspect", interface="org.freedesktop.DBus.Introspectable", path=path))

    def wait_for_signal(self, name, count=1):
        """The arguments of the `count`th signal of that name."""
        def found():
            arrived = [arguments for member, arguments in self.signals if member == name]
            return arrived[count - 1:count]
        return wait_until(found, f"signal {count} of the name {name}")[0]


class Scenario(unittest.TestCase):
    """Starts processes in a directory of the test's own, and ends them with it. A daemon that a test leaves running is
    asked to stop, and its status must be 0: that is how a sanitizer's finding becomes a failure."""

    def setUp(self):
        self.directory = Path(tempfile.mkdtemp(prefix="orvex-"))
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self._processes = []
        self.addCleanup(self._end_processes)

    def environment(self, home=None, **variables):
        home = home or self.directory
        inherited = {name: os.environ[name] for name in _INHERITED if name in os.environ}
        return inherited | {
            "HOME": str(home), "LC_ALL": "en_US.UTF-8", "TZ": "Europe/Berlin", "TMPDIR": str(self.directory),
            "XDG_CONFIG_HOME": f"{home}/config", "XDG_CACHE_HOME": f"{home}/cache", "XDG_STATE_HOME": f"{home}/state",
            "XDG_DATA_HOME": f"{home}/data", "XDG_DATA_DIRS": f"{home}/share", "XDG_RUNTIME_DIR": str(self.directory),
            # No services of the machine that runs the test.
            "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.directory}/no-system-bus",
        } | variables

    def bus(self):
        return self._keep(PrivateBus(tempfile.mkdtemp(dir=self.directory), self.environment()))

    def activating_bus(self, *arguments):
        """A bus that starts the daemon, with these arguments, for the first call; what it says is in the bus's log."""
        services = self.directory / "data/dbus-1/services"
        services.mkdir(parents=True)
        command = [program("orvexd"), "--default", "ORXBagURL=http://127.0.0.1:9/bag", *arguments]
        (services / f"{NAME}.service").write_text(f"[D-BUS Service]\nName={NAME}\nExec={' '.join(command)}\n")
        return self.bus()

    def server(self, *arguments):
        return self._keep(ReferenceServer(arguments, self.environment()))

    def scripted_server(self):
        server = ScriptedServer()
        self.addCleanup(server.close)
        return server

    def start_daemon(self, bus, *arguments, defaults=None, home=None, variables=None, wrapper=()):
        """A daemon that may well fail to start. Without `home` it gets the scenario's. `wrapper` is a command that runs
        it in its own place."""
        home = Path(home or self.directory / "home")
        home.mkdir(exist_ok=True)
        environment = self.environment(home, **(variables or {}))
        return self._keep(Daemon(bus, home, arguments, defaults or {}, environment, wrapper))

    def daemon(self, bus, *arguments, **options):
        """A daemon that owns its name."""
        return self.start_daemon(bus, *arguments, **options).wait_until_ready()

    def client(self, bus):
        client = Client(bus)
        self.addCleanup(client.close)
        return client

    def start_program(self, name, *arguments, **variables):
        return self._keep(Process([program(name), *arguments], self.environment(**variables)))

    def run_program(self, name, *arguments, **variables):
        """A program that ends by itself, when it has ended."""
        process = self.start_program(name, *arguments, **variables)
        process.wait()
        return process

    def mock_service(self, bus, template, name):
        """A service of python-dbusmock on that bus, system or session alike, once it is there."""
        process = self._keep(Process([sys.executable, "-m", "dbusmock", "--template", str(template)],
                                     self.environment(DBUS_SYSTEM_BUS_ADDRESS=bus.address,
                                                      DBUS_SESSION_BUS_ADDRESS=bus.address)))
        observer = bus.connect()
        wait_until(lambda: observer.name_has_owner(name) or not process.running, process.describe)
        # Answered once its template is loaded.
        observer.call_blocking(name, "/", "org.freedesktop.DBus.Peer", "Ping", "", [])
        observer.close()
        return process

    def start_typing_to(self, *arguments, **variables):
        """A program that reads what the scenario types."""
        return self._keep(Process(arguments, self.environment(**variables), stdin=subprocess.PIPE))

    def _keep(self, process):
        self._processes.append(process)
        return process

    def _end_processes(self):
        problems = []
        for process in reversed(self._processes):
            try:
                if process.running and process.stop() != 0 and isinstance(process, Daemon):
                    problems.append(f"did not end well: {process.describe()}")
            except AssertionError as gave_up:
                process.kill()
                problems.append(str(gave_up))
        self._processes.clear()
        self.assertEqual(problems, [])
