"""Clients that come, go, misbehave and share the server."""

import random
import re
import socket
import struct
import time

from support.harness import (THERE_ADDRESS, HERE_ADDRESS, OtherNetwork, Server, SoundServer,
                             SystemTest, wait_until)
from support.probe import (DISCONNECT_REPLACED, FALLBACK_BYTES, FLAG_RELIABLE, MSGID_DATA,
                           MSGID_FASTER, MSGID_SLOWER, RAW_PACKET_BYTES, Probe, control_message,
                           data_request, sequence_gaps, wait_packets_of_all)
from support.streaming import StreamingTest

CAPACITY = 10


class ClientTest(StreamingTest):
    def tearDown(self):
        self.assert_ends_cleanly(self.server)
        super().tearDown()

    def wait_line(self, text, start=0):
        return self.server.out.wait_for(text, start)

    def send_and_wait(self, client, message, line):
        """Sends a control message and waits for the server's line about it."""
        start = self.server.out.count()
        client.send(message)
        return self.wait_line(line, start)


class OneClient(ClientTest):
    def test_connect_request_and_leave_are_told_in_order(self):
        client = self.probe.connect(version=7)
        port = client.wait_connected()
        client.request(3, reliable=False)
        client.wait_packets(5)
        client.disconnect()
        self.assertEqual(client.wait_disconnected(), 0)
        self.wait_line(f"Client 127.0.0.1:{port} disconnected")
        self.assert_lines_in_order(self.server.out.all(), [
            f"A new client connected from 127.0.0.1:{port} (prot ver 7)",
            "Got Data request",
            "Sending audio data in best-effort mode",
            "Sending compressed audio data to client 0 at rate code 3",
            f"Client 127.0.0.1:{port} disconnected"])

    def test_no_sound_comes_before_the_first_request(self):
        client = self.probe.connect()
        other = self.probe.connect()
        other.request()
        other.wait_packets(50)
        self.assertEqual(client.packets(), [])

    def test_each_request_switches_from_the_next_block_on(self):
        client = self.probe.connect()
        wanted = [(0, True), (1, False), (5, True), (0, False)]
        for code, reliable in wanted:
            client.request(code, reliable)
            flags = code << 6 | (FLAG_RELIABLE if reliable else 0) | 2
            wait_until(lambda f=flags: client.packets()[-1:] and client.packets()[-1].flags == f,
                       f"packets with flags {flags:#x}")
        kinds = [p.flags for p in client.packets()]
        changes = [b for a, b in zip([None] + kinds, kinds) if a != b]
        self.assertEqual(changes, [3, 1 << 6 | 2, 5 << 6 | 3, 2])
        last_line = "Sending uncompressed audio data to client 0"
        wait_until(lambda: self.server.out.all().count(last_line) == 2, "two lines: " + last_line)
        self.assert_lines_in_order(self.server.out.all(), [
            "Sending audio data in reliable mode",
            "Sending uncompressed audio data to client 0",
            "Sending audio data in best-effort mode",
            "Sending compressed audio data to client 0 at rate code 1",
            "Sending audio data in reliable mode",
            "Sending compressed audio data to client 0 at rate code 5",
            "Sending audio data in best-effort mode",
            "Sending uncompressed audio data to client 0"])

    def test_faster_and_slower_change_nothing(self):
        client = self.probe.connect()
        client.request(2)
        client.wait_packets(5)
        self.send_and_wait(client, control_message(MSGID_FASTER), "Got Faster request")
        self.send_and_wait(client, control_message(MSGID_SLOWER), "Got Slower request")
        self.assertEqual({p.flags for p in client.wait_packets(50)}, {2 << 6 | 3})
        self.assertEqual(sequence_gaps(client.packets()), 0)

    def test_small_mtu_of_the_client_does_not_split_raw_packets(self):
        client = self.probe.connect(mtu=1392)
        client.request(0)
        packets = client.wait_packets(100)
        self.assertEqual({p.length for p in packets}, {RAW_PACKET_BYTES})
        statistics = client.statistics()
        self.assertEqual(statistics["fragments"], 0)
        self.assertGreater(statistics["largest"], RAW_PACKET_BYTES)
        self.assertLessEqual(statistics["largest"], 1400)


