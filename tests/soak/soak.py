"""Hours of audio in minutes: the server on a capture without pauses, and ten clients.

Usage: soak.py BUILD_FOLDER HOURS [SEED]     (HOURS of audio time)

Passes a wrap of ENet's 16-bit numbers in most quarters of an hour, and those of both 32-bit sequence
counters once. Fails when a packet is wrong or missing, a request stays without an answer, the
server ends, its client table is wrong at any moment, a connection stays behind after everybody has
left, descriptors are lost or memory grows. Prints a line every ten seconds; at each of them the
server holds no descriptor more than with nobody connected, since one socket serves all clients.
"""

import os
import random
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from support.harness import Process, resident_bytes, wait_until  # noqa: E402
from support.network import enter_private_network  # noqa: E402
from support.paced_capture import capture_environment  # noqa: E402

PORT = 59210
CALLBACKS_PER_HOUR = 3600 * 48000 / 338
WARM_UP_CALLBACKS = 8000
# Callbacks between two looks of the clients at their connections: less than a seventh of a second
# of sound. Otherwise clients that a busy machine keeps waiting would be laps behind the capture.
LEAD = "20"
REPORT_S = 10
START_LIMIT_S = 60
TIMEOUT_OF_VANISHED_S = 60
LOG_LINES_SHOWN = 60
# Everybody gone, the server holds what it held after the warm-up.
ALLOWED_LOSS_BYTES = 64 * 1024
# Of the resident memory while clients come and go, once their number of queues has settled.
ALLOWED_GROWTH_KIB = 256
READINGS_TO_JUDGE = 20


class Server(Process):
    """The soaking server; its last lines are shown when the run fails. A context manager."""

    def __init__(self, build, folder):
        self.build = build
        self.table = os.path.join(folder, "table")
        # The cache of freed memory that each thread keeps would count as memory in use.
        environment = dict(os.environ, HOME=folder, XDG_CONFIG_HOME=folder,
                           GLIBC_TUNABLES="glibc.malloc.tcache_count=0",
                           **capture_environment(build / "libpaced_capture.so", self.table,
                                                 PACED_CAPTURE_SPEED="0", PACED_CAPTURE_LEAD=LEAD))
        super().__init__([build / "soak_server", str(PORT)], environment, "soak_server")

    def __exit__(self, failure, *rest):
        super().__exit__(failure, *rest)
        if failure is not None:
            lines = self.err.all() + self.out.all()
            own = [line for line in lines if line.startswith("soak_server: ")]
            print("the server's complaints and readings:", *own[:LOG_LINES_SHOWN],
                  "its last lines:", *lines[-LOG_LINES_SHOWN:], sep="\n  ", flush=True)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def idle_readings(self):
        """The bytes in use that it has printed, each time without clients."""
        told = (re.match(r"soak_server: (\d+) bytes in use", line)
                for line in self.out.all() + self.err.all())
        return [int(match[1]) for match in told if match]

    def idle_bytes(self, known, limit_s):
        """The bytes in use at the first idle moment behind the `known` ones."""
        def readings():
            self.check_alive()
            return self.idle_readings()[known:]
        return wait_until(readings, "the server is idle: no connection stays behind", limit_s)[-1]

    def check_alive(self):
        if self.child.poll() is not None:
            raise SystemExit(f"the server ended with status {self.child.returncode}")


def report(server, seconds, most_descriptors):
    """Prints a line; returns the memory in KiB. `most_descriptors` may be None: any number."""
    server.check_alive()
    # Not the pages of the capture's table.
    memory = resident_bytes(server, "RssAnon") // 1024
    descriptors = server.descriptors()
    print(f"{seconds:7.0f} s  {memory} KiB  {descriptors} descriptors", flush=True)
    if most_descriptors is not None and descriptors > most_descriptors:
        raise SystemExit(f"descriptors are lost: {descriptors} instead of {most_descriptors}")
    return memory


def soak(server, callbacks, seed, most_descriptors=None):
    """Runs the clients; returns memory readings in KiB and the bytes in use after them."""
    clients = subprocess.Popen([server.build / "soak_clients", str(PORT), server.table,
                                str(callbacks), str(seed)])
    readings = []
    started = time.monotonic()
    try:
        while clients.poll() is None:
            try:
                clients.wait(timeout=REPORT_S if readings else REPORT_S / 2)
            except subprocess.TimeoutExpired:
                readings.append(report(server, time.monotonic() - started, most_descriptors))
    finally:
        clients.kill()
        clients.wait()
    known = len(server.idle_readings())
    if clients.returncode:
        raise SystemExit(f"the clients ended with status {clients.returncode}")
    return readings, server.idle_bytes(known, TIMEOUT_OF_VANISHED_S)


def judge_resident(readings):
    # The first minutes fill the allocator's pools.
    settled = readings[len(readings) // 4:]
    half = len(settled) // 2
    if len(settled) >= READINGS_TO_JUDGE and \
            max(settled[half:]) > max(settled[:half]) + ALLOWED_GROWTH_KIB:
        raise SystemExit(f"resident memory grows: {settled} KiB")


def main():
    build, hours = Path(sys.argv[1]).resolve(), float(sys.argv[2])
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(10**6)
    sys.argv = [*sys.argv[:3], str(seed)]
    enter_private_network()
    with tempfile.TemporaryDirectory() as folder, Server(build, folder) as server:
        server.idle_bytes(0, START_LIMIT_S)
        before_bytes = soak(server, WARM_UP_CALLBACKS, seed + 1)[1]
        before = server.descriptors()
        readings, after_bytes = soak(server, int(hours * CALLBACKS_PER_HOUR), seed, before)
        after = server.descriptors()
        print(f"with nobody connected {before_bytes} bytes in use, then {after_bytes}; "
              f"descriptors {before}, then {after}", flush=True)
        if (status := server.stop()) != 0:
            raise SystemExit(f"the server ended with status {status}")
        if after > before:
            raise SystemExit("descriptors are lost")
        if abs(after_bytes - before_bytes) >= ALLOWED_LOSS_BYTES:
            raise SystemExit("memory is lost")
        judge_resident(readings)


if __name__ == "__main__":
    main()
