#!/usr/bin/python3
"""Writes a tone of 1000 Hz, or checks that a recording contains it.

tone.py write FILE SECONDS
tone.py check FILE SECONDS [SHARE]    at least so many seconds, the tone at its level in this
                                      share of its tenths of a second (0.8 if not given)
"""

import array
import math
import sys
import wave

RATE = 48000
FREQUENCY = 1000
AMPLITUDE = 10000


def write(path, seconds):
    period = [round(AMPLITUDE * math.sin(2 * math.pi * FREQUENCY * i / RATE))
              for i in range(RATE // FREQUENCY)]
    second = array.array("h", (sample for value in period * FREQUENCY for sample in (value, value)))
    with wave.open(path, "wb") as file:
        file.setnchannels(2)
        file.setsampwidth(2)
        file.setframerate(RATE)
        for _ in range(int(seconds)):
            file.writeframes(second.tobytes())


def tone_level(samples):
    """Amplitude of the tone in these samples of one channel, and of the whole signal."""
    step = 2 * math.pi * FREQUENCY / RATE
    cosine = sum(value * math.cos(step * i) for i, value in enumerate(samples))
    sine = sum(value * math.sin(step * i) for i, value in enumerate(samples))
    power = sum(value * value for value in samples) / len(samples)
    return 2 * math.hypot(cosine, sine) / len(samples), math.sqrt(2 * power)


def check(path, seconds, share):
    with wave.open(path, "rb") as file:
        if (file.getframerate(), file.getnchannels(), file.getsampwidth()) != (RATE, 2, 2):
            return f"not 16-bit stereo at {RATE} Hz"
        samples = array.array("h", file.readframes(file.getnframes()))
    if len(samples) < 2 * RATE * seconds:
        return f"only {len(samples) / 2 / RATE:.2f} s long"
    block = RATE // 10
    for channel, name in ((0, "left"), (1, "right")):
        track = samples[channel::2]
        blocks = [track[i:i + block] for i in range(0, len(track) - block + 1, block)]
        good = 0
        for one in blocks:
            tone, whole = tone_level(one)
            good += abs(tone - AMPLITUDE) < 0.02 * AMPLITUDE and whole < 1.02 * AMPLITUDE
        print(f"{name}: the tone, and only the tone, in {good} of {len(blocks)} tenths of a second")
        if good < share * len(blocks):
            return f"{name}: too little of the tone"
    return None


if __name__ == "__main__":
    if sys.argv[1] == "write":
        write(sys.argv[2], float(sys.argv[3]))
    else:
        share = float(sys.argv[4]) if len(sys.argv) > 4 else 0.8
        problem = check(sys.argv[2], float(sys.argv[3]), share)
        if problem:
            sys.exit(f"tone.py: {sys.argv[2]}: {problem}")
