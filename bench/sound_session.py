"""A streaming session on the real sound path: a private sound server, ALSA's bridge, PortAudio."""

import array
import fcntl
import itertools
import math
import os
import random
import re
import subprocess
import tempfile
import termios
import threading
import time
from pathlib import Path

from session import Client, end_programs
from support.sound import NULL_SINK, SoundServer, clean_environment

RATE = 48000

PIECE_S = 0.005
PLAYER_LATENCY_MS = 20
CLICK_MS = 1
CLICK_PAUSE_S = (0.6, 1.0)
FURTHEST_MS = 500


def busy_sound():
    """One second of stereo that keeps an encoder busy, repeated."""
    noise = random.Random(1)
    frames = array.array("h")
    for frame in range(RATE):
        turn = 2 * math.pi * frame / RATE
        hiss = noise.randrange(-512, 512)
        frames.append(int(7000 * math.sin(440 * turn) + 4000 * math.sin(1318 * turn)) + hiss)
        frames.append(int(8000 * math.sin(554 * turn)) + hiss)
    return itertools.repeat(frames.tobytes())


def tone():
    """The sound for path_client: 1 kHz on the left, on the right a counter of milliseconds.

    In pieces of one second, without end: the counter goes from -30000 to 29999.
    """
    sine = [round(8000 * math.sin(2 * math.pi * frame / 48)) for frame in range(48)]
    pieces = []
    for second in range(60):
        frames = array.array("h")
        for count in range(1000 * second - 30000, 1000 * second - 29000):
            for sample in sine:
                frames.extend((sample, count))
        pieces.append(frames.tobytes())
    return itertools.cycle(pieces)


class Player:
    """pacat, fed with `pieces` as fast as it reads them or as they come.

    `pieces` is an iterator of bytes, or a function that makes one from the pipe to the player.
    """

    def __init__(self, sound, pieces, latency_ms=None, sink=NULL_SINK):
        command = ["pacat", "--playback", "--raw", "--format=s16le", "--channels=2",
                   f"--rate={RATE}", f"--device={sink}"]
        if latency_ms:
            command.append(f"--latency-msec={latency_ms}")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, bufsize=0,
                                        env=dict(clean_environment(), **sound.env))
        self.stopping = False
        pieces = pieces(self.process.stdin) if callable(pieces) else pieces
        self.thread = threading.Thread(target=self._feed, args=(pieces,), daemon=True)
        self.thread.start()

    def _feed(self, pieces):
        for piece in pieces:
            if self.stopping:
                break
            try:
                self.process.stdin.write(piece)
            except BrokenPipeError:
                break

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self.stopping = True
        self.process.terminate()
        self.process.wait(timeout=20)
        self.thread.join(timeout=20)


