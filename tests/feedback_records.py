"""Feedback records in protobuf's text form, as the published file defines them, to and from the bytes of the bus."""

import subprocess
from pathlib import Path

_CORE = Path(__file__).resolve().parent.parent / "core"


def encoded(message, text):
    """The bytes of a message of that type, for instance `CXFeedbackPayload`."""
    return _protoc("--encode", message, text.encode())


def decoded(message, data):
    """Its text form, a field a line."""
    return _protoc("--decode", message, bytes(data)).decode()


def _protoc(direction, message, data):
    return subprocess.run(["protoc", f"{direction}=orvex.{message}", f"-I{_CORE}", "feedback_records.proto"], input=data,
                          stdout=subprocess.PIPE, check=True).stdout
