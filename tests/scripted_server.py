"""An HTTP server that does what the test says, badly too: wrong codes, half answers, lies about length, silence."""

import http.server
import socket
import struct
import threading
from collections import namedtuple
from urllib.parse import parse_qsl, urlsplit

# query: (name, value) pairs, decoded, in order; connection: the same for requests that came over the same one
Request = namedtuple("Request", "method path query headers body connection")


class Answer:
    """A whole answer. `length` is what Content-Length says when that is not the truth."""

    def __init__(self, body=b"", status=200, headers=None, length=None):
        self._body = body.encode() if isinstance(body, str) else body
        self._status, self._headers, self._length = status, headers or {}, length

    def give(self, handler):
        handler.send_response(self._status)
        length = len(self._body) if self._length is None else self._length
        for name, value in ({"Content-Type": "application/json", "Content-Length": str(length)} | self._headers).items():
            handler.send_header(name, value)
        handler.end_headers()
        handler.wfile.write(self._body)
        if length != len(self._body):
            handler.close_connection = True


class Reset:
    """The connection dies, without an answer or in the middle of one."""

    def __init__(self, after=b""):
        self._after = after

    def give(self, handler):
        handler.wfile.write(self._after)
        handler.wfile.flush()
        handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        handler.close_connection = True


class Held:
    """No answer until the test releases it with `release()`; then `answer`'s."""

    def __init__(self, answer):
        self._answer = answer
        self._released = threading.Event()

    def release(self):
        self._released.set()

    def give(self, handler):
        self._released.wait()
        self._answer.give(handler)


class ScriptedServer:
    """Serves on a port of its own until `close`. A path gives the answers of its script in turn, the last one again and
    again; a path without a script is a 404. `requests` holds what arrived, before it is answered."""

    def __init__(self):
        self.requests = []
        self._scripts = {}
        self._lock = threading.Lock()
        self._held = []
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"
            disable_nagle_algorithm = True

            def _serve(self):
                url = urlsplit(self.path)
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                server._answer_to(Request(self.command, url.path, parse_qsl(url.query, keep_blank_values=True),
                                          self.headers, body, self.client_address)).give(self)

            do_GET = do_POST = do_HEAD = _serve

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True
            request_queue_size = 512

            def shutdown_request(self, request):
                self.close_request(request)  # without the orderly end that would come before a reset

            def handle_error(self, request, client_address):
                pass  # the other side gave up, which is its right

        self._server = Server(("127.0.0.1", 0), Handler)
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def script(self, path, *answers):
        """Replaces the path's script. Text and bytes stand for a whole answer with that body."""
        answers = [answer if hasattr(answer, "give") else Answer(answer) for answer in answers]
        with self._lock:
            self._scripts[path] = answers
            self._held += [answer for answer in answers if isinstance(answer, Held)]

    def url(self, path):
        return f"http://127.0.0.1:{self._server.server_port}{path}"

    def requests_for(self, path):
        return [request for request in list(self.requests) if request.path == path]

    def close(self):
        for held in self._held:
            held.release()
        self._server.shutdown()
        self._server.server_close()

    def _answer_to(self, request):
        with self._lock:
            self.requests.append(request)
            script = self._scripts.get(request.path)
            if not script:
                return Answer("no script for this path", status=404)
            return script.pop(0) if len(script) > 1 else script[0]
