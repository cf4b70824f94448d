"""The two ends of a comparison: sound servers of the source and of the listeners, and a recorder."""

import array
import bisect
import itertools
import math
import os
import random
import shutil
import subprocess
import time

from sound_session import MonitorReader, RATE
from support.processes import Process, wait_until
from support.sound import NULL_SINK, SoundServer

BYTES_PER_S = 4 * RATE


class PulseServer(SoundServer):
    """PulseAudio with the null sink `out`; `prefix` leads into another network."""

    def __init__(self, prefix=()):
        super().__init__(RATE, prefix)

    def load(self, module, *arguments):
        self.control("load-module", module, *arguments)

    def playing(self):
        """The number of streams that play into it."""
        return len(self.control("list", "short", "sink-inputs").splitlines())

    def pids(self):
        return [self.daemon.pid]


class PipeWireServer(PulseServer):
    """PipeWire with its session manager and its PulseAudio interface; `modules` are added to
    its configuration. Its null sink has the same name."""

    def __init__(self, modules="", prefix=()):
        super().__init__(prefix)
        self.modules = modules

    def start(self):
        folder = self.home / ".config/pipewire/pipewire.conf.d"
        folder.mkdir(parents=True)
        (folder / "modules.conf").write_text(f"context.modules = [\n{self.modules}\n]\n", "ascii")
        runtime = self.env["XDG_RUNTIME_DIR"]
        bus = f"unix:path={runtime}/bus"
        self.env.update(PULSE_SERVER=f"unix:{runtime}/pulse/native", DBUS_SESSION_BUS_ADDRESS=bus)
        self.programs = []
        try:
            self._run("dbus-daemon", "--session", "--nofork", f"--address={bus}")
            wait_until(lambda: os.path.exists(f"{runtime}/bus"), "the message bus is there")
            self._run(*self.prefix, "pipewire")
            wait_until(lambda: os.path.exists(f"{runtime}/pipewire-0"), "PipeWire is there")
            self._run("wireplumber")
            self._run("pipewire-pulse")
            self.daemon = self.programs[-1]
            wait_until(self._answers, "PipeWire answers")
            self.load("module-null-sink", f"sink_name={NULL_SINK}", f"rate={RATE}", "channels=2")
        except (AssertionError, subprocess.CalledProcessError) as error:
            self.__exit__()
            raise AssertionError(f"no PipeWire ({error})") from error

    def _run(self, *command):
        self.programs.append(Process(command, self._environment()))

    def __exit__(self, *_):
        for program in reversed(self.programs):
            program.__exit__()
        shutil.rmtree(self.folder, ignore_errors=True)

    def pids(self):
        """Without the message bus, which a desktop has anyway."""
        return [program.pid for program in self.programs[1:]]


def quiet_tune(tune):
    """The samples at a quarter of their level, with a little noise: never quite silent."""
    noise = random.Random(1)
    return array.array("h", (sample // 4 + noise.randrange(8, 40) for sample in tune)).tobytes()


def burst():
    """The click: 3 ms of 2 kHz, which lossy codecs keep."""
    tone = (round(30000 * math.sin(2 * math.pi * 2000 * frame / RATE))
            for frame in range(3 * RATE // 1000))
    return array.array("h", itertools.chain.from_iterable((value, value) for value in tone)).tobytes()


class Recording(MonitorReader):
    """The sound at the monitor of a sink, with the time at which it was read."""

    LOUD = 13000
    CLICK_APART_BYTES = BYTES_PER_S // 4
    SILENT = bytes(BYTES_PER_S // 1000)

    def __init__(self, sound, sink=NULL_SINK):
        self.data = bytearray()
        self.ends, self.times = [], []
        super().__init__(sound, sink)

    def _read(self):
        while True:
            data = os.read(self.process.stdout.fileno(), 65536)
            if not data:
                return
            self.times.append(time.monotonic_ns())
            self.data += data
            self.ends.append(len(self.data))

    def mark(self):
        """The present position of the recording."""
        return len(self.data) // 4 * 4

    def loud_since(self, start):
        piece = self.data[start:self.mark()]
        return max(array.array("h", bytes(piece)), default=0) > self.LOUD

    def clicks(self, start, end):
        """When each click's first loud sample was read, ns."""
        samples = array.array("h", bytes(self.data[start:end]))
        step = self.CLICK_APART_BYTES // 2
        at = 0
        while at < len(samples):
            if max(samples[at:at + 480]) <= self.LOUD:
                at += 480
                continue
            at = next(i for i in range(at, len(samples)) if samples[i] > self.LOUD)
            yield self.times[bisect.bisect_right(self.ends, start + 2 * at)]
            at += step

    def silent_ms(self, start, end):
        """Whole milliseconds of digital silence, which is never played."""
        return bytes(self.data[start:end]).count(self.SILENT)


def delays(handed_over, heard, furthest_ns=6000000000, spread_ns=300000000):
    """Delays in ns, in order, of the clicks that were heard.

    The delay may be longer than the pause between two clicks, whose pattern is irregular: the
    most frequent difference of a click and an arrival is the delay.
    """
    pairs = sorted(at - since for since in handed_over for at in heard
                   if 0 <= at - since < furthest_ns)
    if not pairs:
        return []
    middle = max(pairs, key=lambda value: (
        bisect.bisect(pairs, value + spread_ns // 6) - bisect.bisect(pairs, value - spread_ns // 6)))
    found = []
    for since in handed_over:
        close = [at - since for at in heard if at >= since and abs(at - since - middle) < spread_ns]
        if close:
            found.append(min(close, key=lambda value: abs(value - middle)))
    return sorted(found)


def wait_for_sound(recording, timeout=40):
    """Waits until a click is heard."""
    wait_until(lambda: recording.loud_since(max(0, recording.mark() - 2 * BYTES_PER_S)),
               "a click is heard", timeout)
