#!/usr/bin/python3
"""A daemon that is killed at every write to a session file: what it had answered for is there."""

import signal
import subprocess
import unittest
from pathlib import Path

import harness

SCHEMA = Path(__file__).resolve().parent.parent / "core/feedback_records.proto"
START_SEARCH = 12
RECORDS_FIELD = 100


def varint(number):
    head = number & 0x7F
    return bytes([head]) if number < 0x80 else bytes([head | 0x80]) + varint(number >> 7)


def field(number, value):
    """A protocol-buffer field: a number, or bytes."""
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


def payload(identifier):
    return field(1, START_SEARCH) + field(16 + START_SEARCH, field(1, 1000) + field(2, identifier.encode()))


def whole_fields(file):
    """How many bytes of a message's beginning are whole fields."""
    def read_varint(at):
        number = shift = 0
        while True:
            number |= (file[at] & 0x7F) << shift
            at, shift = at + 1, shift + 7
            if file[at - 1] < 0x80:
                return number, at

    end = 0
    try:
        while end < len(file):
            key, at = read_varint(end)
            value, after = read_varint(at) if key & 7 != 1 else (0, at + 8)
            after += value if key & 7 == 2 else 0
            if after > len(file):
                break
            end = after
    except IndexError:
        pass
    return end


def records(directory):
    """The text form of every session file's whole part, as protoc reads it, and how many files were torn."""
    text, torn = "", 0
    for path in directory.glob("session.*"):
        file = path.read_bytes()
        end = whole_fields(file)
        torn += end < len(file)
        decoded = subprocess.run(["protoc", f"--proto_path={SCHEMA.parent}", "--decode=orvex.CXClientSession", SCHEMA.name],
                                 input=file[:end], capture_output=True, check=True)
        text += decoded.stdout.decode()
    return text, torn


class CrashTest(harness.Scenario):
    RECORDS = 4

    def script(self, client, name):
        """A session of a few records and its end; the identifiers of the records that were accepted, until the first
        call that failed."""
        accepted = []
        try:
            client.configure()
            for number in range(self.RECORDS):
                identifier = f"{name}-{number}"
                client.call("ReportFeedbackPayloadData", "ayt", payload(identifier), number)
                accepted.append(identifier)
            shown, _ = client.call("Feedback", "s", "")
            self.assertTrue(any(payload(accepted[0]) in bytes(record) for record in shown))
        except harness.dbus.DBusException as error:
            self.assertIn(error.get_dbus_name(), ("org.freedesktop.DBus.Error.NoReply",
                                                  "org.freedesktop.DBus.Error.ServiceUnknown",
                                                  "org.freedesktop.DBus.Error.Disconnected"))
        return accepted

    def test_a_record_that_was_answered_is_there_wherever_the_daemon_is_killed(self):
        bus = self.bus()
        torn_files = 0
        for moment in ("before", "middle", "after"):
            for nth in range(1, 100):
                crash = {"LD_PRELOAD": harness.program("crash_at_write.so"),
                         "ORVEX_CRASH_AT_WRITE": f"{moment} {nth}"}
                daemon = self.daemon(bus, variables=crash)
                accepted = self.script(self.client(bus), f"{moment}-{nth}")
                if len(accepted) == self.RECORDS:
                    daemon.send(signal.SIGTERM)
                status = daemon.wait()
                text, torn = records(daemon.caches)
                for identifier in accepted:
                    self.assertIn(f'identifier: "{identifier}"', text, daemon.describe())
                if status == 0:
                    break
                self.assertEqual(status, -signal.SIGKILL, daemon.describe())
                torn_files = torn
            self.assertGreater(nth, 1 + self.RECORDS, "the header and each record are a write of their own")
        self.assertGreater(torn_files, self.RECORDS)

        # They are no obstacle to the next start, and wait to be sent.
        daemon = self.daemon(bus)
        self.assertGreaterEqual(self.client(bus).status()["sessions_waiting"], torn_files)


if __name__ == "__main__":
    unittest.main()