class Clicks:
    """Sound handed over piece by piece in real time, with a click at random moments.

    `sound` are samples that repeat, silence if not given; `click` is shorter than a piece. Sound is
    held back while the player's pipe is not empty, so that no delay builds up there.
    """

    PIECE_BYTES = int(RATE * PIECE_S) * 4
    LOUD = array.array("h", [20000] * (2 * RATE * CLICK_MS // 1000)).tobytes()

    def __init__(self, sound=bytes(PIECE_BYTES), click=LOUD):
        self.handed_over = []
        self.random = random.Random(7)
        self.sound = itertools.cycle(
            sound[at:at + self.PIECE_BYTES] for at in range(0, len(sound), self.PIECE_BYTES))
        self.click = click

    @staticmethod
    def _waiting(pipe):
        count = array.array("i", [0])
        fcntl.ioctl(pipe.fileno(), termios.FIONREAD, count)
        return count[0]

    def pieces(self, pipe):
        for _ in range(int(PLAYER_LATENCY_MS / 1000 / PIECE_S) + 1):
            yield next(self.sound)  # As much as the player needs before it begins.
        while self._waiting(pipe) > 0:
            time.sleep(PIECE_S)
        due = time.monotonic()
        next_click = due + 1
        while True:
            due += PIECE_S
            time.sleep(max(0, due - time.monotonic()))
            if due >= next_click:
                next_click = due + self.random.uniform(*CLICK_PAUSE_S)
                self.handed_over.append(time.monotonic_ns())
                yield self.click + next(self.sound)[len(self.click):]
            elif self._waiting(pipe) == 0:
                yield next(self.sound)


def match(handed_over, arrivals):
    """Delays in ns: every hand-over with the first arrival after it, within reason."""
    delays, waiting = [], sorted(arrivals)
    for moment in handed_over:
        found = next((a for a in waiting if 0 <= a - moment < FURTHEST_MS * 1e6), None)
        if found is not None:
            delays.append(found - moment)
    return sorted(delays)


class MonitorReader:
    """parec on a null sink's monitor with minimum buffering."""

    def __init__(self, sound, sink=NULL_SINK):
        self.process = subprocess.Popen(
            ["parec", "--raw", "--format=s16le", "--channels=2", f"--rate={RATE}",
             f"--device={sink}.monitor", "--latency-msec=1"], stdout=subprocess.PIPE,
            env=dict(clean_environment(), **sound.env))
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(timeout=20)
        self.thread.join(timeout=20)
        self.process.stdout.close()


class Recorder(MonitorReader):
    """Hears clicks.

    `clicks` are the times at which the first loud sample after quiet ones was read, ns.
    """

    LOUD = 8000
    QUIET_BYTES = 1400

    def __init__(self, sound, sink=NULL_SINK):
        self.clicks = []
        super().__init__(sound, sink)

    def _read(self):
        quiet, rest = 0, b""
        while True:
            data = os.read(self.process.stdout.fileno(), 4096)
            if not data:
                return
            now, data = time.monotonic_ns(), rest + data
            whole = len(data) - len(data) % 4
            rest = data[whole:]
            samples = array.array("h", data[:whole])
            if samples and max(samples) > self.LOUD:
                if quiet > self.QUIET_BYTES:
                    self.clicks.append(now)
                quiet = 0
            else:
                quiet += whole


class SoundSession:
    """The server, headless, recording the monitor of a null sink, with clients of `Client`'s kind.

    `make_client(rate_code, reliable, number)` gives the client's process when it is to be another.
    """

    PORT = 59010

    def __init__(self, build, clients, make_client=None):
        self.build = Path(build)
        self.wanted = clients
        self.make_client = make_client or self._stream_client
        self.clients = []

    def _stream_client(self, rate_code, reliable, _):
        return Client(self.build, self.PORT, rate_code, reliable)

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="velantrix-path-")
        self.sound = SoundServer(RATE)
        self.sound.__enter__()
        self.log_path = Path(self.folder.name) / "server.log"
        with open(self.log_path, "wb") as log:
            self.server = subprocess.Popen(
                [self.build / "VelantrixServer", "-nogui"], stdout=log, stderr=subprocess.STDOUT,
                env=dict(clean_environment(), **self.sound.env, QT_QPA_PLATFORM="offscreen",
                         VELANTRIX_SERVER_SAMPLE_RATE=str(RATE)))
        self._wait_for_line("VelantrixServer: Audio capture running")
        self.clients = [self.make_client(code, reliable, number)
                        for number, (code, reliable) in enumerate(self.wanted)]
        return self

    def __exit__(self, *_):
        end_programs(self.clients, self.server)
        self.sound.__exit__()
        self.folder.cleanup()

    def _wait_for_line(self, line):
        for _ in range(600):
            if line in self.lines():
                return
            if self.server.poll() is not None:
                break
            time.sleep(0.05)
        raise RuntimeError("no capture: " + self.log_path.read_text(encoding="utf-8"))

    def lines(self):
        return self.log_path.read_text(encoding="utf-8", errors="replace").splitlines()

    def input_latency_s(self):
        """The input's latency, as PortAudio reported it."""
        found = re.search(r"input latency = (\S+) sec", "\n".join(self.lines()))
        return float(found.group(1))

    def sound_server_pid(self):
        return self.sound.daemon.child.pid


def latencies_us(sound, kind):
    """(buffer, device) latency of the one stream of a kind ("sink-inputs", "source-outputs")."""
    text = sound.control("list", kind)
    found = re.search(r"Buffer Latency: (\d+) usec\s+\w+ Latency: (\d+) usec", text)
    return (int(found.group(1)), int(found.group(2))) if found else None
