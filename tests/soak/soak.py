"""Hours of audio in minutes: the server on a capture without pauses, and ten restless clients.

Usage: soak.py BUILD_FOLDER HOURS [SEED]     (HOURS of audio time)

Passes the wraps of ENet's 16-bit numbers many times and those of both 32-bit sequence counters.
Fails when a packet is wrong, the server ends, a slot or a connection stays behind after everybody
has left, descriptors are lost or memory grows. Prints a line every ten seconds.
"""

import os
import random
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench"))
from session import enter_private_network

PORT = 59210
CALLBACKS_PER_HOUR = 3600 * 48000 / 338
REPORT_S = 10
TIMEOUT_OF_VANISHED_S = 40
ALLOWED_GROWTH = 1.10
READINGS_TO_JUDGE = 20


def memory_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("RssAnon:"):  # Not the pages of the capture's table.
            return int(line.split()[1])
    raise RuntimeError("no RssAnon")


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def watch(server, clients):
    """Waits for the clients; returns the memory readings in KiB, one every ten seconds."""
    readings = []
    started = time.monotonic()
    while clients.poll() is None:
        time.sleep(REPORT_S if readings else 5)
        if server.poll() is not None:
            clients.kill()
            raise SystemExit(f"the server ended with status {server.returncode}")
        readings.append(memory_kib(server.pid))
        print(f"{time.monotonic() - started:7.0f} s  {readings[-1]} KiB  "
              f"{descriptors(server.pid)} descriptors", flush=True)
    return readings


def main():
    build, hours = Path(sys.argv[1]).resolve(), float(sys.argv[2])
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(10**6)
    sys.argv = [*sys.argv[:3], str(seed)]
    enter_private_network()
    with tempfile.TemporaryDirectory() as folder:
        table = os.path.join(folder, "table")
        environment = dict(os.environ, HOME=folder, XDG_CONFIG_HOME=folder,
                           PACED_CAPTURE_TABLE=table, PACED_CAPTURE_SPEED="0",
                           LD_PRELOAD=str(build / "libpaced_capture.so"))
        log = open(os.path.join(folder, "log"), "w", encoding="utf-8")
        server = subprocess.Popen([build / "soak_server", str(PORT)], env=environment, stdout=log)
        time.sleep(2)
        before = descriptors(server.pid)
        clients = subprocess.Popen([build / "soak_clients", str(PORT), table,
                                    str(int(hours * CALLBACKS_PER_HOUR)), str(seed)])
        readings = watch(server, clients)
        time.sleep(TIMEOUT_OF_VANISHED_S)
        after = descriptors(server.pid)
        server.terminate()
        server_status = server.wait(timeout=20)
    settled = readings[len(readings) // 4:]
    print(f"memory {min(settled)} to {max(settled)} KiB, descriptors {before} to {after}, "
          f"server status {server_status}, clients status {clients.returncode}")
    if clients.returncode or server_status or after > before:
        raise SystemExit(1)
    # The first minutes fill ENet's and the allocator's pools.
    if len(settled) >= READINGS_TO_JUDGE and max(settled[len(settled) // 2:]) > \
            ALLOWED_GROWTH * max(settled[:len(settled) // 2]):
        raise SystemExit("memory grows")


if __name__ == "__main__":
    main()
