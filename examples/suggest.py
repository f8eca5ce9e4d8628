#!/usr/bin/python3
"""Suggestions while the user types, over plain D-Bus: what suggest.cpp does, without a library of orvexd's.

Each line of standard input is what is in the search field by now; an empty line is the Enter key, which picks the first
suggestion. Needs python3-gi.
"""

import json
import os
import sys

from gi.repository import Gio, GLib

NAME = "com.kelvar.orvexd"
PATH = "/com/kelvar/orvexd"
DAEMON = "com.kelvar.orvexd.Daemon"
PATIENCE = 90_000  # milliseconds: longer than the daemon takes for anything
TYPED = 24  # the trigger event of a search as the user types


def tell(*words):
    print(*words, flush=True)


def suggestions_in(body):
    """The texts that the server suggests: its body is a list of result sets."""
    try:
        sets = json.loads(body)
    except ValueError:
        return []
    texts = [result.get("suggestion") for result in sets if isinstance(result, dict)] if isinstance(sets, list) else []
    return [text for text in texts if isinstance(text, str)]


class SearchField:
    def __init__(self, bus, loop):
        self.bus, self.loop = bus, loop
        self.text, self.suggestions = "", []
        self.newest = self.shown = 0
        self.under_way = 0
        self.is_told = False  # the daemon, who calls
        self.reads, self.picks = True, False
        self.rest = b""
        # Signals come to this connection alone; of the daemon's name, so that nobody else's are taken for its own.
        bus.signal_subscribe(NAME, DAEMON, "BagDidLoad", PATH, None, Gio.DBusSignalFlags.NONE, self.bag_did_load)
        Gio.bus_watch_name_on_connection(bus, NAME, Gio.BusNameWatcherFlags.NONE, self.daemon_came, self.daemon_went)
        GLib.unix_fd_add_full(GLib.PRIORITY_DEFAULT, 0, GLib.IOCondition.IN | GLib.IOCondition.HUP, self.read)

    def call(self, member, arguments, done):
        """The bus starts a daemon where none is. It is told first: calls of one connection come in order."""
        if not self.is_told:
            self.configure()
        self.send(member, arguments, done)

    def send(self, member, arguments, done):
        def answered(bus, result):
            self.under_way -= 1
            try:
                done(*bus.call_finish(result).unpack())
            except GLib.Error as error:
                print(error.message, file=sys.stderr, flush=True)
            self.end_when_done()

        self.under_way += 1
        self.bus.call(NAME, PATH, DAEMON, member, arguments, None, Gio.DBusCallFlags.NONE, PATIENCE, None, answered)

    def configure(self):
        self.is_told = True
        configuration = {"identifier": GLib.Variant("s", "com.example.suggest"),
                         "user_agent": GLib.Variant("s", "suggest/1.0")}
        self.send("Configure", GLib.Variant("(a{sv})", (configuration,)), lambda: None)

    def daemon_came(self, bus, name, owner):
        tell("daemon: here")
        if not self.is_told:
            self.configure()

    def daemon_went(self, bus, name):
        tell("daemon: gone")
        self.is_told = False

    def bag_did_load(self, bus, sender, path, interface, signal, arguments):
        bag, error = arguments.unpack()
        tell("configuration:", error.get("reason", "failed") if error else "loaded")

    def read(self, descriptor, condition):
        piece = os.read(descriptor, 4096)
        self.reads = bool(piece)
        *lines, self.rest = (self.rest + piece).split(b"\n")
        for line in lines:
            self.take(line.decode(errors="replace"))
        self.end_when_done()
        return self.reads

    def take(self, line):
        if line:
            self.search(line)
            return
        self.picks = True
        if self.shown == self.newest:
            self.pick()

    def search(self, text):
        self.text, self.picks = text, False
        self.newest += 1
        request = {"query_id": GLib.Variant("t", self.newest), "query_string": GLib.Variant("s", text),
                   "trigger_event": GLib.Variant("u", TYPED)}
        self.call("Request", GLib.Variant("(sa{sv})", ("search", request)), self.answered)

    def answered(self, query_id, reply, error):
        if error:
            print(error.get("reason", "failed"), error["domain"], error["code"], file=sys.stderr, flush=True)
        elif query_id == self.newest:  # else the user has typed on
            self.shown = query_id
            self.suggestions = suggestions_in(bytes(reply.get("data", b"")))
            tell(f"{self.text}:", "", "  ".join(self.suggestions))
            if self.picks:
                self.pick()

    def pick(self):
        self.picks = False
        if self.suggestions:
            completion = GLib.Variant("(ss)", (self.suggestions[0], self.text))
            self.call("AddCompletion", completion, lambda: tell("remembered"))

    def end_when_done(self):
        if not self.reads and not self.under_way:
            self.loop.quit()


def main():
    loop = GLib.MainLoop()
    try:
        bus = Gio.bus_get_sync(Gio.BusType.SESSION)
    except GLib.Error as error:
        sys.exit(error.message)
    SearchField(bus, loop)
    loop.run()


if __name__ == "__main__":
    main()
