"""Clients that come, go, misbehave and share the server."""

import re

from support.harness import (THERE_ADDRESS, HERE_ADDRESS, OtherNetwork, Server, SoundServer,
                             SystemTest, wait_until)
from support.probe import (FALLBACK_BYTES, FLAG_RELIABLE, RAW_PACKET_BYTES,
                           Probe, StreamingTest, sequence_gaps, wait_packets_of_all)


class ClientTest(StreamingTest):
    def tearDown(self):
        self.assert_ends_cleanly(self.server)
        super().tearDown()

    def wait_line(self, text, start=0):
        return self.server.out.wait_for(text, start)


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


class Sharing(ClientTest):
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

class Vanishing(ClientTest):
    def test_vanished_client_is_noticed_and_harms_nobody(self):
        stays = self.probe.connect()
        stays.request(0)
        goes = self.probe.listen()
        port = goes.wait_connected()
        goes.vanish()
        line = self.server.out.wait_for(f"Client 127.0.0.1:{port} disconnected", timeout=90)
        packets = stays.wait_packets(20)
        self.assertEqual(sequence_gaps(packets), 0)
        self.probe.connect().request()
        self.wait_line("Sending uncompressed audio data to client 1", line)


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
            good = [here.listen(*choice, thinned=False)
                    for choice in ((0, False), (3, False), (0, True))]
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
