"""Sound signals for the system tests: made, written, read and compared.

Samples are signed 16-bit, interleaved left then right, in ``array('h')``; a frame is two of them.
"""

import array
import math
import random
import wave

CHANNELS = 2
FRAME_BYTES = 4


def noise(frames, seed, level=12000):
    """Stereo noise without repetition: any piece of it is found at one place only."""
    generator = random.Random(seed)
    return array.array("h", (generator.randint(-level, level) for _ in range(frames * CHANNELS)))


def sine(frequency, amplitude, frames, rate, right_frequency=None):
    """A stereo tone; the right channel may carry another one. ``amplitude`` is the peak value."""
    right_frequency = frequency if right_frequency is None else right_frequency
    samples = array.array("h", bytes(frames * FRAME_BYTES))
    for channel, tone in enumerate((frequency, right_frequency)):
        step = 2 * math.pi * tone / rate
        samples[channel::CHANNELS] = array.array(
            "h", (round(amplitude * math.sin(step * i)) for i in range(frames)))
    return samples


def silence(frames):
    return array.array("h", bytes(frames * FRAME_BYTES))


def write_wav(path, samples, rate):
    with wave.open(str(path), "wb") as target:
        target.setnchannels(CHANNELS)
        target.setsampwidth(2)
        target.setframerate(rate)
        target.writeframes(samples.tobytes())


def read_wav(path):
    """Returns (samples, rate) of a 16-bit stereo file; anything else is an error."""
    with wave.open(str(path), "rb") as source:
        if source.getnchannels() != CHANNELS or source.getsampwidth() != 2:
            raise AssertionError(f"{path}: {source.getparams()} is not 16-bit stereo")
        samples = array.array("h")
        samples.frombytes(source.readframes(source.getnframes()))
        return samples, source.getframerate()


def channel(samples, index):
    return samples[index::CHANNELS]


def rms(samples):
    if not samples:
        return 0.0
    return math.sqrt(sum(value * value for value in samples) / len(samples))


def tone_amplitude(mono, frequency, rate):
    """Peak amplitude of ``frequency`` (Hz) in one channel, by correlation with it."""
    step = 2 * math.pi * frequency / rate
    real = sum(value * math.cos(step * i) for i, value in enumerate(mono))
    imaginary = sum(value * math.sin(step * i) for i, value in enumerate(mono))
    return 2 * math.hypot(real, imaginary) / max(1, len(mono))


def dominant_frequency(mono, rate):
    """Frequency of a single tone in Hz, from its upward zero crossings, interpolated."""
    crossings = [i - mono[i] / (mono[i] - mono[i - 1])
                 for i in range(1, len(mono)) if mono[i - 1] < 0 <= mono[i]]
    if len(crossings) < 2:
        return 0.0
    return (len(crossings) - 1) * rate / (crossings[-1] - crossings[0])


def loud_part(samples, threshold=200):
    """The frames from the first to the last one with a sample above ``threshold``."""
    loud = [i for i, value in enumerate(samples) if abs(value) > threshold]
    if not loud:
        return samples[:0]
    return samples[loud[0] // CHANNELS * CHANNELS:(loud[-1] // CHANNELS + 1) * CHANNELS]


def find_frames(haystack, needle):
    """Frame index of ``needle`` in ``haystack``, bit for bit, or -1."""
    hay, sought = haystack.tobytes(), needle.tobytes()
    at = hay.find(sought)
    while at >= 0 and at % FRAME_BYTES != 0:
        at = hay.find(sought, at + 1)
    return at // FRAME_BYTES if at >= 0 else -1


def longest_exact_run(received, sent, probe_frames=64):
    """Length in frames of the longest piece of ``received`` that is a piece of ``sent``.

    ``sent`` must not repeat itself (see ``noise``).
    """
    hay, want = sent.tobytes(), received.tobytes()
    probe = probe_frames * FRAME_BYTES
    best, position = 0, 0
    while position + probe <= len(want):
        at = hay.find(want[position:position + probe])
        if at < 0:
            position += FRAME_BYTES
            continue
        length = _common_prefix(hay[at:], want[position:])
        best = max(best, length // FRAME_BYTES)
        position += max(FRAME_BYTES, length // FRAME_BYTES * FRAME_BYTES)
    return best


def _common_prefix(a, b):
    low, high = 0, min(len(a), len(b))
    while low < high:
        middle = (low + high + 1) // 2
        if a[:middle] == b[:middle]:
            low = middle
        else:
            high = middle - 1
    return low
