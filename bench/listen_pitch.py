"""Pitch error of what the listening client plays, in cents.

A tone of 1000 Hz goes through the server, the client and a null sink, whose monitor is recorded;
the frequency is the median of that of single seconds, so that a drop-out does not matter. Columns: capture rate of the
server; the client's rate; frequency in Hz; error in cents. The shape to expect: well below one
cent, since the correction of the clock's drift ends at 0.87 cents.

    VELANTRIX_SERVER=build/VelantrixServer VELANTRIX_LISTEN=build/velantrix-listen \\
    VELANTRIX_FAKES=build/tests/fakes python3 bench/listen_pitch.py
"""

import array
import math
import pathlib
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "system"))

from harness import (Server, SoundServer, clean_environment, die_with_parent,  # noqa: E402
                     listen)
from network import enter_private_network  # noqa: E402
from signals import channel, dominant_frequency, loud_part, sine  # noqa: E402

SECONDS = 40
JUDGED = 15
TONE = 1000
HEARD_RATE = 48000


def hear(sound, rate, path):
    environment = dict(clean_environment(), **sound.env, PULSE_SINK="ears")
    with open(path, "wb") as target:
        recorder = subprocess.Popen(
            ["parec", "--raw", "--format=s16le", "--channels=2", f"--rate={HEARD_RATE}",
             "--device=ears.monitor"], stdout=target, env=environment,
            preexec_fn=die_with_parent)
        listen("--seconds", SECONDS, "--rate", rate, "--quiet", env=environment)
        recorder.terminate()
        recorder.wait()
    data = pathlib.Path(path).read_bytes()
    heard = loud_part(array.array("h", data[:len(data) // 4 * 4]))
    return channel(heard, 0)[-JUDGED * HEARD_RATE - HEARD_RATE // 2:-HEARD_RATE // 2]


def main():
    enter_private_network()
    print("capture  rate  frequency  cents")
    for capture in (48000, 44100):
        with SoundServer(capture) as sound, Server(sound=sound, rate=capture) as server, \
                tempfile.NamedTemporaryFile() as file:
            sound.control("load-module", "module-null-sink", "sink_name=ears",
                          f"rate={HEARD_RATE}", "channels=2", "format=s16le")
            sound.play(sine(TONE, 12000, capture * (2 * SECONDS + 20), capture))
            server.wait_for_capture()
            for rate in ("raw", "128"):
                heard = hear(sound, rate, file.name)
                frequency = statistics.median(
                    dominant_frequency(heard[at:at + HEARD_RATE], HEARD_RATE)
                    for at in range(0, len(heard) - HEARD_RATE + 1, HEARD_RATE))
                cents = 1200 * math.log2(frequency / TONE)
                print(f"{capture:7} {rate:>5} {frequency:10.3f} {cents:6.2f}", flush=True)


if __name__ == "__main__":
    main()
