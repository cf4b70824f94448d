#!/usr/bin/python3
"""Writes a tone of 1000 Hz, or checks that a recording contains it.

tone.py write FILE SECONDS
tone.py check FILE SECONDS [SHARE]    at least so many seconds, the tone at its level in this
                                      share of its tenths of a second (0.8 if not given)
"""

import math
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from support import signals  # noqa: E402

RATE = 48000
FREQUENCY = 1000
AMPLITUDE = 10000


def is_tone(block):
    """True for the tone at its level, and nothing beside it."""
    tone = signals.tone_amplitude(block, FREQUENCY, RATE)
    return (abs(tone - AMPLITUDE) < 0.02 * AMPLITUDE
            and math.sqrt(2) * signals.rms(block) < 1.02 * AMPLITUDE)


def check(path, seconds, share):
    samples, rate = signals.read_wav(path)
    if rate != RATE:
        return f"not at {RATE} Hz"
    if len(samples) < 2 * RATE * seconds:
        return f"only {len(samples) / 2 / RATE:.2f} s long"
    length = RATE // 10
    for index, name in enumerate(("left", "right")):
        track = signals.channel(samples, index)
        blocks = [track[i:i + length] for i in range(0, len(track) - length + 1, length)]
        good = sum(map(is_tone, blocks))
        print(f"{name}: the tone, and only the tone, in {good} of {len(blocks)} tenths of a second")
        if good < share * len(blocks):
            return f"{name}: too little of the tone"
    return None


if __name__ == "__main__":
    if sys.argv[1] == "write":
        second = signals.sine(FREQUENCY, AMPLITUDE, RATE, RATE)
        signals.write_wav(sys.argv[2], second * int(sys.argv[3]), RATE)
    else:
        problem = check(sys.argv[2], float(sys.argv[3]), float((sys.argv + ["0.8"])[4]))
        if problem:
            sys.exit(f"tone.py: {sys.argv[2]}: {problem}")
