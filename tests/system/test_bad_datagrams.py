"""Datagrams that no client would send: in floods, of any length, to both ports.

VELANTRIX_FLOOD_SECONDS   how long a flood lasts (4 unless set)
"""

import os
import random
import socket
import time

from support.harness import (DEFAULT_PORT, Server, SoundServer, SystemTest, resident_bytes,
                             with_prompt_release)
from support.probe import Probe, sequence_gaps, wait_packets_of_all

DISCOVERY_PORT = 59011
QUERY, RESPONSE = b"VelantrixQuery2", b"VelantrixResponse"
LONGEST_DATAGRAM = 65507
ENET_LONGEST = 4096
FLOOD = float(os.environ.get("VELANTRIX_FLOOD_SECONDS", "4"))

# The server may keep what its allocator once needed, no more.
MEMORY_BOUND = 4 * 1024 * 1024


def flood(sockets, make_datagram, port, rate, seconds):
    """Sends about ``rate`` datagrams a second; returns how many."""
    start = time.monotonic()
    sent = 0
    while True:
        passed = time.monotonic() - start
        if passed >= seconds:
            return sent
        while sent < passed * rate:
            sockets[sent % len(sockets)].sendto(make_datagram(sent), ("127.0.0.1", port))
            sent += 1
        time.sleep(0.002)


def take_all(client):
    """Everything that has arrived at a socket."""
    client.setblocking(False)
    received = []
    while True:
        try:
            received.append(client.recv(LONGEST_DATAGRAM))
        except BlockingIOError:
            return received


class BadDatagrams(SystemTest):
    def setUp(self):
        super().setUp()
        sound = self.enter(SoundServer())
        self.server = self.enter(Server(sound=sound, rate=48000, env=with_prompt_release()))
        self.probe = self.enter(Probe(self.folder))
        self.server.wait_for_capture()
        self.clients = []
        for rate_code in (0, 1, 3, 4):
            client = self.probe.connect()
            client.request(rate_code, reliable=True)
            client.wait_packets(20)
            self.clients.append(client)
        self.stranger = self.enter(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.stranger.bind(("127.0.0.1", 0))
        self.seed = random.SystemRandom().getrandbits(32)
        self.random = random.Random(self.seed)
        print(f"seed {self.seed}")
        self.memory = resident_bytes(self.server)

    def enter(self, manager):
        value = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return value

    def check_nothing_happened(self):
        """The clients hear on, have lost nothing, and the server has not grown."""
        for client, packets in zip(self.clients, wait_packets_of_all(self.clients, 100)):
            self.assertEqual(sequence_gaps(packets), 0, client.name)
            self.assertFalse(client.is_disconnected())
        self.assertLess(resident_bytes(self.server) - self.memory, MEMORY_BOUND)
        self.assertEqual(self.server.err.all(), [])

    def any_length(self, longest):
        """A random length: all sizes, and often one near a limit."""
        near = self.random.choice((0, 1, 4, 14, 16, 255, 256, 1400, 4095, 4096, 4097, longest))
        length = self.random.choice((near, near + self.random.randint(-2, 2),
                                     self.random.randint(0, longest)))
        return min(max(length, 0), longest)

    def test_flood_of_queries_is_answered_ten_times_a_second(self):
        sent = flood([self.stranger], lambda _: QUERY, DISCOVERY_PORT, rate=10000, seconds=FLOOD)
        self.assertGreater(sent, 5000 * FLOOD)
        answers = take_all(self.stranger)
        print(f"{sent} queries, {len(answers)} answers in {FLOOD:g} s")
        self.assertEqual(set(answers), {RESPONSE})
        self.assertLessEqual(len(answers), 10 * FLOOD + 5)
        self.check_nothing_happened()

    def test_flood_of_other_datagrams_to_discovery_is_not_answered(self):
        noise = [self.random.randbytes(self.random.randint(1, 300)) for _ in range(500)]
        sent = flood([self.stranger], lambda i: noise[i % len(noise)], DISCOVERY_PORT, rate=10000,
                     seconds=FLOOD)
        self.assertGreater(sent, 5000 * FLOOD)
        self.assertEqual(take_all(self.stranger), [])
        self.check_nothing_happened()

    def test_datagrams_of_any_length_to_discovery(self):
        for _ in range(2000):
            self.stranger.sendto(self.random.randbytes(self.any_length(LONGEST_DATAGRAM)),
                                 ("127.0.0.1", DISCOVERY_PORT))
            time.sleep(0.001)
        self.assertEqual(take_all(self.stranger), [])
        self.check_nothing_happened()

    def test_datagrams_of_any_length_to_the_host(self):
        for _ in range(2000):
            self.stranger.sendto(self.random.randbytes(self.any_length(LONGEST_DATAGRAM)),
                                 ("127.0.0.1", DEFAULT_PORT))
            time.sleep(0.001)
        self.assertEqual(take_all(self.stranger), [])
        self.check_nothing_happened()

    def test_flood_of_long_datagrams_to_the_host(self):
        noise = [self.random.randbytes(self.random.randint(ENET_LONGEST + 1, 9000))
                 for _ in range(50)]
        sent = flood([self.stranger], lambda i: noise[i % len(noise)], DEFAULT_PORT, rate=2000,
                     seconds=FLOOD)
        self.assertGreater(sent, 1000 * FLOOD)
        self.assertEqual(take_all(self.stranger), [])
        self.check_nothing_happened()

    def test_flood_of_empty_datagrams_to_the_host(self):
        sent = flood([self.stranger], lambda _: b"", DEFAULT_PORT, rate=10000, seconds=FLOOD)
        self.assertGreater(sent, 5000 * FLOOD)
        self.check_nothing_happened()

    def test_flood_of_short_datagrams_to_the_host(self):
        noise = [self.random.randbytes(self.any_length(ENET_LONGEST)) for _ in range(500)]
        sent = flood([self.stranger], lambda i: noise[i % len(noise)], DEFAULT_PORT, rate=5000,
                     seconds=FLOOD)
        self.assertGreater(sent, 2500 * FLOOD)
        self.assertEqual(take_all(self.stranger), [])
        self.check_nothing_happened()

    def test_damaged_datagrams_of_a_client_change_nothing(self):
        """Real commands of ENet's, with flipped bits, from an address that is no client's."""
        connect = bytes.fromhex("8fff000082ff0001") + self.random.randbytes(40)
        for _ in range(5000):
            damaged = bytearray(connect[:self.random.randint(1, len(connect))])
            for _ in range(self.random.randint(1, 4)):
                damaged[self.random.randrange(len(damaged))] ^= 1 << self.random.randrange(8)
            self.stranger.sendto(damaged, ("127.0.0.1", DEFAULT_PORT))
        self.check_nothing_happened()
