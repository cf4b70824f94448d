"""The listening client against the real server."""

import array
import contextlib
import fcntl
import json
import os
import re
import resource
import signal
import statistics
import subprocess
import termios
import time

from support.harness import (DEFAULT_PORT, PATIENCE, Process, Server, SoundServer, SystemTest,
                             clean_environment, die_with_parent, listen, listen_command, wait_until)
from support.relay import Relay
from support.signals import (channel, dominant_frequency, find_frames, loud_part, noise, read_wav,
                             rms, silence, sine)
from support.terminal import TerminalProcess

FIGURES = {
    "type", "time", "server", "host", "connected", "sample_rate", "rate", "delivery",
    "kbit_per_s", "round_trip_ms", "packets", "bytes", "lost", "damaged", "frames",
    "filled_frames", "reconnects", "peak_dbfs", "rms_dbfs", "playback"}
PLAYBACK_FIGURES = {
    "playing", "buffer_ms", "target_ms", "jitter_ms", "output_latency_ms", "correction_ppm",
    "delay_ms", "in_step_ms",
    "concealed", "skipped", "stretched", "underruns",
    "device_underruns"}
PLAYBACK_SINK = "playback"
PLAYBACK_SECONDS = 6
# A server that is killed falls silent; the client may notice that first, or ENet.
SERVER_GONE = (r"(the connection to 127\.0\.0\.1:59010 has ended|"
               r"no audio received from 127\.0\.0\.1:59010 for a while)")


def report_of(text):
    """The report's lines as a dictionary."""
    return dict(line.split(": ", 1) for line in text.splitlines() if ": " in line)


def start_listening(*arguments):
    return Process(listen_command(*arguments), clean_environment())


@contextlib.contextmanager
def listening(*arguments):
    """A client that is connected and hears."""
    with start_listening(*arguments) as client:
        client.out.wait_for(re.compile("^connected .* Hz"))
        yield client


class ListenTest(SystemTest):
    """A test with a sound server and a server that captures from it."""

    rate = 48000

    def setUp(self):
        super().setUp()
        self.sound = self.enterContext(SoundServer(self.rate))
        self.server = self.start_server()

    def start_server(self):
        server = self.enterContext(Server(sound=self.sound, rate=self.rate))
        server.wait_for_capture()
        return server

    def path(self, name):
        return self.folder / name


