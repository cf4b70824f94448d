#!/usr/bin/env python3
"""Pitch error of what the listening client plays, in cents.

A tone of 1000 Hz goes through the server, the client and a null sink, whose monitor is recorded.
Only the last 30 s count, when the correction of the clocks' drift has settled. The frequency comes
from the tone's phase: the median of the slopes within single seconds, so that a drop-out, which
shifts the phase, does not matter. Comma-separated values, one line a stream:
  capture_hz      capture rate of the server
  rate            what the client asks for; both rates play at the same time
  frequency_hz    measured
  cents           the error
  correction_ppm  what the client said at the end
The shape to expect: a fraction of a cent, for all clocks here are the same one; a correction
never exceeds 0.87 cents. Status 1 when an error is one cent or more.

    python3 bench/listen_pitch.py [--build DIR] [--seconds 240] [--csv FILE]
"""

import array
import cmath
import json
import math
import os
import pathlib
import statistics
import subprocess
import sys
import time

from listening import Table, add_ears, arguments, name_programs, prefer

from harness import (Process, Server, SoundServer, clean_environment, die_with_parent,
                     listen_command)
from network import enter_private_network
from signals import sine

JUDGED_S = 30
TONE = 1000
PEAK = 12000
LEAST_SHARE = 0.5
HEARD_RATE = 48000
FRAME_BYTES = 4
WINDOW = HEARD_RATE // 10
RATES = ("raw", "128")


def phases(mono):
    """Phase of the tone against an exact one, window by window."""
    cycle = HEARD_RATE // TONE
    turns = [cmath.exp(-2j * math.pi * i / cycle) for i in range(cycle)]
    result = []
    for at in range(0, len(mono) - WINDOW + 1, WINDOW):
        window = mono[at:at + WINDOW]
        result.append(cmath.phase(sum(turns[i] * sum(window[i::cycle]) for i in range(cycle))))
    return result


def slope(values):
    """Of the line through equally spaced phases that fits best, per window."""
    straight = [values[0]]
    for value in values[1:]:
        step = (value - straight[-1] + math.pi) % (2 * math.pi) - math.pi
        straight.append(straight[-1] + step)
    middle = (len(straight) - 1) / 2
    return (sum((i - middle) * value for i, value in enumerate(straight)) /
            sum((i - middle) ** 2 for i in range(len(straight))))


def tone_share(mono):
    """How much of a tone of the played level is in it, 0 to 1 or so; the median over windows."""
    cycle = HEARD_RATE // TONE
    turns = [cmath.exp(-2j * math.pi * i / cycle) for i in range(cycle)]
    sizes = [abs(sum(turns[i] * sum(mono[at + i:at + WINDOW:cycle]) for i in range(cycle)))
             for at in range(0, len(mono) - WINDOW + 1, WINDOW)]
    return statistics.median(sizes) / (PEAK * WINDOW / 2) if sizes else 0.0


def frequency_of(mono):
    """Frequency in Hz of a tone near TONE, from its phase."""
    per_second = HEARD_RATE // WINDOW
    values = phases(mono)
    slopes = [slope(values[at:at + per_second])
              for at in range(0, len(values) - per_second + 1, per_second)]
    return TONE + statistics.median(slopes) * per_second / (2 * math.pi)


class Listener:
    """One client and a recorder of the null sink that it plays into."""

    def __init__(self, sound, rate):
        self.rate = rate
        self.path = pathlib.Path(sound.folder) / f"ears-{rate}.raw"
        ears = dict(clean_environment(), **add_ears(sound, f"ears{rate}"))
        self.client = Process(listen_command("--rate", rate, "--stats=json"), ears)
        self.recorder = subprocess.Popen(
            ["parec", "--raw", "--format=s16le", "--channels=2", f"--rate={HEARD_RATE}",
             f"--device=ears{rate}.monitor"], stdout=open(self.path, "wb"), env=ears,
            preexec_fn=die_with_parent)

    def finish(self):
        """Ends both; returns the left channel of the judged time and the client's figures."""
        self.recorder.terminate()
        self.recorder.wait()
        self.client.stop()
        with open(self.path, "rb") as file:
            # The last half second may hold the end of the recorder.
            end = os.path.getsize(self.path) // FRAME_BYTES * FRAME_BYTES
            file.seek(max(0, end - (JUDGED_S * HEARD_RATE + HEARD_RATE // 2) * FRAME_BYTES))
            heard = array.array("h", file.read(JUDGED_S * HEARD_RATE * FRAME_BYTES))
        return heard[::2], json.loads(self.client.out.all()[-1])


def measure(capture, seconds, table):
    """One row for each rate; returns the largest error in cents."""
    worst = 0.0
    with SoundServer(capture) as sound, Server(sound=sound, rate=capture) as server:
        sound.play(sine(TONE, PEAK, capture, capture) * int(seconds + 30))
        server.wait_for_capture()
        listeners = [Listener(sound, rate) for rate in RATES]
        prefer(sound.daemon, server)
        time.sleep(seconds)
        for listener in listeners:
            heard, figures = listener.finish()
            share = tone_share(heard)
            if share < LEAST_SHARE:
                sys.exit(f"{capture} Hz, {listener.rate}: only {share:.2f} of the tone was heard")
            frequency = frequency_of(heard)
            cents = 1200 * math.log2(frequency / TONE)
            worst = max(worst, abs(cents))
            table.write([capture, listener.rate, f"{frequency:.5f}", f"{cents:.4f}",
                         figures["playback"]["correction_ppm"]])
    return worst


def main():
    choice = arguments(__doc__.splitlines()[0], 240).parse_args()
    enter_private_network()
    name_programs(choice.build)
    columns = ("capture_hz", "rate", "frequency_hz", "cents", "correction_ppm")
    with Table(choice.csv, columns) as table:
        worst = max(measure(capture, choice.seconds, table) for capture in (48000, 44100))
    return 0 if worst < 1 else 1


if __name__ == "__main__":
    sys.exit(main())