class Sharing(ClientTest):
    def test_client_without_the_sharing_flag_is_replaced_by_the_next(self):
        alone = self.probe.connect(multi=False)
        alone.request()
        alone.wait_packets(5)
        shared = self.probe.connect()
        shared.request()
        self.assertEqual(alone.wait_disconnected(), DISCONNECT_REPLACED)
        shared.wait_packets(50)
        self.assertFalse(shared.is_disconnected())

    def test_old_client_is_forgotten_but_not_disconnected(self):
        old = self.probe.connect(version=0, multi=False)
        old.request()
        old.wait_packets(5)
        shared = self.probe.connect()
        shared.request()
        shared.wait_packets(20)
        already = len(old.packets())
        shared.wait_packets(50)
        self.assertEqual(len(old.packets()), already)
        self.assertFalse(old.is_disconnected())

    def test_request_of_a_forgotten_client_has_no_effect(self):
        old = self.probe.connect(version=0, multi=False)
        shared = self.probe.connect()
        shared.request()
        shared.wait_packets(5)
        lines = self.server.out.count()
        old.request()
        shared.wait_packets(50)
        self.assertNotIn("Got Data request", self.server.out.all()[lines:])
        self.assertEqual(old.packets(), [])

    def test_two_sharing_clients_both_stay(self):
        clients = [self.probe.connect() for _ in range(2)]
        for client in clients:
            client.request()
        for client in clients:
            client.wait_packets(50)
            self.assertFalse(client.is_disconnected())

    def test_ten_clients_with_mixed_choices_each_get_theirs(self):
        choices = [(code, reliable) for code in (0, 1, 2, 3, 5) for reliable in (True, False)]
        clients = [self.probe.connect() for _ in choices]
        for client, (code, reliable) in zip(clients, choices):
            client.request(code, reliable)
        for client in clients:
            client.wait_packets(60)
        for client, (code, reliable) in zip(clients, choices):
            with self.subTest(code=code, reliable=reliable):
                packets = client.packets()
                flags = code << 6 | 2 | (FLAG_RELIABLE if reliable else 0)
                self.assertEqual({p.flags for p in packets}, {flags})
                if reliable:  # ENet itself thins best-effort packets when answers come late.
                    self.assertEqual(sequence_gaps(packets), 0)
                if code == 0:
                    self.assertEqual({p.length for p in packets}, {RAW_PACKET_BYTES})
        sequences = [{p.seq: p.payload for p in c.packets()} for c in clients]
        for first, second in zip(sequences[::2], sequences[1::2]):
            common = first.keys() & second.keys()
            self.assertGreater(len(common), 20)
            self.assertTrue(all(first[seq] == second[seq] for seq in common),
                            "one encoding serves every client of a rate code")

    def test_eleventh_client_replaces_the_oldest(self):
        clients = [self.probe.connect()]
        time.sleep(1.1)  # Ages are whole seconds: the first must be older than the rest.
        clients += [self.probe.connect() for _ in range(CAPACITY - 1)]
        eleventh = self.probe.connect()
        self.assertEqual(clients[0].wait_disconnected(), DISCONNECT_REPLACED)
        eleventh.request(1)
        self.wait_line("Sending compressed audio data to client 0 at rate code 1")
        eleventh.wait_packets(20)
        self.assertFalse(any(client.is_disconnected() for client in clients[1:]))

    def test_place_of_a_client_that_left_is_taken_by_the_next(self):
        clients = [self.probe.connect() for _ in range(CAPACITY)]
        clients[4].disconnect()
        clients[4].wait_disconnected()
        newcomer = self.probe.connect()
        newcomer.request()
        self.wait_line("Sending uncompressed audio data to client 4")
        self.assertFalse(any(c.is_disconnected() for i, c in enumerate(clients) if i != 4))


class Vanishing(ClientTest):
    def test_vanished_client_is_noticed_and_harms_nobody(self):
        stays = self.probe.connect()
        stays.request(0)
        goes = self.probe.connect()
        port = goes.wait_connected()
        goes.request(0, reliable=True)
        goes.wait_packets(20)
        goes.vanish()
        line = self.server.out.wait_for(f"Client 127.0.0.1:{port} disconnected", timeout=90)
        packets = stays.wait_packets(20)
        self.assertEqual(sequence_gaps(packets), 0)
        self.probe.connect().request()
        self.wait_line("Sending uncompressed audio data to client 1", line)

    def test_client_that_comes_back_from_its_port_streams_again(self):
        first = self.probe.connect()
        port = first.wait_connected()
        first.request()
        first.wait_packets(5)
        first.vanish()
        again = self.probe.connect(local_port=port)
        again.request(1)
        again.wait_packets(50)

    def test_client_that_stops_reading_harms_nobody(self):
        slow, good = self.probe.connect(), self.probe.connect()
        for client in (slow, good):
            client.request()
        slow.wait_packets(5)
        slow.stall()
        # Less than the 5 s after which ENet may give a silent client up.
        self.assertEqual(sequence_gaps(good.wait_packets(250)), 0)
        slow.resume()
        slow.wait_packets(50)


