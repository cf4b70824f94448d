"""Runs one session of the server again and again, each time with another call failing.

A session: start, two streaming clients, a version check against a small web server, shutdown.
First some sessions without a failure count the fallible calls that the server, ENet and Opus
make, by site (function and way to it). Then one session for each of the chosen calls lets that
call fail. It must go on, or report and end with status 255; no crash, no hang, no block leaked.

Usage: torture.py [--every] [--random N] [--seed S] [--only HASH:N] [--verbose]
Calls chosen: of every site the first, the second and the one in the middle, or with --every all
that the sessions without a failure had in common. Everything runs in a
private network. VELANTRIX_SERVER and VELANTRIX_FAKES as for the system tests, VELANTRIX_CAPTURE
is the paced capture library.
"""

import argparse
import collections
import dataclasses
import mmap
import os
import pathlib
import random
import re
import signal
import struct
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

from harness import DEFAULT_PORT, Process, clean_environment, fake, private_home  # noqa: E402
from harness import program  # noqa: E402
from network import enter_private_network  # noqa: E402
from probe import MULTI_CLIENT, Probe, data_request  # noqa: E402
from version_server import VersionServer  # noqa: E402

BASELINES = 4
SITES, SITE_FORMAT = 4096, "<QIi32s192s"
TABLE_HEAD = 8
COUNTERS_AT = 2 * (1 << 16) * 8 + 8  # The paced capture's count of callbacks.
FATAL = 255
START_PATIENCE, STREAM_PATIENCE, SETTLE_PATIENCE, END_PATIENCE = 5.0, 2.0, 1.5, 20.0
ENOUGH_PACKETS = 40
OPUS_CODE = 2
NO_THREAD = r"Could not create .* thread, err"
HANGING_CLOSE = "Audio shutdown is taking a long time"


@dataclasses.dataclass
class Site:
    function: str
    way: str
    calls: int
    live: int


@dataclasses.dataclass
class Outcome:
    status: object  # None: it hung.
    lines: list
    packets: list  # By client.
    faults: int
    sites: dict


def read_table(path):
    """The faults made and the sites by hash."""
    data = path.read_bytes()
    faults = struct.unpack_from("<I", data)[0]
    size = struct.calcsize(SITE_FORMAT)
    sites = {}
    for at in range(TABLE_HEAD, TABLE_HEAD + SITES * size, size):
        number, calls, live, function, way = struct.unpack_from(SITE_FORMAT, data, at)
        if number:
            sites[number] = Site(function.split(b"\0")[0].decode(), way.split(b"\0")[0].decode(),
                                 calls, live)
    return faults, sites


def poll_until(condition, patience):
    """True when the condition came true in time; nothing is asserted."""
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True


class Session:
    """One life of the server, in a folder of its own."""

    def __init__(self, folder, web, fault=None):
        self.folder = folder
        self.table = folder / "torture-table"
        self.capture = folder / "capture-table"
        web.take_requests()
        self.web = web
        environment = clean_environment()
        environment.update(private_home(folder))
        environment.update(
            LD_PRELOAD=f"{fake('torture.so')} {os.environ['VELANTRIX_CAPTURE']}",
            TORTURE_TABLE=str(self.table), PACED_CAPTURE_TABLE=str(self.capture),
            VELANTRIX_SERVER_SAMPLE_RATE="48000", VELANTRIX_WEB_ADDRESS=web.address,
            QT_QPA_PLATFORM="offscreen", XDG_RUNTIME_DIR=str(folder))
        if fault:
            environment["TORTURE_FAULT"] = fault
        self.server = Process([program("VELANTRIX_SERVER"), "-nogui", "-b", "127.0.0.1"],
                              environment)

    def ended(self):
        return self.server.child.poll() is not None

    def captures(self):
        try:
            with open(self.capture, "rb") as file, \
                    mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ) as table:
                return struct.unpack_from("<q", table, COUNTERS_AT)[0] > 3
        except (OSError, ValueError):
            return False

    def printed(self, pattern):
        return any(re.search(pattern, line) for line in self.server.out.all())

    def stream(self):
        """Two clients at once; returns how many packets each got."""
        with Probe(self.folder) as probe:
            clients = [probe.connect(wait=False, data=MULTI_CLIENT | 1) for _ in range(2)]
            poll_until(lambda: self.ended() or all(
                any(line.startswith(f"connected {client.name} ") for line in probe.out.all())
                for client in clients), STREAM_PATIENCE)
            for client, request in zip(clients, (data_request(0, True, "raw"),
                                                 data_request(OPUS_CODE, False, "opus"))):
                self.request(client, request)
            poll_until(lambda: self.ended() or all(
                client.statistics()["packets"] >= ENOUGH_PACKETS for client in clients),
                STREAM_PATIENCE)
            packets = [client.statistics()["packets"] for client in clients]
            for client in clients:
                client.disconnect()
            poll_until(lambda: self.ended() or all(c.is_disconnected() for c in clients),
                       SETTLE_PATIENCE)
        return packets

    @staticmethod
    def request(client, message):
        """A client that could not connect cannot send; it then counts as one without packets."""
        try:
            client.send(message)
        except AssertionError:
            pass

    def run(self):
        packets = [0, 0]
        with self.server:
            poll_until(lambda: self.captures() or self.ended() or
                       self.printed("^VelantrixServer: Audio shutdown"), START_PATIENCE)
            if self.captures() and not self.ended():
                packets = self.stream()
            poll_until(lambda: self.ended() or self.printed("^WebIf|be able to check for new"),
                       SETTLE_PATIENCE)
            time.sleep(0.05)
            try:
                status = self.server.stop(timeout=END_PATIENCE)
            except AssertionError:
                status = None
            lines = self.server.out.all() + self.server.err.all()
        faults, sites = read_table(self.table)
        return Outcome(status, lines, packets, faults, sites)


