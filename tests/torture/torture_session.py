"""One session of the server with the torture library preloaded, and what came of it."""

import contextlib
import dataclasses
import os
import pathlib
import re
import socket
import struct
import tempfile
import time

from support.harness import Process, clean_environment, fake, private_home, program
from support.network import discovery_group_joined
from support.paced_capture import capture_environment, counters
from support.probe import MULTI_CLIENT, Probe, data_request

SITES, SITE_FORMAT = 4096, "<QIiiI32s192s"
TABLE_HEAD = 8
START_PATIENCE, CONNECT_PATIENCE, STREAM_PATIENCE, CHECK_PATIENCE = 5.0, 4.0, 8.0, 4.0
SETTLE_PATIENCE, END_PATIENCE, ANSWER_PATIENCE = 1.5, 30.0, 1.0
# How the server is started. Without an address it looks at the interfaces.
AT_AN_ADDRESS, ANYWHERE = ("-b", "127.0.0.1"), ()
DISCOVERY_PORT = 59011
# The queries: where each is sent from, since the first form is answered at a fixed port.
QUERIES = ((b"VelantrixQuery", ("127.0.0.2", DISCOVERY_PORT)),
           (b"VelantrixQuery2", ("127.0.0.2", 0)))
ENOUGH_PACKETS = 40
OPUS_CODE = 2
VERSION_FOUND = "A new version of"
NO_SOUND = r"^Error -?\d+ opening audio input device"
CHECK_DONE = (f"{VERSION_FOUND}|curl_easy_.* failed|check for$|"
              "Could not create version check thread")


@dataclasses.dataclass
class Site:
    function: str
    way: str
    calls: int
    live: int  # Blocks.
    peak: int  # The most blocks at a time.
    stream: bool  # Called while a block of sound was served.


@dataclasses.dataclass
class Outcome:
    status: object  # None: it hung.
    lines: list
    packets: list  # By client.
    reconnected: int  # Clients whose first attempt came to nothing.
    faults: int
    sites: dict
    sites_before_end: frozenset  # Hashes of those called before the signal.
    descriptors: list  # What is open after the clients have gone; empty: ended before.
    asked: bool  # The version check came to the web server.
    answers: int  # Of the discovery queries.
    ending: float  # Seconds from the signal to the end.


def read_table(path):
    """The faults made and the sites by hash."""
    data = path.read_bytes()
    faults = struct.unpack_from("<I", data)[0]
    size = struct.calcsize(SITE_FORMAT)
    sites = {}
    for at in range(TABLE_HEAD, TABLE_HEAD + SITES * size, size):
        number, calls, live, peak, stream, function, way = struct.unpack_from(
            SITE_FORMAT, data, at)
        if number:
            sites[number] = Site(function.split(b"\0")[0].decode(), way.split(b"\0")[0].decode(),
                                 calls, live, peak, bool(stream))
    return faults, sites


def poll_until(condition, timeout):
    """True when the condition came true in time; nothing is asserted."""
    end = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True


