#!/usr/bin/env python3
"""Processor time and memory of the listening client while it plays, at every rate.

Five clients at once listen to one server that streams a tone in a private network, and play into
a null sink of a private sound server. Comma-separated values, one line a rate:
  rate         what the client asks for
  cpu_percent  processor time of the whole process, per cent of one core
  rss_mb       resident memory (the client's own and the shared libraries' together)
  underruns    after the first five seconds
The shape to expect: processor time is mostly the resampler and the decoder, so raw is cheapest;
memory is the same for all.

    python3 bench/listen_load.py [--build DIR] [--seconds 60] [--csv FILE]
"""

import json
import sys
import time

from listening import (Table, add_ears, arguments, name_programs, prefer, processor_seconds,
                       resident_megabytes)

from harness import Process, Server, SoundServer, clean_environment, listen_command
from network import enter_private_network
from signals import sine

RATES = ("raw", "20", "64", "128", "256")
SETTLING_S = 5


def underruns(client):
    lines = client.out.all()
    return json.loads(lines[-1])["playback"]["underruns"] if lines else 0


def check(clients, when):
    """Ends the measurement unless every client plays what comes from the server."""
    for rate, client in clients.items():
        lines = client.out.all()
        figures = json.loads(lines[-1]) if lines else None
        if client.child.poll() is not None or figures is None:
            sys.exit(f"{rate}: the client has ended or says nothing {when}")
        if not figures["connected"] or not figures["playback"]["playing"]:
            sys.exit(f"{rate}: nothing plays {when}")


def measure(sound, seconds, table):
    environment = dict(clean_environment(), **add_ears(sound))
    clients = {rate: Process(listen_command("--rate", rate, "--stats=json"), environment)
               for rate in RATES}
    prefer(sound.daemon)
    time.sleep(SETTLING_S)
    check(clients, "at the start")
    before = {rate: (processor_seconds(client.pid), underruns(client))
              for rate, client in clients.items()}
    begin = time.monotonic()
    time.sleep(seconds)
    span = time.monotonic() - begin
    check(clients, "at the end")
    for rate, client in clients.items():
        used, dry = before[rate]
        share = (processor_seconds(client.pid) - used) / span * 100
        memory = resident_megabytes(client.pid)
        client.stop()
        table.write([rate, f"{share:.2f}", f"{memory:.1f}", underruns(client) - dry])


def main():
    choice = arguments(__doc__.splitlines()[0], 60).parse_args()
    enter_private_network()
    name_programs(choice.build)
    columns = ("rate", "cpu_percent", "rss_mb", "underruns")
    with SoundServer(48000) as sound, Server(sound=sound, rate=48000) as server, \
            Table(choice.csv, columns) as table:
        sound.play(sine(1000, 12000, 48000, 48000) * int(choice.seconds + 30))
        server.wait_for_capture()
        measure(sound, choice.seconds, table)


if __name__ == "__main__":
    main()
