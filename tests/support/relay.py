"""A relay for datagrams that delays and drops them: a worse network than the loopback interface.

Runs as a process of its own, so that a busy test does not add to the delays:

    python3 -m support.relay LISTEN_PORT SERVER_PORT DELAY_MS JITTER_MS LOSS SEED

Each datagram is passed on after DELAY_MS, give or take JITTER_MS, in the order in which it came;
a share of LOSS (0 to 1) of those from the server to the client is dropped.
"""

import collections
import random
import select
import socket
import sys
import time

from support.processes import ModuleProcess

ANY_HOST = "127.0.0.1"


class _Direction:
    """Datagrams under way in one direction."""

    def __init__(self, delay, jitter, loss, generator):
        self.delay, self.jitter, self.loss = delay, jitter, loss
        self.generator = generator
        self.queue = collections.deque()
        self.latest = 0.0

    def take(self, data, now):
        if self.generator.random() < self.loss:
            return
        wait = self.delay + self.generator.uniform(-self.jitter, self.jitter)
        self.latest = max(self.latest, now + max(0.0, wait))
        self.queue.append((self.latest, data))

    def due(self, now):
        while self.queue and self.queue[0][0] <= now:
            yield self.queue.popleft()[1]


def _run(listen_port, server_port, delay, jitter, loss, seed):
    generator = random.Random(seed)
    near = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    near.bind((ANY_HOST, listen_port))
    far = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    far.connect((ANY_HOST, server_port))
    client = None
    to_server = _Direction(delay, jitter, 0.0, generator)
    to_client = _Direction(delay, jitter, loss, generator)
    print("relaying", flush=True)
    while True:
        heads = [way.queue[0][0] for way in (to_server, to_client) if way.queue]
        wait = max(0.0, min(heads) - time.monotonic()) if heads else None
        ready, _, _ = select.select([near, far], [], [], wait)
        now = time.monotonic()
        if near in ready:
            data, client = near.recvfrom(65536)
            to_server.take(data, now)
        if far in ready:
            try:
                to_client.take(far.recv(65536), now)
            except ConnectionRefusedError:  # The server is not there just now.
                pass
        for data in to_server.due(now):
            try:
                far.send(data)
            except ConnectionRefusedError:
                pass
        for data in to_client.due(now):
            near.sendto(data, client)


class Relay(ModuleProcess):
    """The relay as a child process; clients connect to ``port``. Times in milliseconds."""

    def __init__(self, server_port, port=59020, delay=10, jitter=5, loss=0.0, seed=1):
        self.port = port
        super().__init__("relay", port, server_port, delay, jitter, loss, seed)
        self.out.wait_for("relaying")


if __name__ == "__main__":
    _run(int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]) / 1000,
         float(sys.argv[4]) / 1000, float(sys.argv[5]), int(sys.argv[6]))