class Session:
    """One run of the server, in a new folder."""

    def __init__(self, folder, web, arguments, fault=None, descriptors=None):
        self.folder = folder
        self.table = folder / "torture-table"
        self.capture = folder / "capture-table"
        self.most_descriptors = descriptors
        web.take_requests()
        self.web = web
        environment = clean_environment()
        environment.update(private_home(folder))
        environment.update(capture_environment(
            f"{fake('torture.so')} {os.environ['VELANTRIX_CAPTURE']}", self.capture,
            TORTURE_TABLE=str(self.table), VELANTRIX_WEB_ADDRESS=web.address,
            QT_QPA_PLATFORM="offscreen", XDG_RUNTIME_DIR=str(folder),
            MALLOC_PERTURB_="165"))  # What is read before it is set, or after free, shows.
        if fault:
            environment["TORTURE_FAULT"] = fault
        self.server = Process([program("VELANTRIX_SERVER"), "-nogui", *arguments], environment)

    def ended(self):
        return self.server.child.poll() is not None

    def captures(self):
        now = counters(self.capture)
        return now is not None and now["callbacks"] > 3

    def lines(self):
        return self.server.out.all() + self.server.err.all()

    def printed(self, pattern):
        return any(re.search(pattern, line) for line in self.lines())

    def stream(self):
        """Two clients at once; returns how many packets each got, and how many of them had to
        connect once more."""
        with Probe(self.folder) as probe:
            clients = [self.connect(probe) for _ in range(2)]
            poll_until(lambda: self.ended() or all(map(self.connected, clients)),
                       CONNECT_PATIENCE)
            lost = [client for client in clients if not self.connected(client)]
            if lost and not self.ended():
                clients = [self.connect(probe) if client in lost else client
                           for client in clients]
                poll_until(lambda: self.ended() or all(map(self.connected, clients)),
                           CONNECT_PATIENCE)
            for client, request in zip(clients, (data_request(0, True, "raw"),
                                                 data_request(OPUS_CODE, False, "opus"))):
                self.request(client, request)
            poll_until(lambda: self.ended() or all(
                client.statistics()["packets"] >= ENOUGH_PACKETS for client in clients),
                STREAM_PATIENCE)
            packets = [client.statistics()["packets"] for client in clients]
            for client in clients:
                client.disconnect()
            poll_until(lambda: self.ended() or all(c.is_disconnected() for c in clients),
                       SETTLE_PATIENCE)
        return packets, len(lost)

    @staticmethod
    def connect(probe):
        return probe.connect(wait=False, data=MULTI_CLIENT | 1)

    @staticmethod
    def connected(client):
        return any(line.startswith(f"connected {client.name} ")
                   for line in client.probe.out.all())

    @staticmethod
    def request(client, message):
        """A client that could not connect cannot send; it then counts as one without packets."""
        try:
            client.send(message)
        except AssertionError:
            pass

    def send_queries(self, sockets):
        """Asks for the server in both forms; returns one socket each, opened in `sockets`."""
        poll_until(lambda: discovery_group_joined() or self.ended(), ANSWER_PATIENCE)
        asking = []
        for form, address in QUERIES:
            client = sockets.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
            client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            client.bind(address)
            client.settimeout(ANSWER_PATIENCE)
            client.sendto(form, ("127.0.0.1", DISCOVERY_PORT))
            asking.append(client)
        return asking

    @staticmethod
    def answers(asking):
        """How many of the queries have been answered."""
        count = 0
        for client in asking:
            with contextlib.suppress(OSError):  # It took too long, or nobody was there.
                client.recvfrom(64)
                count += 1
        return count

    def descriptors(self):
        """The file of each open descriptor of the server."""
        found = []
        with contextlib.suppress(OSError):  # The process has ended.
            for entry in os.scandir(f"/proc/{self.server.pid}/fd"):
                with contextlib.suppress(OSError):  # It was closed just now.
                    found.append(os.readlink(entry.path))
        return sorted(found)

    def settled_descriptors(self):
        """Those open now; ones above the usual number get some time to be closed."""
        found = self.descriptors()
        end = time.monotonic() + SETTLE_PATIENCE
        while (self.most_descriptors is not None and len(found) > self.most_descriptors and
               time.monotonic() < end):
            time.sleep(0.02)
            found = self.descriptors()
        return found

    def end(self):
        """Stops the server; returns its status (None: it hangs) and the seconds it took."""
        start = time.monotonic()
        try:
            return self.server.stop(timeout=END_PATIENCE), time.monotonic() - start
        except AssertionError:
            return None, END_PATIENCE

    def run(self):
        packets, reconnected = [0, 0], 0
        with self.server, contextlib.ExitStack() as sockets:
            poll_until(lambda: self.captures() or self.ended() or self.printed(NO_SOUND),
                       START_PATIENCE)
            asking = self.send_queries(sockets)
            if self.captures() and not self.ended():
                packets, reconnected = self.stream()
            poll_until(lambda: self.ended() or self.printed(CHECK_DONE), CHECK_PATIENCE)
            answers = self.answers(asking)
            time.sleep(0.05)
            descriptors = self.settled_descriptors()
            before_end = frozenset(read_table(self.table)[1])
            status, ending = self.end()
            lines = self.lines()
        faults, sites = read_table(self.table)
        return Outcome(status, lines, packets, reconnected, faults, sites, before_end, descriptors,
                       bool(self.web.requests()), answers, ending)


def run_session(web, arguments, fault=None, descriptors=None):
    """`descriptors` is how many are usually open before the end; None: not known."""
    with tempfile.TemporaryDirectory(prefix="velantrix-torture-") as folder:
        return Session(pathlib.Path(folder), web, arguments, fault, descriptors).run()
