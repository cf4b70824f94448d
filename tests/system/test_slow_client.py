"""Clients that do not keep up: what they lose, and that others do not notice."""

import re
import time

from support.harness import has_sanitizer, resident_bytes, wait_until
from support.probe import FALLBACK_BYTES, StreamingTest, are_in_order, sequence_gaps
from support.signals import noise

CLEARING = re.compile(r"^Clearing outgoing msg queue, outgoing/sent queue sizes: (\d+)/(\d+)$")
REMOVED = re.compile(r"^Removed (\d+) outgoing messages$")
REPORT = re.compile(r"^Outgoing/sent queue sizes: (\d+)/(\d+)$")

TRIM_THRESHOLD = 75
CHECK_INTERVAL = 15

# Raw packets until a stalled client is trimmed: ENet's window of 64 KiB, the longest queue that
# is accepted, and the wait for the next check; a few for what was on its way.
PACKETS_UNTIL_TRIM = 48 + TRIM_THRESHOLD + CHECK_INTERVAL + 10

# ENet disconnects a client that has acknowledged nothing for 5 s.
MAX_STALL = 4.3

# What one client may keep the server holding: 15 + 75 commands that wait and a window of 48 that
# are sent, each with a packet of 1368 bytes and ENet's records; and room for the heap's pages.
MEMORY_BOUND = 400 * 1024


def matches(pattern, lines):
    return [tuple(map(int, found.groups())) for found in map(pattern.match, lines) if found]


class SlowClient(StreamingTest):
    def setUp(self):
        super().setUp()
        self.witness = self.probe.listen()

    def stall(self, client, seconds, packets=PACKETS_UNTIL_TRIM):
        """Stalls a client for a while; returns the probe's time of its return."""
        end = time.monotonic() + seconds
        client.stall()
        self.witness.wait_packets(packets)
        time.sleep(max(0.0, end - time.monotonic()))
        self.memory_at_end_of_stall = resident_bytes(self.server, "RssAnon")
        client.resume()
        return self.witness.wait_packets(1)[-1].arrival

    def delay_after(self, client, returned):
        """How long after its return a client first hears a packet as early as the witness, in ms.

        As early means within 100 ms.
        """
        heard = {packet.seq: packet.arrival for packet in self.witness.packets()}
        for packet in client.packets():
            if packet.arrival >= returned and packet.arrival - heard.get(packet.seq, -1e9) < 100:
                return packet.arrival - returned
        return float("inf")

    def check_trim_lines(self, lines, commands_per_packet=1):
        waiting, removed = matches(CLEARING, lines), matches(REMOVED, lines)
        self.assertGreaterEqual(len(waiting), 1, "\n".join(lines))
        self.assertEqual(len(waiting), len(removed))
        for (queued, _), (gone,) in zip(waiting, removed):
            self.assertGreater(queued, TRIM_THRESHOLD)
            self.assertLessEqual(gone, queued)
            self.assertLessEqual(gone, TRIM_THRESHOLD + CHECK_INTERVAL * commands_per_packet)
        for queued, _ in matches(REPORT, lines):
            self.assertTrue(1 < queued <= TRIM_THRESHOLD)

    def test_stall_just_short_of_the_time_out(self):
        # All reliable: ENet itself drops best-effort packets when a machine is busy.
        others = [self.witness] + [self.probe.listen(code) for code in (0, 0, 1, 1, 2, 3, 5, 4)]
        slow = self.probe.listen()
        start = self.server.out.count()
        memory = resident_bytes(self.server, "RssAnon")
        returned = self.stall(slow, MAX_STALL)
        self.witness.wait_packets(200)
        growth = self.memory_at_end_of_stall - memory
        packets = slow.packets()
        delay = self.delay_after(slow, returned)
        print(f"newest audio after {delay} ms, server grew by {growth // 1024} KiB")
        self.check_trim_lines(self.server.out.all()[start:])
        self.assertLess(delay, 1000)
        self.assertTrue(are_in_order(packets))
        self.assertGreater(sequence_gaps(packets), 0)
        for other in others:
            self.assertEqual(sequence_gaps(other.packets()), 0, other.name)
        self.assertFalse(slow.is_disconnected())
        if not has_sanitizer():
            self.assertLess(growth, MEMORY_BOUND)

    def test_client_that_stalls_again_and_again_keeps_hearing(self):
        slow = self.probe.listen()
        for _ in range(4):
            returned = self.stall(slow, 1)
            self.witness.wait_packets(150)
            self.assertLess(self.delay_after(slow, returned), 1000)
        packets = slow.packets()
        self.assertTrue(are_in_order(packets))

    def test_compressed_client_is_trimmed_too(self):
        # Noise, of which a packet at 256 kbit/s takes some 320 bytes; silence would take so few
        # that all fits into ENet's window of sent data.
        self.sound.play(noise(30 * 48000, 20261121))
        wait_until(lambda: any(self.witness.wait_packets(1)[-1].payload), "the noise is heard")
        slow = self.probe.listen(rate_code=3)
        start = self.server.out.count()
        returned = self.stall(slow, MAX_STALL)
        self.witness.wait_packets(150)
        self.check_trim_lines(self.server.out.all()[start:])
        packets = [packet for packet in slow.packets() if packet.rate_code == 3]
        self.assertGreater(packets[-1].arrival, returned)
        self.assertTrue(are_in_order(packets))

    def test_best_effort_client_is_never_trimmed(self):
        slow = self.probe.listen(reliable=False)
        start = self.server.out.count()
        returned = self.stall(slow, 3)
        self.witness.wait_packets(150)
        lines = self.server.out.all()[start:]
        self.assertEqual(matches(CLEARING, lines) + matches(REMOVED, lines), [])
        self.assertLess(self.delay_after(slow, returned), 1000)

    def test_fallback_client_hears_again_after_connecting_anew(self):
        """A packet of two fragments may be cut in two by a trim; ENet then delivers no more."""
        slow = self.probe.listen(rate_code=4)
        start = self.server.out.count()
        self.stall(slow, MAX_STALL)
        self.witness.wait_packets(150)
        self.check_trim_lines(self.server.out.all()[start:], commands_per_packet=2)
        packets = slow.packets()
        self.assertEqual({packet.length for packet in packets}, {FALLBACK_BYTES})
        self.assertTrue(are_in_order(packets))
        self.assertFalse(slow.is_disconnected())
        slow.disconnect()
        slow.wait_disconnected()
        again = self.probe.listen(rate_code=4)
        self.assertEqual(sequence_gaps(again.wait_packets(50)), 0)

    def test_client_that_never_returns_is_given_up_and_its_slot_freed(self):
        slow = self.probe.listen()
        slow.stall()
        self.server.out.wait_for(re.compile(r"^Client 127\.0\.0\.1:\d+ disconnected$"), timeout=60)
        self.assertEqual(sequence_gaps(self.witness.wait_packets(50)), 0)
        self.assertFalse(self.witness.is_disconnected())
