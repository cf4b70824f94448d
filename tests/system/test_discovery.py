"""Finding the server: the discovery thread of the running program."""

import re
import socket
import subprocess
import sys

from support.harness import (HERE_ADDRESS, OtherNetwork, Server, SoundServer, SystemTest,
                             clean_environment, wait_until)
from support.network import DISCOVERY_GROUP, discovery_group_joined, ip
from support.probe import Probe

PORT = 59011
FIRST_FORM, SECOND_FORM, RESPONSE = b"VelantrixQuery", b"VelantrixQuery2", b"VelantrixResponse"
PATIENCE = 10

# A client app in another network: asks the group and prints what comes back and from where.
ASK = f"""
import socket, sys
form, answers_at = sys.argv[1].encode(), int(sys.argv[2])
client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
client.bind(("", answers_at))
client.settimeout({PATIENCE})
client.sendto(form, ("{DISCOVERY_GROUP}", {PORT}))
answer, (host, port) = client.recvfrom(2048)
print(answer.decode(), host, port)
"""


def query(form, port=PORT, host="127.0.0.1", timeout=PATIENCE):
    """Sends a query from a fresh socket; returns the answer and its sender, or None."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(timeout)
        client.sendto(form, (host, port))
        try:
            return client.recvfrom(2048)
        except (socket.timeout, ConnectionRefusedError):
            return None


def wait_for_discovery():
    wait_until(discovery_group_joined, "the discovery group is joined")


def route_group_over_loopback():
    ip("route", "replace", f"{DISCOVERY_GROUP}/32", "dev", "lo")


class Discovery(SystemTest):
    def test_server_without_sound_is_found(self):
        with Server() as server:
            wait_for_discovery()
            self.assertEqual(query(SECOND_FORM), (RESPONSE, ("127.0.0.1", PORT)))
            self.assertEqual(query(SECOND_FORM, host=DISCOVERY_GROUP)[0], RESPONSE)
            server.out.wait_for("Multicast received 15 bytes: VelantrixQuery2")

    def test_port_option_does_not_move_discovery(self):
        with Server("-p", "7000") as server:
            server.out.wait_for("Binding to port number 7000")
            wait_for_discovery()
            self.assertEqual(query(SECOND_FORM)[0], RESPONSE)
            self.assertIsNone(query(SECOND_FORM, port=7001, timeout=1))

    def test_bind_address_does_not_narrow_discovery(self):
        with Server("-b", "127.0.0.1") as server:
            wait_for_discovery()
            self.assertEqual(query(SECOND_FORM, host="127.0.0.2")[0], RESPONSE)

    def test_client_of_another_network_finds_the_server(self):
        self.addCleanup(route_group_over_loopback)  # The cable takes its route along.
        with OtherNetwork() as network:
            network.receive_on_cable()
            with Server() as server:
                wait_for_discovery()
                answer = self.ask_from(network, SECOND_FORM, 0).split()
                self.assertEqual(answer, [RESPONSE.decode(), HERE_ADDRESS, str(PORT)])
                answer = self.ask_from(network, FIRST_FORM, PORT).split()
                self.assertEqual(answer[:2], [RESPONSE.decode(), HERE_ADDRESS])
                self.assertNotEqual(answer[2], str(PORT))

    def ask_from(self, network, form, answers_at):
        asked = subprocess.run(
            [*network.command(), sys.executable, "-c", ASK, form.decode(), str(answers_at)],
            env=clean_environment(), capture_output=True, text=True, check=False)
        self.assertEqual(asked.returncode, 0, asked.stderr)
        return asked.stdout

    def test_server_answers_whether_or_not_a_client_is_connected(self):
        with SoundServer() as sound, Server(sound=sound, rate=48000) as server, \
                Probe(self.folder) as probe:
            server.wait_for_capture()
            wait_for_discovery()
            self.assert_found()
            client = probe.connect()
            self.assert_found()
            client.request()
            client.wait_packets(5)
            self.assert_found()
            client.wait_packets(5)
            client.disconnect()
            server.out.wait_for(re.compile(r"^Client \S+ disconnected$"))
            self.assert_found()
            self.assert_ends_cleanly(server)

    def assert_found(self):
        self.assertEqual(query(SECOND_FORM), (RESPONSE, ("127.0.0.1", PORT)))
        self.assertEqual(query(SECOND_FORM, host=DISCOVERY_GROUP)[0], RESPONSE)


class DiscoveryThatCannotStart(SystemTest):
    def test_server_whose_discovery_port_another_program_holds_streams_all_the_same(self):
        holder = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        holder.bind(("", PORT))
        # Not verbose, the start of the audio library may swallow the complaint.
        with SoundServer() as sound, Server("-verbose", sound=sound, rate=48000) as server, \
                Probe(self.folder) as probe:
            server.err.wait_for("multiHost: Bind failed: Address already in use")
            server.wait_for_capture()
            self.assertIsNone(query(SECOND_FORM, timeout=1))
            client = probe.connect()
            client.request()
            client.wait_packets(50)
            self.assert_ends_cleanly(server)
