"""Hand-made listeners to velantrix-web: requests of any bytes, and /live with its numbers."""

import json
import socket
import struct
import threading
import urllib.parse
import urllib.request

from support.processes import PATIENCE

UPGRADE = ("Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: AQIDBAUGBwgJCgsMDQ4PEA==\r\n")


def connect(address, receive_buffer=None):
    """A socket that is connected to the web address."""
    parts = urllib.parse.urlsplit(address)
    family = socket.AF_INET6 if ":" in parts.hostname else socket.AF_INET
    line = socket.socket(family, socket.SOCK_STREAM)
    line.settimeout(PATIENCE)
    if receive_buffer is not None:
        line.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    line.connect((parts.hostname, parts.port))
    return line


def request(path, lines=""):
    return f"GET {path} HTTP/1.1\r\nHost: localhost\r\n{lines}\r\n".encode("ascii")


def read_all(line):
    """Everything received until the other side closes."""
    content = b""
    try:
        while piece := line.recv(65536):
            content += piece
    except ConnectionResetError:
        pass
    return content


def status_of(address):
    """The content of /status."""
    with urllib.request.urlopen(address + "/status", timeout=PATIENCE) as answer:
        return json.load(answer)


class LiveListener:
    """Listens to /live on a separate thread until it is closed. A context manager.

    ``texts``    the text messages.
    ``numbers``  the sequence numbers of the binary ones.
    ``end``      the code of the frame that ended it, None before.
    """

    def __init__(self, address, query="", line=None):
        self.line = line or connect(address)
        self.line.sendall(request("/live" + query, UPGRADE))
        self.reader = self.line.makefile("rb")
        self.texts, self.numbers, self.end = [], [], None
        self.thread = threading.Thread(target=self._run, daemon=True)
        header = iter(self.reader.readline, b"\r\n")
        self.status = int(next(header).split()[1])
        for _ in header:
            pass

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        try:
            self.line.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.thread.join(PATIENCE)
        self.line.close()

    def _run(self):
        try:
            while self.end is None:
                self._take(*self._frame())
        except (OSError, struct.error):
            pass

    def _frame(self):
        kind, length = struct.unpack(">BB", self.reader.read(2))
        if length == 126:
            length, = struct.unpack(">H", self.reader.read(2))
        return kind & 15, self.reader.read(length)

    def _take(self, kind, content):
        if kind == 1:
            self.texts.append(content.decode("utf-8"))
        elif kind == 2:
            self.numbers.append(struct.unpack("<I", content[:4])[0])
        elif kind == 8:
            self.end = struct.unpack(">H", content[:2])[0]

    def lost(self):
        """How many numbers are missing, or out of their order."""
        steps = zip(self.numbers, self.numbers[1:])
        return sum(abs(later - former - 1) for former, later in steps)
