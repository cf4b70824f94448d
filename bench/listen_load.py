"""Processor time and memory of the listening client while it plays, at every rate.

Five clients at once listen to one server that streams a tone in a private network, and play into
a null sink of a private sound server. Columns: the rate; milliseconds of processor time per second
of sound, of the whole process (per cent of one core are a tenth of that); resident memory in MB
(the client's own and the shared libraries' together); underruns. The shape to expect: processor
time is mostly the resampler and the decoder, so raw is cheapest; memory is the same for all.

    VELANTRIX_SERVER=build/VelantrixServer VELANTRIX_LISTEN=build/velantrix-listen \\
    VELANTRIX_FAKES=build/tests/fakes python3 bench/listen_load.py [SECONDS]
"""

import json
import os
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "system"))

from harness import (Process, Server, SoundServer, clean_environment,  # noqa: E402
                     listen_command)
from network import enter_private_network  # noqa: E402
from signals import sine  # noqa: E402

RATES = ("raw", "20", "64", "128", "256")
SETTLING = 5


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_megabytes(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0.0


def measure(sound, seconds):
    environment = dict(clean_environment(), **sound.env, PULSE_SINK="ears")
    clients = {rate: Process(listen_command("--rate", rate, "--stats=json"), environment)
               for rate in RATES}
    time.sleep(SETTLING)
    before = {rate: processor_seconds(client.pid) for rate, client in clients.items()}
    begin = time.monotonic()
    time.sleep(seconds)
    span = time.monotonic() - begin
    print("rate   ms/s    MB  underruns")
    for rate, client in clients.items():
        used = (processor_seconds(client.pid) - before[rate]) / span * 1000
        memory = resident_megabytes(client.pid)
        client.stop()
        underruns = json.loads(client.out.all()[-1])["playback"]["underruns"]
        print(f"{rate:5} {used:6.1f} {memory:5.1f} {underruns:10}")


def main():
    enter_private_network()
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 30
    with SoundServer(48000) as sound:
        sound.control("load-module", "module-null-sink", "sink_name=ears", "rate=48000",
                      "channels=2", "format=s16le")
        sound.play(sine(1000, 12000, int(48000 * (seconds + 30)), 48000))
        with Server(sound=sound, rate=48000) as server:
            server.wait_for_capture()
            measure(sound, seconds)


if __name__ == "__main__":
    main()
