"""Media players hear the tone in each of the streams of velantrix-web.

VELANTRIX_WEB_SECONDS says how long each one listens, 4 if it is not set.
"""

import os
import pathlib
import re
import subprocess
import time

from support.harness import PATIENCE, SOURCE, Server, SoundServer, SystemTest, die_with_parent
from support.processes import NOT_ROOT, wait_until
from support.signals import read_wav
from support.web import Tone, Web, assert_tone
from support.web_listener import connect

SECONDS = float(os.environ.get("VELANTRIX_WEB_SECONDS", "4"))
KERNEL_BYTES = 32768
"""That the kernel of a slow listener keeps."""
STREAMS = ("stream.wav", "stream.flac", "stream.mp3", "stream.ogg")


class PlayersTest(SystemTest):
    """A test with a server that captures a tone, and velantrix-web."""

    rate = 48000

    def setUp(self):
        super().setUp()
        self.folder.chmod(0o777)
        self.sound = self.enterContext(SoundServer(self.rate))
        self.server = self.start_server()
        self.enterContext(Tone(self.sound))
        self.web = self.enterContext(Web("--title", "Kitchen"))
        self.address = self.web.address()

    def start_server(self):
        server = self.enterContext(Server(sound=self.sound, rate=self.rate))
        server.wait_for_capture()
        return server

    def start(self, command):
        child = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, preexec_fn=die_with_parent,
            env=dict(os.environ, HOME=str(self.folder)))
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        return child

    def finish(self, child, statuses=(0,)):
        text, _ = child.communicate(timeout=SECONDS + PATIENCE)
        self.assertIn(child.returncode, statuses, text)
        return text

    def decode(self, path, target):
        """ffmpeg's result for a saved piece of a stream."""
        self.finish(self.start(["ffmpeg", "-nostdin", "-loglevel", "error", "-i", path, "-ac", 2,
                                "-c:a", "pcm_s16le", "-y", target]))

    def hear(self, command, streams=STREAMS, statuses=(0,)):
        """Plays all streams at once. ``command(address, path)`` returns the player's command; it writes
        the sound to the WAV file at ``path``."""
        paths = [self.folder / f"{stream.replace('?', '-')}.wav" for stream in streams]
        children = [self.start(command(f"{self.address}/{stream}", path))
                    for stream, path in zip(streams, paths)]
        for stream, path, child in zip(streams, paths, children):
            with self.subTest(stream):
                text = self.finish(child, statuses)
                self.assertTrue(path.exists(), text)
                samples, rate = read_wav(path)
                self.assertEqual(rate, self.expected_rate(stream))
                assert_tone(self, samples, rate, SECONDS - 1, stream, level="rate=20" not in stream)

    def expected_rate(self, stream):
        return 48000 if ".ogg" in stream else self.rate

    @staticmethod
    def ffmpeg(address, path):
        return ["ffmpeg", "-nostdin", "-loglevel", "error", "-i", address, "-t", SECONDS,
                "-c:a", "pcm_s16le", "-y", path]