class BadMessages(ClientTest):
    """Control messages of any content; a listener beside them must not notice."""

    def setUp(self):
        super().setUp()
        self.listener = self.probe.connect()
        self.listener.request(0)
        self.listener.wait_packets(5)
        self.client = self.probe.connect()

    def tearDown(self):
        packets = self.listener.wait_packets(20)
        self.assertEqual(sequence_gaps(packets), 0)
        self.assertEqual({p.flags for p in packets}, {3})
        super().tearDown()

    def test_every_length_from_0_to_17_is_read_with_zeros_behind(self):
        whole = struct.pack("<IIIIB", MSGID_DATA, 0xFFFFFFFF, FLAG_RELIABLE | 2 << 6, 0xFFFFFFFF,
                            ord("x"))
        for length in range(1, 18):
            with self.subTest(length=length):
                line = self.send_and_wait(self.client, whole[:length], "Got Data request")
                reliable = length >= 9  # The flags' first byte: the reliable bit, code bits 6, 7.
                following = self.wait_following(line, 2)
                self.assertEqual(following, [
                    "Sending audio data in reliable mode" if reliable
                    else "Sending audio data in best-effort mode",
                    "Sending compressed audio data to client 1 at rate code 2" if reliable
                    else "Sending uncompressed audio data to client 1"])
        self.send_and_wait(self.client, b"", "Got unrecognized message ID 0")

    def wait_following(self, line, count):
        wait_until(lambda: self.server.out.count() > line + count, f"{count} more lines")
        return self.server.out.all()[line + 1:line + 1 + count]

    def test_long_names_and_missing_terminators_are_accepted(self):
        for length in (255, 256, 5000):
            for end in (b"\0", b""):
                with self.subTest(length=length, terminated=bool(end)):
                    message = control_message(MSGID_DATA, 1 << 6, b"n" * length + end)
                    self.send_and_wait(self.client, message, "Got Data request")
        self.client.wait_packets(10)

    def test_message_of_a_megabyte_is_cut_like_any_other(self):
        message = data_request(1, name="n" * (1 << 20))
        line = self.send_and_wait(self.client, message, "Got Data request")
        self.assertEqual(self.wait_following(line, 2)[1],
                         "Sending compressed audio data to client 1 at rate code 1")
        self.send_and_wait(self.client, data_request(2), "Got Data request")

    def test_unknown_ids_are_named(self):
        self.send_and_wait(self.client, control_message(4), "Got unrecognized message ID 4")
        self.send_and_wait(self.client, control_message(0xFFFFFFFF),
                           "Got unrecognized message ID -1")

    def test_messages_on_the_other_channel_and_unreliable_count_too(self):
        start = self.server.out.count()
        self.client.send(data_request(5), channel=1, reliable=False)
        self.wait_line("Sending compressed audio data to client 1 at rate code 5", start)

    def test_random_messages_are_survived(self):
        seed = random.SystemRandom().randrange(2 ** 32)
        print(f"seed {seed}", flush=True)
        generator = random.Random(seed)
        for _ in range(150):
            self.client.send(generator.randbytes(generator.choice((1, 3, 8, 16, 17, 60, 2000))))
        for _ in range(50):
            head = struct.pack("<I", generator.randrange(5))
            self.client.send(head + generator.randbytes(generator.randrange(400)))
        # The last one is known, and messages are handled in order.
        self.send_and_wait(self.client, control_message(12345), "Got unrecognized message ID 12345")

    def test_datagrams_that_are_no_enet_are_survived(self):

        seed = random.SystemRandom().randrange(2 ** 32)
        print(f"seed {seed}", flush=True)
        generator = random.Random(seed)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for _ in range(500):
                sender.sendto(generator.randbytes(generator.randrange(1, 1500)),
                              ("127.0.0.1", 59010))
                time.sleep(0.001)


class AcrossACable(SystemTest):
    def test_client_on_another_machine_is_served_and_named_by_its_address(self):
        with OtherNetwork() as other, SoundServer() as sound, \
                Server(sound=sound, rate=48000) as server, \
                Probe(self.folder, prefix=other.command()) as probe:
            server.wait_for_capture()
            client = probe.connect(host=HERE_ADDRESS)
            client.request(4)
            packets = client.wait_packets(30)
            self.assertEqual({p.length for p in packets}, {FALLBACK_BYTES})
            server.out.wait_for(re.compile(
                rf"^A new client connected from {re.escape(THERE_ADDRESS)}:\d+ \(prot ver 1\)$"))
            self.assert_ends_cleanly(server)

    def test_three_that_leave_the_network_silence_nobody(self):
        """What waits for their addresses must not fill the server's one socket."""
        elsewhere = self.folder / "elsewhere"
        elsewhere.mkdir()
        with OtherNetwork() as other, SoundServer() as sound, \
                Server(sound=sound, rate=48000) as server, Probe(self.folder) as here, \
                Probe(elsewhere, prefix=other.command()) as there:
            server.wait_for_capture()
            good = []
            for rate_code, reliable in ((0, False), (3, False), (0, True)):
                good.append(here.connect())
                good[-1].refuse_thinning()
                good[-1].request(rate_code, reliable)
                good[-1].wait_packets(20)
            leaving = [there.connect(host=host) for host in other.add_neighbours(3)]
            for client in leaving:
                client.request(0, reliable=False)
            wait_packets_of_all(leaving, 20)
            start = server.out.count()
            other.vanish()
            for net in (1, 2, 3):
                server.out.wait_for(re.compile(rf"^Client 10\.77\.{net}\.2:\d+ disconnected$"), start,
                                    timeout=90)
            for client, packets in zip(good, wait_packets_of_all(good, 50)):
                self.assertEqual(sequence_gaps(packets), 0, client.name)
            self.assert_ends_cleanly(server)
