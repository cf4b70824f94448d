"""Programs that go before ordinary ones, and when clicks are heard from a null sink."""

import array
import math
import os
import re
import signal
import subprocess
import threading
import time

from support.sound import clean_environment

RATE, HEARD_LEVEL, HEARD_FRAMES = 48000, 2500, 384
FIRST = ["chrt", "--rr", "2"]


def run(stack, command, environment, log, prefix=FIRST):
    """A program that ends with `stack`; it goes before ordinary ones unless `prefix` is another."""
    with open(log, "ab") as target:
        process = subprocess.Popen([*prefix, *map(str, command)], env=environment, stdout=target,
                                   stderr=subprocess.STDOUT)
    stack.callback(process.wait)
    stack.callback(process.send_signal, signal.SIGTERM)
    return process


class SinkRecorder:
    """When clicks are heard from a null sink, whose samples are an exact ruler of time.

    What the sink takes is read at once, ahead of when it is heard by what the sink holds at most.
    """

    def __init__(self, stack, sound, name, latency_ms):
        self.sound, self.name, self.latency_ms = sound, name, latency_ms
        self.frames, self.ahead, self.clicks = 0, -math.inf, []
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
        rest = b""
        while data := os.read(pipe.fileno(), 65536):
            now, data = time.monotonic_ns(), rest + data
            whole = len(data) // 2 * 2
            rest = data[whole:]
            samples = array.array("h", data[:whole])
            if self.left or max(samples, default=0) > HEARD_LEVEL:
                self._find(samples)
            self.frames += len(samples)
            self.ahead = max(self.ahead, self.frames * 1e9 / RATE - now)

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

    def held_ms(self):
        """What the sink is configured to hold."""
        sinks = self.sound.control("list", "sinks")
        mine = sinks[sinks.index(f"Name: {self.name}\n"):]
        return int(re.search(r"configured (\d+) usec", mine).group(1)) / 1e3

    def restart(self):
        """What the sink holds may have changed until now."""
        self.ahead = -math.inf

    def heard(self):
        shift = self.held_ms() * 1e6 - self.ahead
        return [frame * 1e9 / RATE + shift for frame in self.clicks]