class Players(PlayersTest):
    def test_ffmpeg(self):
        self.hear(self.ffmpeg)

    def test_every_rate_of_ogg_and_mp3(self):
        self.hear(self.ffmpeg, [f"stream.ogg?rate={rate}" for rate in (20, 64, 256)]
                  + [f"stream.mp3?rate={rate}" for rate in (64, 128, 256)])

    def test_mpv(self):
        self.hear(lambda address, path: [
            "mpv", "--no-config", "--no-video", f"--o={path}", "--oac=pcm_s16le",
            f"--length={SECONDS}", address])

    def test_vlc(self):
        self.hear(lambda address, path: [
            *(NOT_ROOT if os.geteuid() == 0 else []), "cvlc", "--no-video", "--aout=afile",
            f"--audiofile-file={path}", f"--run-time={SECONDS}", "--play-and-exit", address,
            "vlc://quit"])

    def test_curl(self):
        def command(address, path):
            return ["curl", "-sS", "-m", SECONDS, "-o", path.with_suffix(".saved"), address]
        streams = [self.folder / f"{stream}.saved" for stream in STREAMS]
        children = [self.start(command(f"{self.address}/{stream}", path))
                    for stream, path in zip(STREAMS, streams)]
        for stream, path, child in zip(STREAMS, streams, children):
            with self.subTest(stream):
                self.finish(child, (28,))  # The time that was asked for is over.
                heard = pathlib.Path(f"{path}.wav")
                self.decode(path, heard)
                samples, rate = read_wav(heard)
                self.assertEqual(rate, self.expected_rate(stream))
                assert_tone(self, samples, rate, SECONDS - 1, stream)

    def test_the_commands_of_the_document_work(self):
        text = (SOURCE / "docs/web.md").read_text(encoding="utf-8")
        text = text.replace("//192.168.1.20:59080", self.address.removeprefix("http:"))
        (program,) = re.findall(r"```python\n(.*?)```", text, re.S)
        shell = "".join(re.findall(r"```sh\n(.*?)```", text, re.S)).replace("\\\n", " ")
        lines = {line.split()[-1]: ["bash", "-c", f"cd {self.folder}; {line}"]
                 for line in shell.splitlines() if line.startswith(("curl", "openssl"))}
        self.assertEqual(len(lines), 4)
        lines["client"] = ["/usr/bin/python3", "-u", "-c", program]
        children = {name: self.start(["timeout", SECONDS, *line]) for name, line in lines.items()}
        endless = ("recording.ogg", "client")
        texts = {name: self.finish(child, (124,) if name in endless else (0,))
                 for name, child in children.items()}
        self.assertIn("'format': 'opus'", texts["client"])
        self.assertIn('"program":"velantrix-web"', "".join(texts.values()))
        self.assertIn("<svg", (self.folder / "page.svg").read_text(encoding="utf-8"))
        self.decode(self.folder / "recording.ogg", self.folder / "recording.wav")
        secure = self.enterContext(Web("--certificate", self.folder / "velantrix.crt",
                                       "--key", self.folder / "velantrix.key"))
        self.assertTrue(secure.address().startswith("https://"))

    def test_sound_that_a_slow_listener_lost_is_a_gap_and_not_the_end(self):
        """Who does not read for less than ten seconds keeps the stream."""
        # Longer than what is kept for it lasts.
        pauses = {"stream.mp3?rate=256": 12, "stream.flac": 10}
        after = SECONDS + 2
        end = time.monotonic() + max(pauses.values()) + 0.1
        lines, saved = {}, {}
        for stream, pause in pauses.items():
            time.sleep(end - pause - time.monotonic())
            lines[stream] = self.enterContext(connect(self.address, KERNEL_BYTES))
            lines[stream].sendall(f"GET /{stream} HTTP/1.0\r\n\r\n".encode("ascii"))
            saved[stream] = bytearray()
        time.sleep(end - time.monotonic())
        while time.monotonic() < end + after:
            for stream, line in lines.items():
                saved[stream] += line.recv(65536)
        for stream, content in saved.items():
            with self.subTest(stream):
                path = self.folder / stream.split("?")[0]
                path.write_bytes(content.partition(b"\r\n\r\n")[2])
                heard = path.with_suffix(".wav")
                self.decode(path, heard)
                samples, rate = read_wav(heard)
                self.assertLess(len(samples) / 2 / rate, pauses[stream] + after - 1,
                                "nothing was left out")
                assert_tone(self, samples[-int(SECONDS) * 2 * rate:], rate, SECONDS - 1, stream)

    def test_a_server_that_was_away_is_heard_again_on_the_same_connection(self):
        children = {stream: self.start(["curl", "-sS", "-N", "-m", 120, "-o", self.folder / stream,
                                        f"{self.address}/{stream}"]) for stream in STREAMS}

        def grown(sizes=None):
            now = {stream: (self.folder / stream).stat().st_size for stream in STREAMS
                   if (self.folder / stream).exists()}
            return len(now) == len(STREAMS) and now if sizes is None else all(
                now[stream] > sizes[stream] + 20000 for stream in STREAMS)
        first = wait_until(grown, "every stream begins")
        wait_until(lambda: grown(first), "every stream is heard")
        self.server.kill()
        away = grown()
        wait_until(lambda: (self.folder / "stream.wav").stat().st_size
                   > away["stream.wav"] + 2 * 192000, "silence comes while the server is away")
        lines = len(self.web.out.all())
        self.start_server()
        for feed in ("raw", "128"):
            self.web.out.wait_for(re.compile(f"^{feed}: connected"), lines)
        again = grown()
        wait_until(lambda: (self.folder / "stream.wav").stat().st_size
                   > again["stream.wav"] + (SECONDS + 2) * 192000, "the server is heard again")
        self.assertEqual([child.poll() for child in children.values()], [None] * len(STREAMS))
        for stream, child in children.items():
            with self.subTest(stream):
                child.terminate()
                child.wait()
                heard = self.folder / f"{stream}.wav"
                self.decode(self.folder / stream, heard)
                samples, rate = read_wav(heard)
                assert_tone(self, samples[-int(SECONDS) * 2 * rate:], rate, SECONDS - 1, stream)


class PlayersAt44100(PlayersTest):
    rate = 44100

    def test_ffmpeg(self):
        self.hear(self.ffmpeg)
