"""Watches a running process, and the machine under it, from outside."""

import os
import subprocess
import time
from bisect import bisect_left
from pathlib import Path


class Stalls:
    """When the machine stood still, CLOCK_MONOTONIC nanoseconds.

    `lines` are (from, to) pairs of late wake-ups on any processor; `long` those of 2 ms and more,
    in order, joined where they overlap.
    """

    LONG_NS = 2000000

    def __init__(self, lines):
        self.all = joined(lines)
        self.long = joined((due, woke) for due, woke in lines if woke - due > self.LONG_NS)

    def time(self, start, end):
        """How long a processor stood still within the span, with short stalls."""
        return sum(min(to, end) - max(since, start)
                   for since, to in overlapping(self.all, start, end))


def joined(spans):
    """The (from, to) pairs in order, those that overlap made one."""
    result = []
    for start, end in sorted(spans):
        if result and start <= result[-1][1]:
            result[-1] = (result[-1][0], max(result[-1][1], end))
        else:
            result.append((start, end))
    return result


def overlapping(spans, start, end):
    """The ordered, separate (from, to) pairs that overlap the span."""
    index = bisect_left(spans, start, key=lambda span: span[1])
    while index < len(spans) and spans[index][0] <= end:
        yield spans[index]
        index += 1


class StallWatch:
    """Runs stall_watch beside a measurement; `stalls()` are the ones seen so far.

    A context manager.
    """

    def __init__(self, build, folder):
        self.path = Path(folder) / "stalls"
        self.process = subprocess.Popen([Path(build) / "stall_watch", self.path],
                                        stdin=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(timeout=20)

    def stalls(self):
        text = self.path.read_text(encoding="ascii") if self.path.exists() else ""
        # (processor, due, woke) of every late wake-up; the last line may be half written.
        return Stalls([tuple(map(int, line.split()[1:])) for line in text.splitlines()
                       if line.count(" ") == 2])


class StealTime:
    """The share of the processors' time that the hypervisor gave to other guests."""

    def __init__(self):
        self.at = self._read()

    @staticmethod
    def _read():
        with open("/proc/stat", encoding="ascii") as file:
            times = [int(word) for word in file.readline().split()[1:9]]
        return times[7], sum(times)

    def percent(self):
        """Since the construction."""
        stolen, everything = (now - was for now, was in zip(self._read(), self.at))
        return round(100 * stolen / max(everything, 1), 2)


class ProcessMeter:
    """Figures of a process from /proc."""

    def __init__(self, pid):
        self.folder = Path(f"/proc/{pid}")

    def memory_mb(self):
        """Resident memory, and the part of it that is the process's own (not files)."""
        lines = (self.folder / "status").read_text(encoding="ascii").splitlines()
        values = {line.split(":")[0]: line.split()[1] for line in lines if line.endswith("kB")}
        return int(values["VmRSS"]) / 1024, int(values["RssAnon"]) / 1024

    def pss_mb(self):
        """Resident memory, with the process's part of shared pages."""
        lines = (self.folder / "smaps_rollup").read_text(encoding="ascii").splitlines()
        return next(int(line.split()[1]) for line in lines if line.startswith("Pss:")) / 1024

    def processor_ms(self):
        """Processor time of all living threads, in milliseconds."""
        total = 0
        for task in (self.folder / "task").iterdir():
            try:
                total += int((task / "schedstat").read_text(encoding="ascii").split()[0])
            except (FileNotFoundError, ProcessLookupError):
                pass
        return total / 1e6

    def descriptors(self):
        return len(os.listdir(self.folder / "fd"))


def wait_while_alive(process, seconds):
    """Sleeps; raises when the process ends meanwhile."""
    end = time.monotonic() + seconds
    while True:
        left = end - time.monotonic()
        if left <= 0:
            return
        if process.poll() is not None:
            raise RuntimeError("the server ended during the measurement")
        time.sleep(min(left, 1.0))
