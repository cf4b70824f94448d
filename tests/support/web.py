"""velantrix-web, the programs that listen to it, and checks of what they heard."""

import array
import cmath
import math
import re
import statistics
import subprocess
import threading
import time

from support.harness import Program, program
from support.processes import PATIENCE, die_with_parent, wait_until
from support.signals import channel, dominant_frequency, rms, sine
from support.sound import NULL_SINK, clean_environment

TONE = {"left": 997, "right": 503}
"""Hz, both whole numbers: a second of the tone can be repeated without a step."""

AMPLITUDE = 10000
RATE = 48000


class Web(Program):
    """A running velantrix-web on a free port of the loopback interface."""

    def __init__(self, *arguments, host="127.0.0.1", listen="127.0.0.1:0", env=None, prefix=()):
        words = [host] if host else []
        super().__init__([*prefix, program("VELANTRIX_WEB"), *words, "--listen", listen,
                          *arguments], dict(clean_environment(), **(env or {})),
                         name="velantrix-web")

    def address(self):
        """Waits until it serves; the address to open, without a slash at the end."""
        line = self.out.wait_for(re.compile("^https?://"))
        return self.out.all()[line].rstrip("/")


class Tone:
    """Plays a tone without an end into a sound server. A context manager."""

    def __init__(self, sound):
        self.sound = sound

    def second(self):
        return sine(TONE["left"], AMPLITUDE, RATE, RATE, TONE["right"])

    def __enter__(self):
        second = self.second().tobytes()
        self.player = subprocess.Popen(
            ["pacat", "--playback", "--raw", "--format=s16le", "--channels=2", f"--rate={RATE}",
             f"--device={NULL_SINK}"], stdin=subprocess.PIPE, preexec_fn=die_with_parent,
            env=dict(clean_environment(), **self.sound.env))

        def play():
            try:
                while True:
                    self.player.stdin.write(second)
            except (BrokenPipeError, ValueError):
                pass
        self.thread = threading.Thread(target=play, daemon=True)
        self.thread.start()
        wait_until(lambda: self.sound.control("list", "short", "sink-inputs"), "the tone is played")
        time.sleep(1)  # Until it is captured, too.
        return self

    def __exit__(self, *_):
        self.player.kill()
        self.player.wait()
        self.thread.join(PATIENCE)
        try:
            self.player.stdin.close()
        except BrokenPipeError:
            pass


class Clicks(Tone):
    """A click a second: the first half wave of 500 Hz."""

    FRAMES = 48

    def second(self):
        wave = [round(2 * AMPLITUDE * math.sin(math.pi * i / self.FRAMES))
                for i in range(self.FRAMES)]
        return array.array("h", [value for value in wave for _ in range(2)]
                           + [0, 0] * (RATE - self.FRAMES))


def pitch(mono, rate, spliced):
    """The frequency in Hz; of most half seconds, if some may have been stretched a little."""
    if not spliced:
        return dominant_frequency(mono, rate)
    step = rate // 2
    return statistics.median(dominant_frequency(mono[i:i + step], rate)
                             for i in range(0, len(mono) - step, step))


def pitch_beside_others(mono, rate, near):
    """The frequency in Hz of a tone near ``near``, whatever else sounds; 0 when it is not heard. By how
    far its phase runs ahead between half seconds, in which TONE's two do not mix."""
    step = rate // 2
    turn = -2j * cmath.pi * near / rate
    phasors = [sum(mono[n] * cmath.exp(turn * n) for n in range(i, i + step))
               for i in range(0, len(mono) - step, step)]
    if statistics.median(map(abs, phasors)) / step < 0.2 * rms(mono):
        return 0
    ahead = statistics.median(cmath.phase(later * former.conjugate())
                              for former, later in zip(phasors, phasors[1:]))
    return near + ahead / cmath.pi


def assert_tone(test, samples, rate, seconds, name, level=True, spliced=False):
    """The tone is heard: at least this long, within a cent of its pitch and half a decibel of its
    level in both channels, without a gap. The first and the last quarter of a second do not count.
    Without ``level`` it is not judged, nor which channel it is heard in: both are heard in both. See
    pitch() for ``spliced``."""
    test.assertGreaterEqual(len(samples) / 2 / rate, seconds, name)
    middle = samples[2 * (rate // 4):-2 * (rate // 4)]
    for index, side in enumerate(TONE):
        mono = channel(middle, index)
        found = (pitch(mono, rate, spliced) if level
                 else pitch_beside_others(mono, rate, TONE[side]))
        cents = 1200 * abs(found / TONE[side] - 1) / 0.6931
        test.assertLess(cents, 1, f"{name}: pitch of the {side} channel")
        if level:
            ratio = rms(mono) * 2 ** 0.5 / AMPLITUDE
            test.assertTrue(0.944 < ratio < 1.059, f"{name}: {side} level {ratio:.3f}")
        window = rate // 50
        quietest = min(rms(mono[i:i + window]) for i in range(0, len(mono) - window, window))
        test.assertGreater(quietest, 0.5 * rms(mono), f"{name}: a gap in the {side} channel")
