"""The demo's tune: a short melody over a slow bass, made from plucked tones."""

import array
import math

RATE = 48000
BEAT_SECONDS = 0.3

# (semitones above A3, beats); the left hand plays under each bar of eight beats.
MELODY = [(12, 1), (15, 1), (19, 2), (17, 1), (15, 1), (14, 2),
          (10, 1), (14, 1), (17, 2), (15, 1), (14, 1), (12, 2),
          (15, 1), (19, 1), (24, 2), (22, 1), (19, 1), (17, 2),
          (19, 1), (17, 1), (15, 1), (14, 1), (12, 3), (7, 1),
          (12, 2), (15, 1), (17, 1), (19, 2), (22, 1), (24, 1),
          (26, 1), (24, 1), (22, 1), (19, 1), (20, 2), (19, 2)]
BASS = [0, -2, 3, 0, 0, -5]
BAR_BEATS = 8


def pitch(semitones):
    """Frequency in Hz of a note this many semitones above A3."""
    return 220.0 * 2 ** (semitones / 12)


def pluck(target, start, seconds, frequency, amplitude):
    """Adds a decaying tone with one overtone to a list of floats."""
    step = 2 * math.pi * frequency / RATE
    count = min(int(seconds * RATE), len(target) - start)
    for i in range(count):
        fade = math.exp(-2.5 * i / RATE) * min(1.0, i / 240)
        target[start + i] += amplitude * fade * (
            math.sin(step * i) + 0.35 * math.sin(2 * step * i))


def make_tune():
    """The tune as interleaved stereo samples in array('h'): melody left of the bass."""
    beats = sum(length for _, length in MELODY)
    frames = int(beats * BEAT_SECONDS * RATE)
    melody, bass = [0.0] * frames, [0.0] * frames
    beat = 0
    for note, length in MELODY:
        start = int(beat * BEAT_SECONDS * RATE)
        pluck(melody, start, (length + 0.5) * BEAT_SECONDS, pitch(note), 9000)
        beat += length
    for bar, note in enumerate(BASS):
        start = int(bar * BAR_BEATS * BEAT_SECONDS * RATE)
        pluck(bass, start, BAR_BEATS * BEAT_SECONDS, pitch(note) / 2, 7000)
    samples = array.array("h", bytes(4 * frames))
    samples[0::2] = array.array("h", (round(0.8 * m + 0.4 * b) for m, b in zip(melody, bass)))
    samples[1::2] = array.array("h", (round(0.4 * m + 0.8 * b) for m, b in zip(melody, bass)))
    return samples
