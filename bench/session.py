"""One measured streaming session: the built server on the paced capture, and client processes.

Everything runs in a private network namespace.
"""

import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests"))

from support.network import enter_private_network  # noqa: E402,F401 (for the measurements)
from support.paced_capture import capture_environment, counters  # noqa: E402

BLOCKS_PER_GROUP = 480 / 338
"""A group is encoded at once."""

ALL_CHOICES = [(code, reliable) for code in (0, 5, 1, 2, 3) for reliable in (True, False)]
RATE_CODES = {"raw": 0, "20": 5, "64": 1, "128": 2, "256": 3}


def choices(rate, mode, clients):
    """(rate code, reliable) of this many clients; "four" are the compressed rates in turn."""
    codes = [code for code in RATE_CODES.values() if code] if rate == "four" else [RATE_CODES[rate]]
    return [(codes[i % len(codes)], mode == "reliable") for i in range(clients)]


class Client:
    """One stream_client process, which keeps account of every packet when it has an `output`."""

    def __init__(self, build, port, rate_code, reliable, table=None, output=None, prefix=()):
        self.reliable = reliable
        self.output = output
        account = [table, output] if output else []
        self.process = subprocess.Popen(
            [*prefix, build / "stream_client", str(port), str(rate_code),
             "1" if reliable else "0", *account], stdin=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def stop(self):
        self.process.stdin.close()
        return self.process.wait(timeout=20)

    def arrivals(self):
        """After `stop()`: (sequence, delay, arrival, delay from the encoding) of each packet."""
        with open(self.output, encoding="ascii") as lines:
            return [tuple(map(int, line.split())) for line in lines]


def end_programs(clients, server):
    """Ends the clients that still run, then their server."""
    for client in clients:
        if client.process.poll() is None:
            client.stop()
    server.terminate()
    server.wait(timeout=20)


class Session:
    """The server, headless, with clients given as (rate code, reliable) pairs.

    `account` tells the clients to keep account of every packet; `prefix` are words before each
    command.
    """

    PORT = 59010

    def __init__(self, build, clients, account=True, prefix=()):
        self.build = Path(build).resolve()
        self.folder = tempfile.TemporaryDirectory(prefix="velantrix-bench-")
        self.table_path = os.path.join(self.folder.name, "table")
        environment = dict(
            os.environ, HOME=self.folder.name, XDG_CONFIG_HOME=self.folder.name,
            QT_QPA_PLATFORM="offscreen",
            **capture_environment(self.build / "libpaced_capture.so", self.table_path))
        self.log = open(os.path.join(self.folder.name, "server.log"), "w", encoding="utf-8")
        self.server = subprocess.Popen([*prefix, self.build / "VelantrixServer", "-nogui"],
                                       env=environment, stdout=self.log, stderr=subprocess.STDOUT)
        self._wait_for_callbacks()
        self.clients = [
            Client(self.build, self.PORT, rate_code, reliable, self.table_path,
                   os.path.join(self.folder.name, f"client-{number}") if account else None, prefix)
            for number, (rate_code, reliable) in enumerate(clients)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end_programs(self.clients, self.server)
        self.log.close()
        self.folder.cleanup()

    def _wait_for_callbacks(self):
        for _ in range(200):
            if counters(self.table_path) is not None:
                return
            if self.server.poll() is not None:
                break
            time.sleep(0.05)
        raise RuntimeError("the server did not start: " + Path(self.log.name).read_text())

    def stop_clients(self):
        for client in self.clients:
            if client.stop() != 0:
                raise RuntimeError("a client received nothing")

    def counters(self):
        return counters(self.table_path)