class Recording(ListenTest):
    def record_noise(self, name, *arguments):
        """Plays noise while the client records; returns (played, status, report)."""
        played = noise(self.rate, seed=4711)
        margin = silence(self.rate // 4)
        with listening("--no-play", "--record", self.path(name), *arguments) as client:
            self.sound.play_and_wait(margin + played + margin)
            time.sleep(0.5)
            status = client.stop(signal.SIGTERM)
            return played, status, report_of("\n".join(client.out.all()))

    def test_wav_holds_what_was_played_bit_for_bit(self):
        played, status, report = self.record_noise("a.wav")
        self.assertEqual(status, 0)
        recorded, rate = read_wav(self.path("a.wav"))
        self.assertEqual(rate, self.rate)
        self.assertGreaterEqual(find_frames(recorded, played), 0)
        self.assertEqual(int(report["frames"]) + int(report["filled-frames"]),
                         len(recorded) // 2)
        self.assertEqual(report["lost"], "0")
        self.assertEqual(report["format"], "raw")

    def test_an_interrupt_completes_the_file(self):
        with listening("--no-play", "--record", self.path("a.wav")) as client:
            self.assertEqual(client.stop(signal.SIGINT), 0)
        recorded, _ = read_wav(self.path("a.wav"))
        self.assertGreater(len(recorded), 0)
        expected = self.path("a.wav").stat().st_size - 44
        self.assertEqual(len(recorded) * 2, expected)

    def test_termination_completes_compressed_files(self):
        for name in ("a.flac", "a.ogg"):
            with listening("--no-play", "--record", self.path(name)) as client:
                self.assertEqual(client.stop(signal.SIGTERM), 0)
                report = report_of("\n".join(client.out.all()))
            written = int(report["frames"]) + int(report["filled-frames"])
            self.assertGreater(written, 0)
            data = self.path(name).read_bytes()
            if name == "a.flac":
                # The number of samples, which is written at the end: 36 bits at byte 21.
                self.assertEqual(int.from_bytes(data[21:26], "big") & (1 << 36) - 1, written)
            else:
                last = data.rfind(b"OggS")
                self.assertTrue(data[last + 5] & 4, "the last page is marked as the end")

    def test_a_full_disc_is_an_error(self):
        def limit():
            die_with_parent()
            resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))
        result = subprocess.run(
            listen_command("--no-play", "--record", self.path("a.wav"), "--seconds", 10),
            env=clean_environment(), preexec_fn=limit, capture_output=True, text=True,
            timeout=PATIENCE, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot record to", result.stderr)

    def test_an_unwritable_file_is_an_error_at_once(self):
        result = listen("--record", self.path("missing/a.wav"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("No such file or directory", result.stderr)

    def test_json_figures_have_the_documented_fields(self):
        result = listen("--no-play", "--seconds", 3, "--stats=json", "--rate", 128,
                        "--best-effort")
        self.assertEqual(result.returncode, 0, result.stderr)
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertGreaterEqual(len(objects), 3)
        self.assertEqual([o["type"] for o in objects],
                         ["stats"] * (len(objects) - 1) + ["end"])
        for figures in objects:
            self.assertEqual(set(figures), FIGURES)
            self.assertIsNone(figures["playback"])
        self.assertEqual(objects[-1]["rate"], "opus-128")
        self.assertEqual(objects[-1]["delivery"], "best-effort")
        self.assertEqual(objects[-1]["sample_rate"], self.rate)


class Pipe(ListenTest):
    def test_standard_output_carries_the_samples_and_nothing_else(self):
        played = noise(self.rate, seed=815)
        margin = silence(self.rate // 4)
        with open(self.path("pipe.raw"), "wb") as target:
            client = subprocess.Popen(listen_command("--stdout"), env=clean_environment(),
                                      stdout=target, stderr=subprocess.PIPE, text=True,
                                      preexec_fn=die_with_parent)
            wait_until(lambda: self.path("pipe.raw").stat().st_size > 50000, "samples come")
            self.sound.play_and_wait(margin + played + margin)
            time.sleep(0.5)
            client.send_signal(signal.SIGTERM)
            _, errors = client.communicate(timeout=PATIENCE)
        self.assertEqual(client.returncode, 0, errors)
        received = array.array("h", self.path("pipe.raw").read_bytes())
        self.assertGreaterEqual(find_frames(received, played), 0)
        self.assertEqual(len(received) // 2, int(report_of(errors)["frames"]))

    def test_a_closed_pipe_ends_it_quietly(self):
        client = subprocess.Popen(listen_command("--stdout", "--quiet"), env=clean_environment(),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  preexec_fn=die_with_parent)
        client.stdout.read(100000)
        client.stdout.close()
        self.assertEqual(client.wait(PATIENCE), 0)
        self.assertEqual(client.stderr.read(), b"")
        client.stderr.close()

    def test_a_pipe_that_nobody_reads_does_not_hold_up_the_end(self):
        client = subprocess.Popen(listen_command("--stdout", "--quiet"), env=clean_environment(),
                                  stdout=subprocess.PIPE, preexec_fn=die_with_parent)
        def waiting():
            count = array.array("i", [0])
            fcntl.ioctl(client.stdout, termios.FIONREAD, count)
            return count[0]
        full = fcntl.fcntl(client.stdout, fcntl.F_GETPIPE_SZ)
        # The last piece may find no room.
        wait_until(lambda: waiting() > full - 4096, "the pipe is full")
        client.send_signal(signal.SIGTERM)
        self.assertEqual(client.wait(PATIENCE), 0)
        client.stdout.close()

    def test_figures_that_nobody_reads_stop_neither_the_recording_nor_the_end(self):
        reader, writer = os.pipe()
        os.set_blocking(writer, False)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(writer, bytes(4096))
        os.set_blocking(writer, True)
        recording = self.path("a.wav")
        client = subprocess.Popen(
            listen_command("--no-play", "--stats=json", "--record", recording),
            env=clean_environment(), stdout=writer, preexec_fn=die_with_parent)
        os.close(writer)
        # The first figures come after a second: three seconds of sound are well behind them.
        wait_until(lambda: recording.exists() and recording.stat().st_size > 3 * self.rate * 4,
                   "the recording goes on")
        client.send_signal(signal.SIGTERM)
        self.assertEqual(client.wait(PATIENCE), 0)
        os.close(reader)


class PlaybackTest(ListenTest):
    """What is played comes out of the client's sound device: a second null sink."""

    def setUp(self):
        super().setUp()
        self.sound.control("load-module", "module-null-sink", f"sink_name={PLAYBACK_SINK}",
                           "norewinds=1",
                           "rate=48000", "channels=2", "format=s16le")
        self.playback_env = dict(self.sound.env, PULSE_SINK=PLAYBACK_SINK)

    def record_playback(self, seconds, *arguments):
        """Plays a tone to the client and records its sound device; returns (samples, figures)."""
        self.sound.play(sine(1000, 12000, self.rate * 60, self.rate, right_frequency=400))
        with open(self.path("playback.raw"), "wb") as target:
            recorder = subprocess.Popen(
                ["parec", "--raw", "--format=s16le", "--channels=2", "--rate=48000",
                 f"--device={PLAYBACK_SINK}.monitor"], stdout=target, preexec_fn=die_with_parent,
                env=dict(clean_environment(), **self.sound.env))
            result = listen("--seconds", seconds, "--stats=json", *arguments, env=self.playback_env)
            recorder.terminate()
            recorder.wait(PATIENCE)
        self.assertEqual(result.returncode, 0, result.stderr)
        data = self.path("playback.raw").read_bytes()
        recorded = array.array("h", data[:len(data) // 4 * 4])
        return recorded, [json.loads(line) for line in result.stdout.splitlines()]

    def check_tone(self, recorded, seconds):
        """The middle of what was recorded is the tone: frequency within a cent, and level."""
        sound = loud_part(recorded)
        # A sound server takes up to two seconds to start.
        self.assertGreater(len(sound) / 2 / 48000, seconds - 3.5)
        self.assertLess(len(sound) / 2 / 48000, seconds + 1)
        middle = sound[len(sound) // 8 * 2:]
        for number, frequency in ((0, 1000), (1, 400)):
            side = channel(middle, number)[:48000 * 2]
            # A busy machine's sound server drops out now and then; that spoils a few windows only.
            windows = [side[at:at + 9600] for at in range(0, len(side) - 9599, 9600)]
            measured = statistics.median(dominant_frequency(w, 48000) for w in windows)
            self.assertAlmostEqual(measured, frequency, delta=frequency * 0.0006)
            level = statistics.median(rms(w) for w in windows)
            self.assertAlmostEqual(level / (12000 / 2 ** 0.5), 1, delta=0.12)

    def check_playback(self, *arguments):
        recorded, figures = self.record_playback(PLAYBACK_SECONDS, *arguments)
        self.check_tone(recorded, PLAYBACK_SECONDS)
        return figures


class Playback(PlaybackTest):
    def test_raw_sound_is_heard_as_it_was_played(self):
        figures = self.check_playback()
        self.assertEqual(set(figures[-1]["playback"]), PLAYBACK_FIGURES)
        self.assertTrue(any(f["playback"]["playing"] for f in figures))

    def test_opus_sound_is_heard_as_it_was_played(self):
        self.check_playback("--rate", 128, "--best-effort")

    def test_a_device_that_is_not_there_is_an_error(self):
        result = listen("--device", "no such device", env=self.playback_env)
        self.assertEqual(result.returncode, 1)
        self.assertIn("no output device named 'no such device'", result.stderr)

    def test_devices_are_listed_one_name_a_line_with_the_default_one_first(self):
        result = listen("--list-devices", host=None, env=self.playback_env)
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout.splitlines()[0], "default")


class PlaybackAt44100(PlaybackTest):
    rate = 44100

    def test_raw_sound_is_heard_as_it_was_played(self):
        self.check_playback()

    def test_opus_sound_is_heard_as_it_was_played(self):
        self.check_playback("--rate", 128, "--best-effort")


class Persistence(ListenTest):
    def test_a_restarted_server_is_found_again_and_the_recording_keeps_time(self):
        with listening("--no-play", "--record", self.path("a.wav")) as client:
            begin = time.monotonic()
            time.sleep(1)
            self.server.kill()
            self.start_server()
            client.err.wait_for(re.compile(f"{SERVER_GONE}, trying again"))
            client.err.wait_for(re.compile("connected to 127.0.0.1:59010 again"))
            time.sleep(2)
            elapsed = time.monotonic() - begin
            self.assertEqual(client.stop(), 0)
            report = report_of("\n".join(client.out.all()))
        self.assertGreaterEqual(int(report["reconnects"]), 1)
        recorded, rate = read_wav(self.path("a.wav"))
        self.assertAlmostEqual(len(recorded) / 2 / rate, elapsed, delta=2.5)

    def test_a_server_that_comes_back_with_another_rate_goes_on_in_the_same_recording(self):
        with start_listening("--no-play", "--record", self.path("a.wav")) as client:
            client.out.wait_for(re.compile("^connected .* 48000 Hz"))
            begin = time.monotonic()
            self.server.kill()
            server = self.enterContext(Server(sound=self.sound, rate=44100))
            server.wait_for_capture()
            client.out.wait_for(re.compile("^connected .* 44100 Hz"), timeout=4 * PATIENCE)
            elapsed = time.monotonic() - begin
            self.assertEqual(client.stop(), 0)
        recorded, rate = read_wav(self.path("a.wav"))
        self.assertEqual(rate, 48000)
        self.assertAlmostEqual(len(recorded) / 2 / rate, elapsed, delta=2.5)

    def test_an_end_during_an_outage_leaves_the_recording_whole(self):
        with listening("--no-play", "--record", self.path("a.wav")) as client:
            begin = time.monotonic()
            self.server.kill()
            client.err.wait_for(re.compile(f"{SERVER_GONE}, trying again"))
            time.sleep(2)
            elapsed = time.monotonic() - begin
            self.assertEqual(client.stop(), 0)
        recorded, rate = read_wav(self.path("a.wav"))
        self.assertGreater(len(recorded) / 2 / rate, elapsed - 0.5)

    def test_once_ends_with_the_server(self):
        with listening("--no-play", "--once") as client:
            self.server.kill()
            self.assertEqual(client.wait(), 0)
            self.assertRegex("\n".join(client.err.all()), SERVER_GONE)

    def test_a_listener_that_another_replaces_says_so_and_ends(self):
        with listening("--no-play", "--single") as first:
            self.assertEqual(listen("--no-play", "--seconds", 1).returncode, 0)
            self.assertEqual(first.wait(), 0)
            self.assertIn("replaced by another client at ", "\n".join(first.err.all()))


class Display(ListenTest):
    def check_display(self, columns):
        self.sound.play(sine(1000, 16384, self.rate * 20, self.rate))
        wait_until(lambda: self.sound.control("list", "short", "sink-inputs"), "the tone is played")
        command = listen_command("--no-play", "--rate", 64, "--seconds", 4)
        with TerminalProcess(command, clean_environment(), columns) as terminal:
            terminal.wait_for("receiving")
            terminal.wait_for("opus-64")
            for part in ("127.0.0.1:59010", "48000 Hz", "reliable", "kbit/s", "RTT", "lost 0",
                         "dBFS"):
                self.assertIn(part, terminal.text())
            self.assertTrue(terminal.screen.cursor.hidden)
            self.assertEqual(terminal.wait(), 0)
            final = terminal.text()
            self.assertFalse(terminal.screen.cursor.hidden)
        self.assertEqual(final.count("kbit/s"), 1, "drawn in place, not line below line:\n" + final)
        self.assertRegex(final, r"(?m)^L #+")
        self.assertRegex(final, r"(?m)^R #+")
        self.assertIn("packets: ", final)

    def test_at_80_columns(self):
        self.check_display(80)

    def test_at_40_columns(self):
        self.check_display(40)

    def test_without_a_terminal_one_plain_line_a_second(self):
        result = listen("--no-play", "--seconds", 3.5)
        lines = [line for line in result.stdout.splitlines() if line.startswith("connected ")]
        self.assertIn(len(lines), (2, 3, 4))
        self.assertNotIn("\x1b", result.stdout)

    def test_quiet_prints_nothing(self):
        result = listen("--no-play", "--seconds", 1, "--quiet")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))


class BadNetwork(ListenTest):
    """Through a relay that delays by 10 ms, give or take 5 ms, and drops datagrams."""

    def listen_through(self, loss, *arguments):
        seed = 20261121
        print(f"seed {seed}")
        with Relay(DEFAULT_PORT, loss=loss, seed=seed) as relay:
            result = listen("--no-play", "--stats=json", "--seconds", 6, "--record",
                            self.path("a.wav"), *arguments, host=f"127.0.0.1:{relay.port}")
        self.assertEqual(result.returncode, 0, result.stderr)
        samples, rate = read_wav(self.path("a.wav"))
        return json.loads(result.stdout.splitlines()[-1]), len(samples) / 2 / rate

    def test_lost_packets_are_counted_and_the_recording_keeps_its_length(self):
        for rate in ("raw", "128"):
            figures, seconds = self.listen_through(0.05, "--best-effort", "--rate", rate)
            share = figures["lost"] / (figures["lost"] + figures["packets"])
            self.assertGreater(share, 0.01)
            self.assertLess(share, 0.15)
            self.assertGreater(figures["filled_frames"], 0)
            self.assertAlmostEqual(seconds, 6, delta=1)

    def test_jitter_alone_loses_nothing_in_best_effort_mode(self):
        figures, _ = self.listen_through(0, "--best-effort")
        self.assertEqual(figures["lost"], 0)

    def test_reliable_mode_loses_nothing_on_a_lossy_link(self):
        figures, _ = self.listen_through(0.02, "--rate", 64)
        self.assertEqual(figures["lost"], 0)
        self.assertEqual(figures["delivery"], "reliable")


class Finding(ListenTest):
    def test_without_a_host_the_server_is_found(self):
        result = listen("--no-play", "--seconds", 1, host=None)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertGreater(int(report_of(result.stdout)["packets"]), 0)

    def test_list_prints_address_and_answer_time(self):
        result = listen("--list", host=None)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout, r"\A\d+\.\d+\.\d+\.\d+\t\d+\.\d ms\n\Z")

    def test_a_server_on_another_port_is_found_by_that_port(self):
        self.server.stop()
        with Server(sound=self.sound, rate=self.rate,
                    env={"VELANTRIX_SERVER_PORT": "7000"}) as server:
            server.wait_for_capture()
            result = listen("--no-play", "--seconds", 1, "--port", 7000, host=None)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertGreater(int(report_of(result.stdout)["packets"]), 0)
            self.assertIn(":7000", result.stdout)


class NoServer(SystemTest):
    def test_nobody_to_find_is_an_error_after_three_seconds(self):
        for arguments in ([], ["--list"]):
            begin = time.monotonic()
            result = listen("--no-play", *arguments, host=None)
            self.assertEqual(result.returncode, 1)
            self.assertEqual(result.stderr, "velantrix-listen: no server has answered\n")
            self.assertGreater(time.monotonic() - begin, 2.5)

    def test_a_server_that_does_not_answer_is_an_error(self):
        result = listen("--no-play")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, "velantrix-listen: 127.0.0.1:59010 does not answer\n")

    def test_a_stop_while_connecting_ends_at_once(self):
        with start_listening("--no-play") as client:
            client.out.wait_for(re.compile("^waiting "))
            self.assertEqual(client.stop(signal.SIGINT), 1)

    def test_a_wrong_command_line_has_status_2(self):
        for arguments in (["--rate", "65"], ["--what"], ["--record", "x.mp3"]):
            result = listen(*arguments)
            self.assertEqual(result.returncode, 2)
            self.assertEqual(result.stderr.count("\n"), 1)
