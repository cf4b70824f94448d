#!/usr/bin/env python3
"""Long playing over an uneven network: does the listening client ever run dry?

A server that captures a paced test sound, a relay that delays every datagram by 10 ms, give or take
5 ms, and a client that plays into a null sink of a private sound server, all in a private network.
A line of comma-separated values every ten seconds:
  time_s          since the client connected
  depth_ms        sound that waits to be played, a mean over some seconds
  target_ms       how much should wait
  jitter_ms       how uneven the packets come
  correction_ppm  how much faster than nominal the client plays
  underruns       times that the sound ran dry since the start
  device          those among them in the device, that is, in the sound server
  lost, concealed, skipped, stretched   packets since the start
  rss_mb          resident memory of the client
  cpu_percent     its processor time over the last ten seconds, of one core
Expected shape: depth around the target of 40 ms, no counts after the first ten seconds, memory
level. The first ten seconds belong to the start: a sound server takes some seconds to get going.

A summary goes to standard error. Status 1 when the sound ran dry after the start, or when the
client or the stream did not last. What surrounds the client has real-time scheduling where that is
allowed, so that other work on the machine is not measured in the client's place.

    python3 bench/listen_hour.py [--build DIR] [--seconds 3600] [--csv FILE]
"""

import json
import os
import sys
import time

from listening import (Table, add_ears, arguments, name_programs, prefer, processor_seconds,
                       resident_megabytes)

from harness import Process, Server, SoundServer, clean_environment, listen_command
from network import enter_private_network
from relay import Relay

PORT = 59010
INTERVAL_S = 10
SETTLING_S = 60
MOST_EXCESS_MS = 45
COLUMNS = ("time_s", "depth_ms", "target_ms", "jitter_ms", "correction_ppm", "underruns", "device",
           "lost", "concealed", "skipped", "stretched", "rss_mb", "cpu_percent")


def options():
    parser = arguments(__doc__.splitlines()[0], 3600)
    parser.add_argument("--rate", default="raw", help="rate that the client asks for (raw)")
    parser.add_argument("--reliable", action="store_true", help="reliable instead of best-effort")
    parser.add_argument("--delay", type=float, default=10, help="of the relay, ms (10)")
    parser.add_argument("--jitter", type=float, default=5, help="of the relay, ms (5)")
    parser.add_argument("--ordinary", action="store_true",
                        help="no real-time scheduling for what surrounds the client")
    parser.add_argument("--loss", type=float, default=0, help="of the relay, 0 to 1 (0)")
    return parser.parse_args()


class Observer:
    """Reads a client's figures and puts down a row at a time."""

    def __init__(self, client, table):
        self.client, self.table = client, table
        self.begin = self.latest = time.monotonic()
        self.used = processor_seconds(client.pid)
        self.rows = []
        self.client_time = -1.0
        self.complaints = []

    def latest_figures(self):
        lines = self.client.out.all()
        return json.loads(lines[-1]) if lines else None

    def observe(self):
        """Puts down one row; False when there is nothing to go on with."""
        figures = self.latest_figures()
        if self.client.child.poll() is not None or figures is None:
            self.complaints.append("the client has ended: " + " ".join(self.client.err.all()))
            return False
        now, used = time.monotonic(), processor_seconds(self.client.pid)
        play = figures["playback"]
        row = dict(
            time_s=round(now - self.begin), depth_ms=play["buffer_ms"],
            target_ms=play["target_ms"], jitter_ms=play["jitter_ms"],
            correction_ppm=play["correction_ppm"], underruns=play["underruns"],
            device=play.get("device_underruns", 0),
            lost=figures["lost"], concealed=play["concealed"],
            skipped=play["skipped"], stretched=play.get("stretched", 0),
            rss_mb=round(resident_megabytes(self.client.pid), 1),
            cpu_percent=round((used - self.used) / (now - self.latest) * 100, 2))
        if figures["time"] <= self.client_time:
            self.complaints.append(f"the client's figures stand still at {row['time_s']} s")
        self.client_time = figures["time"]
        if row["time_s"] > SETTLING_S and row["depth_ms"] > row["target_ms"] + MOST_EXCESS_MS:
            self.complaints.append(f"too much sound waits at {row['time_s']} s: "
                                   f"{row['depth_ms']} ms for {row['target_ms']} ms")
        self.latest, self.used = now, used
        self.rows.append(row)
        self.table.write([row[name] for name in COLUMNS])
        if not play["playing"] or not figures["connected"]:
            self.complaints.append(f"nothing plays at {row['time_s']} s")
        return True

    def summary(self):
        """What the whole time brought; fills the complaints."""
        first, last, steady = self.rows[0], self.rows[-1], self.rows[1:] or self.rows
        dry = last["underruns"] - first["underruns"]
        if dry:
            device = last["device"] - first["device"]
            self.complaints.append(f"the sound ran dry {dry} times after the start, {device} of "
                                   "them in the device")
        depths = [row["depth_ms"] for row in steady]
        lines = [f"{last['time_s']} s played, {dry} underruns after the first {first['time_s']} s",
                 f"depth {min(depths):.1f} to {max(depths):.1f} ms, "
                 f"target {steady[-1]['target_ms']:.1f} ms at the end",
                 "processor {:.2f} % of one core in the mean, {:.2f} % at most".format(
                     sum(row["cpu_percent"] for row in steady) / len(steady),
                     max(row["cpu_percent"] for row in steady)),
                 f"memory {first['rss_mb']} MB at the start, {last['rss_mb']} MB at the end"]
        for name in ("lost", "concealed", "skipped", "stretched"):
            lines.append(f"{name} {last[name] - first[name]}")
        return lines


def follow(observer, seconds):
    due = time.monotonic()
    while due < observer.begin + seconds:
        due += INTERVAL_S
        time.sleep(max(0.0, due - time.monotonic()))
        if not observer.observe():
            break


def play(choice, sound, server, table):
    arguments_of_client = ["--rate", choice.rate, "--stats=json"]
    if not choice.reliable:
        arguments_of_client.append("--best-effort")
    with Relay(PORT, delay=choice.delay, jitter=choice.jitter, loss=choice.loss,
               seed=20261121) as relay, \
            Process(listen_command(*arguments_of_client, host=f"127.0.0.1:{relay.port}"),
                    dict(clean_environment(), **add_ears(sound))) as client:
        if not choice.ordinary:
            prefer(sound.daemon, server, relay)
        observer = Observer(client, table)
        try:
            follow(observer, choice.seconds)
        except KeyboardInterrupt:
            observer.complaints.append("interrupted")
        if server.child.poll() is not None:
            observer.complaints.append("the server has ended")
        expected = int(choice.seconds // INTERVAL_S)
        if len(observer.rows) < max(1, expected):
            observer.complaints.append(f"{len(observer.rows)} rows instead of {expected}")
        lines = observer.summary() if observer.rows else []
        return lines, observer.complaints


def main():
    choice = options()
    enter_private_network()
    name_programs(choice.build)
    with SoundServer(48000) as sound:
        capture = {"PACED_CAPTURE_TABLE": os.path.join(sound.folder, "table")}
        with Table(choice.csv, COLUMNS) as table, \
                Server(rate=48000, env=capture,
                       preload=str(choice.build.resolve() / "libpaced_capture.so")) as server:
            server.wait_for_capture()
            lines, complaints = play(choice, sound, server, table)
    print("\n".join(lines + complaints), file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
