"""The listening client when servers, addresses, sound or readers are lost."""

import json
import os
import re
import subprocess
import time

from support.harness import (DEFAULT_PORT, HERE_ADDRESS, PATIENCE, THERE_ADDRESS, OtherNetwork,
                             Process, Server, SoundServer, SystemTest, clean_environment,
                             die_with_parent, fake, listen, listen_command, wait_until)
from support.network import ip
from support.signals import channel, read_wav, rms, sine

LONG_PATIENCE = 60
MOVED_ADDRESS = "10.77.0.3"


class FaultTest(SystemTest):
    """A test with a sound server; servers come as the test needs them."""

    def setUp(self):
        super().setUp()
        self.sound = self.enterContext(SoundServer(48000))

    def start_server(self, *arguments, prefix=()):
        server = self.enterContext(Server(*arguments, sound=self.sound, rate=48000, prefix=prefix))
        server.wait_for_capture()
        return server

    def start_client(self, command, env=None):
        return self.enterContext(Process(command, dict(clean_environment(), **(env or {}))))


class OutputDevice(FaultTest):
    def test_a_restarted_sound_server_is_played_on_again_while_the_recording_goes_on(self):
        output = self.enterContext(SoundServer(48000))
        self.start_server()
        self.sound.play(sine(1000, 12000, 48000, 48000) * 90)
        path = self.folder / "a.wav"
        client = self.start_client(listen_command("--record", path, "--stats=json"), output.env)
        self.wait_for_playing(client)
        output.stop()
        client.err.wait_for(
            "velantrix-listen: the output device is gone, trying to reopen it",
            timeout=LONG_PATIENCE)
        before = self.frames(client)
        wait_until(lambda: self.frames(client) > before + 48000,
                   "the recording goes on without the device", LONG_PATIENCE)
        output.start()
        client.err.wait_for("velantrix-listen: playing again", timeout=LONG_PATIENCE)
        self.wait_for_playing(client, client.out.count())
        self.assertGreater(rms(channel(self.record(output), 0)), 1000)
        self.assertEqual(client.stop(), 0)
        # A busy machine may make it ask for more latency besides.
        told = [line for line in client.err.all() if "requesting" not in line]
        self.assertEqual(len(told), 2, told)
        self.check_recording(json.loads(client.out.all()[-1]), path)

    @staticmethod
    def frames(client):
        return json.loads(client.out.all()[-1])["frames"]

    @staticmethod
    def wait_for_playing(client, start=0):
        client.out.wait_for(re.compile('"playback":{"playing":true'), start, LONG_PATIENCE)

    @staticmethod
    def record(output):
        """A second of what the client's sound device plays."""
        with subprocess.Popen(
                ["parec", "--raw", "--format=s16le", "--channels=2", "--rate=48000"],
                env=dict(clean_environment(), **output.env), stdout=subprocess.PIPE,
                preexec_fn=die_with_parent) as recorder:
            data = recorder.stdout.read(48000 * 4 * 2)
            recorder.terminate()
        return memoryview(data).cast("h").tolist()

    def check_recording(self, figures, path):
        recorded, _ = read_wav(path)
        self.assertEqual(figures["lost"], 0)
        self.assertEqual(figures["reconnects"], 0)
        self.assertEqual(figures["filled_frames"], 0)
        self.assertGreaterEqual(len(recorded) // 2, figures["frames"])


class TwoServers(FaultTest):
    def setUp(self):
        super().setUp()
        there = self.enterContext(OtherNetwork())
        there.receive_on_cable()
        self.start_server()
        self.start_server(prefix=there.command())

    def test_the_list_has_both_each_once(self):
        result = listen("--list", host=None)
        self.assertEqual(result.returncode, 0, result.stderr)
        addresses = [line.split("\t")[0] for line in result.stdout.splitlines()]
        self.assertEqual(sorted(addresses), [HERE_ADDRESS, THERE_ADDRESS])

    def test_without_a_host_both_are_told_of_and_the_first_is_taken(self):
        result = listen("--no-play", "--seconds", 1, "--stats=json", host=None)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("several servers have answered, using the first", result.stderr)
        told = re.findall(r"^([\d.]+)\t", result.stderr, re.MULTILINE)
        self.assertEqual(sorted(told), [HERE_ADDRESS, THERE_ADDRESS])
        figures = json.loads(result.stdout.splitlines()[-1])
        self.assertEqual(figures["server"], f"{told[0]}:{DEFAULT_PORT}")


class MovedServer(FaultTest):
    def wait_for_move(self, client, address):
        client.err.wait_for(f"velantrix-listen: the server is now at {address}:{DEFAULT_PORT}",
                            timeout=LONG_PATIENCE)
        client.err.wait_for(f"velantrix-listen: connected to {address}:{DEFAULT_PORT} again",
                            timeout=LONG_PATIENCE)
        client.out.wait_for(re.compile(f"^connected {address}:.* Hz"), client.out.count())

    def test_a_found_server_whose_address_changed_is_found_again(self):
        there = self.enterContext(OtherNetwork())
        there.receive_on_cable()
        self.start_server(prefix=there.command())
        client = self.start_client(listen_command("--no-play", host=None))
        client.out.wait_for(re.compile(f"^connected {THERE_ADDRESS}:.* Hz"))
        # The network is named otherwise, so that the second address is none of the first's.
        ip("addr", "add", f"{MOVED_ADDRESS}/16", "dev", "vxthere", there=there)
        ip("addr", "del", f"{THERE_ADDRESS}/24", "dev", "vxthere", there=there)
        self.wait_for_move(client, MOVED_ADDRESS)

    def test_a_named_server_is_looked_up_anew(self):
        hosts = self.folder / "hosts"
        hosts.write_text("127.0.0.2 vxserver\n", encoding="ascii")
        with Server("-b", "127.0.0.2", sound=self.sound, rate=48000) as server:
            server.wait_for_capture()
            client = self.start_client(
                listen_command("--no-play", host="vxserver"),
                {"LD_PRELOAD": fake("preload_hosts.so"), "VELANTRIX_HOSTS": str(hosts)})
            client.out.wait_for(re.compile("^connected 127.0.0.2:.* Hz"))
        hosts.write_text("127.0.0.3 vxserver\n", encoding="ascii")
        self.start_server("-b", "127.0.0.3")
        self.wait_for_move(client, "127.0.0.3")


class PipeReader(FaultTest):
    def test_a_reader_that_goes_while_the_server_is_away_ends_it_quietly(self):
        server = self.start_server()
        client = subprocess.Popen(listen_command("--stdout", "--quiet"), env=clean_environment(),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  preexec_fn=die_with_parent)
        self.addCleanup(client.wait)
        self.addCleanup(client.kill)
        client.stdout.read(100000)
        server.kill()
        os.set_blocking(client.stdout.fileno(), False)
        wait_until(lambda: client.stdout.read() is None, "the pipe is empty")
        time.sleep(1)
        client.stdout.read()
        client.stdout.close()
        self.assertEqual(client.wait(PATIENCE), 0)
        self.assertEqual(client.stderr.read(), b"")
        client.stderr.close()
