"""Programs that go before ordinary ones, and when clicks are heard from a null sink."""

import array
import math
import os
import signal
import statistics
import subprocess
import threading
import time

from support.sound import clean_environment

RATE, HEARD_LEVEL, HEARD_FRAMES = 48000, 2500, 384
FIRST = ["chrt", "--rr", "2"]
SAME_NS = 2000000
"""What the sink takes at once may come here in pieces."""
NEAR_S = 2


def run(stack, command, environment, log, prefix=FIRST):
    """A program that ends with `stack`; it goes before ordinary ones unless `prefix` is another."""
    with open(log, "ab") as target:
        process = subprocess.Popen([*prefix, *map(str, command)], env=environment, stdout=target,
                                   stderr=subprocess.STDOUT)
    stack.callback(process.wait)
    stack.callback(process.send_signal, signal.SIGTERM)
    return process


class SinkRecorder:
    """When clicks are heard from a null sink.

    The sink takes sound, which is read here at once, when all that it had has been heard. It runs
    some 20 ppm fast, since it rounds the length of what it takes down to whole microseconds: only
    what was taken within two seconds is a ruler.
    """

    def __init__(self, stack, sound, name, latency_ms):
        self.frames, self.clicks = 0, []
        self.shifts = []  # Nanoseconds from a frame's number to its time, the least of each second.
        self.energy = self.moment = self.left = self.first = 0
        process = subprocess.Popen(
            [*FIRST, "parec", "--raw", "--format=s16le", "--channels=1", f"--rate={RATE}",
             f"--device={name}.monitor", f"--latency-msec={latency_ms}"], stdout=subprocess.PIPE,
            env=dict(clean_environment(), **sound.env))
        self.thread = threading.Thread(target=self._read, args=(process.stdout,), daemon=True)
        self.thread.start()
        stack.callback(self.thread.join)
        stack.callback(process.wait)
        stack.callback(process.terminate)

    def _read(self, pipe):
        rest, before = b"", 0
        while data := os.read(pipe.fileno(), 65536):
            now, data = time.monotonic_ns(), rest + data
            if now - before > SAME_NS:
                self._note(now)
            before = now
            whole = len(data) // 2 * 2
            rest = data[whole:]
            samples = array.array("h", data[:whole])
            if self.left or max(samples, default=0) > HEARD_LEVEL:
                self._find(samples)
            self.frames += len(samples)

    def _note(self, now):
        second = self.frames // RATE
        self.shifts.extend([math.inf] * (second + 1 - len(self.shifts)))
        self.shifts[second] = min(self.shifts[second], now - self.frames * 1e9 / RATE)

    def _find(self, samples):
        for at, value in enumerate(samples, self.frames):
            if not self.left:
                if abs(value) < HEARD_LEVEL:
                    continue
                self.left, self.first, self.energy, self.moment = HEARD_FRAMES, at, 0, 0
            self.energy += value * value
            self.moment += value * value * (at - self.first)
            self.left -= 1
            if not self.left:
                self.clicks.append(self.first + self.moment / self.energy)

    def heard(self):
        near = lambda second: self.shifts[max(0, second - NEAR_S):second + NEAR_S + 1]
        return [frame * 1e9 / RATE
                + statistics.median(filter(math.isfinite, near(int(frame) // RATE)))
                for frame in self.clicks]
