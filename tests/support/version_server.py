"""A web server in place of the maker's: a test sets its answers and reads its requests.

System tests use the class. The unit tests run this file as a program: it prints its port, then
answers every line of JSON on standard input with one on standard output, {} unless said:

    {"answer": {"path": "/x", "status": 200, "headers": {}, "body": "text\\n", "manner": "whole"}}
    {"take_requests": true}   ->   [{"method": "GET", "path": "/x", "headers": {...}}, ...]
    {"let_go": true}
    {"reset": true}

A body is text whose characters are its bytes. Every key of an answer but the path may be left out.
"""

import http.server
import json
import sys
import threading
import time

VERSION_FILE = "/VelantrixData/cur_version_linuxRPiGUI.txt"

WHOLE = "whole"
BYTE_BY_BYTE = "byte by byte"
LATE = "late"
ENDLESS = "endless"


class VersionServer:
    """Serves on a free port of 127.0.0.1 from construction on. A context manager."""

    def __init__(self):
        self._lock = threading.Lock()
        self._answers = {}
        self._requests = []
        self._let_go = threading.Event()
        handler = type("Handler", (_Handler,), {"owner": self})
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        self._server.daemon_threads = True
        self.port = self._server.server_address[1]
        self.address = f"http://127.0.0.1:{self.port}"
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,),
                                        daemon=True)
        self._thread.start()

    def answer(self, path=VERSION_FILE, status=200, headers=None, body="", manner=WHOLE):
        """From now on ``path`` gets this answer; a path without one gets status 404."""
        with self._lock:
            self._answers[path] = (status, headers or {}, body.encode("latin-1"), manner)

    def requests(self):
        """The requests until now, in order."""
        with self._lock:
            return list(self._requests)

    def take_requests(self):
        with self._lock:
            taken, self._requests = self._requests, []
            return taken

    def let_go(self):
        """Gives the answers that are held back in the manner LATE; later ones are held again."""
        with self._lock:
            self._let_go.set()
            self._let_go = threading.Event()

    def reset(self):
        self.let_go()
        with self._lock:
            self._answers, self._requests = {}, []

    def note(self, request):
        """Keeps a request; returns its answer and the event for which a late one waits."""
        with self._lock:
            self._requests.append(request)
            answer = self._answers.get(request["path"], (404, {}, b"not found\n", WHOLE))
            return (*answer, self._let_go)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.let_go()
        self._server.shutdown()
        self._server.server_close()


class _Handler(http.server.BaseHTTPRequestHandler):
    owner = None

    def do_GET(self):
        status, headers, body, manner, let_go = self.owner.note(
            {"method": self.command, "path": self.path, "headers": dict(self.headers)})
        try:
            if manner == LATE:
                let_go.wait()
            self.send_response(status)
            for name, value in headers.items():
                self.send_header(name, value)
            if manner != ENDLESS:
                self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self._send_body(body, manner)
        except (BrokenPipeError, ConnectionResetError):
            pass  # The client has had enough, which some tests want.

    do_POST = do_HEAD = do_PUT = do_GET

    def _send_body(self, body, manner):
        if manner == BYTE_BY_BYTE:
            for position in range(len(body)):
                self.wfile.write(body[position:position + 1])
                self.wfile.flush()
                time.sleep(0.005)
        elif manner == ENDLESS:
            while True:
                self.wfile.write(body)
        else:
            self.wfile.write(body)

    def log_message(self, *_):
        pass


def obey(server, command):
    """Executes one command of a unit test; returns its answer."""
    if "answer" in command:
        server.answer(**command["answer"])
    elif "let_go" in command:
        server.let_go()
    elif "reset" in command:
        server.reset()
    elif "take_requests" in command:
        return server.take_requests()
    else:
        raise ValueError(f"unknown command {command}")
    return {}


def main():
    with VersionServer() as server:
        print(server.port, flush=True)
        for line in sys.stdin:
            print(json.dumps(obey(server, json.loads(line))), flush=True)


if __name__ == "__main__":
    main()