def run_session(web, fault=None):
    with tempfile.TemporaryDirectory(prefix="velantrix-torture-") as folder:
        return Session(pathlib.Path(folder), web, fault).run()


def normal(line):
    return re.sub(r"\d+", "#", line)


class Judge:
    """Knows what sessions without a failure look like."""

    def __init__(self, web):
        self.lines = set()
        self.sites = {}
        self.live = collections.Counter()
        for _ in range(BASELINES):
            outcome = run_session(web)
            if outcome.status != 0 or min(outcome.packets) < ENOUGH_PACKETS:
                raise AssertionError(f"a session without failure went wrong: {outcome.status}, "
                                     f"{outcome.packets}\n  " + "\n  ".join(outcome.lines))
            if not any("A new version of" in line for line in outcome.lines):
                raise AssertionError("no version check:\n  " + "\n  ".join(outcome.lines))
            self.lines.update(map(normal, outcome.lines))
            for number, site in outcome.sites.items():
                known = self.sites.setdefault(number, site)
                known.calls = min(known.calls, site.calls)
                self.live[number] = max(self.live[number], site.live)

    def new_lines(self, outcome):
        return [line for line in outcome.lines if normal(line) not in self.lines]

    def leaks(self, outcome):
        """Sites that hold more blocks than ever without a failure. New ways are not judged, nor are
        a connection that waits for its time-out, a capture thread that hangs and holds what it
        works on, the start record of a thread that could not be started, which is left alone on
        purpose, and a process that a signal ended."""
        if outcome.status != 0 or not all(outcome.packets):
            return []
        if any(HANGING_CLOSE in line or re.match(NO_THREAD, line) for line in outcome.lines):
            return []
        return [f"{site.function} {site.way}: {site.live} blocks, else {self.live[number]}"
                for number, site in outcome.sites.items()
                if number in self.live and site.live > self.live[number]]

    def complaint(self, outcome, site):
        """What is wrong with a session, or nothing."""
        if outcome.status is None:
            return "it hangs"
        allowed = [0, FATAL]
        if site.function in ("pipe2", "write"):  # Then a signal is left to its default action.
            allowed.append(-signal.SIGTERM)
        if outcome.status not in allowed:
            return f"it ends with status {outcome.status}"
        reported = bool(self.new_lines(outcome))
        if outcome.status == FATAL:
            return None if reported else "it ends with status 255 without a report"
        if min(outcome.packets) < ENOUGH_PACKETS and not reported:
            return f"the clients got {outcome.packets} packets and nothing is reported"
        leaks = self.leaks(outcome)
        return "blocks leak: " + "; ".join(leaks) if leaks else None


def chosen_calls(sites, every):
    """Every (hash, number of the call) that is to fail."""
    for number, site in sorted(sites.items(), key=lambda item: (item[1].function, item[0])):
        few = {1, min(2, site.calls), max(1, site.calls // 2)}
        for call in range(1, site.calls + 1) if every else sorted(few):
            yield number, call


def report(name, site, outcome, complaint, judge, verbose):
    if complaint is None and not verbose:
        return
    print(f"{name} {site.function} ({site.way}): status {outcome.status}, packets "
          f"{outcome.packets}: {complaint or 'ok'}", flush=True)
    if complaint is not None or verbose:
        for line in judge.new_lines(outcome):
            print(f"    {line}", flush=True)


def torture(options, web):
    judge = Judge(web)
    calls = list(chosen_calls(judge.sites, options.every))
    total = sum(site.calls for site in judge.sites.values())
    print(f"{total} fallible calls at {len(judge.sites)} sites; {len(calls)} of them can be "
          "chosen", flush=True)
    if options.random:
        print(f"seed {options.seed}: {options.random} of them", flush=True)
        calls = random.Random(options.seed).sample(calls, min(options.random, len(calls)))
    if options.only:
        number, call = options.only.split(":")
        calls = [(int(number, 16), int(call))]
    endings = collections.Counter()
    for number, call in calls:
        name = f"{number:x}:{call}"
        outcome = run_session(web, name)
        complaint = judge.complaint(outcome, judge.sites[number])
        if complaint is not None and complaint.startswith(("blocks", "the clients")):
            outcome = run_session(web, name)  # A busy machine may delay a session: once more.
            complaint = judge.complaint(outcome, judge.sites[number])
        endings["found wrong" if complaint else "call not reached" if not outcome.faults else
                "reported, status 255" if outcome.status == FATAL else "went on"] += 1
        report(name, judge.sites[number], outcome, complaint, judge, options.verbose)
    print(", ".join(f"{count} {what}" for what, count in sorted(endings.items())), flush=True)
    reached = sum(endings.values()) - endings["call not reached"]
    return 0 if endings["found wrong"] == 0 and reached > 0 else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--every", action="store_true", help="every call, not up to three a site")
    parser.add_argument("--random", type=int, default=0, help="only so many calls")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--only", help="one call, as reported: HASH:N")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    enter_private_network()
    with VersionServer() as web:
        web.answer(body="9.9\n")
        return torture(options, web)


if __name__ == "__main__":
    sys.exit(main())
