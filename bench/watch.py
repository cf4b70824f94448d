"""Watches a running process, and the machine under it, from outside."""

import os
import subprocess
import time
from bisect import bisect_left
from pathlib import Path


class Stalls:
    """When the machine stood still, CLOCK_MONOTONIC nanoseconds.

    `long` are (from, to) pairs of stalls of 2 ms and more on any processor, in order, joined where
    they overlap.
    """

    LONG_NS = 2000000

    def __init__(self, lines):
        self.by_processor = {}
        for processor, due, woke in sorted(lines, key=lambda line: line[1]):
            self.by_processor.setdefault(processor, []).append((due, woke))
        self.long = joined((due, woke) for _, due, woke in lines if woke - due > self.LONG_NS)

    def time(self, processors, start, end):
        """For how long within the span one of these processors stood still, short stalls too.

        `processors` None stands for all.
        """
        chosen = self.by_processor if processors is None else set(processors)
        return sum(to - since for since, to in joined(
            (max(since, start), min(to, end)) for processor in chosen
            for since, to in overlapping(self.by_processor.get(processor, []), start, end)))


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
    """Those of the ordered, separate (from, to) pairs that touch the span."""
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
        # (processor, due, woke) of every late wake-up.
        return Stalls([tuple(map(int, line.split())) for line in text.splitlines()
                       if line.count(" ") == 2])


class Theft:
    """The share of the processors' time that went to other guests of the same machine."""

    def __init__(self):
        self.at = self._read()

    @staticmethod
    def _read():
        with open("/proc/stat", encoding="ascii") as file:
            times = [int(word) for word in file.readline().split()[1:9]]
        return times[7], sum(times)

    def percent(self, until=None):
        """From the making of this object to that of `until`, or to now."""
        end = until.at if until else self._read()
        stolen, everything = (now - was for now, was in zip(end, self.at))
        return round(100 * stolen / max(everything, 1), 2)


class ProcessMeter:
    """Figures of a process from /proc."""

    def __init__(self, pid):
        self.folder = Path(f"/proc/{pid}")

    def _status(self, names):
        values = {}
        for line in (self.folder / "status").read_text(encoding="ascii").splitlines():
            name, _, rest = line.partition(":")
            if name in names:
                values[name] = int(rest.split()[0])
        return values

    def memory_mb(self):
        """Resident memory, and the part of it that is the process's own (not files)."""
        values = self._status(("VmRSS", "RssAnon"))
        return values["VmRSS"] / 1024, values["RssAnon"] / 1024

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

    def wakeups(self):
        """Voluntary context switches by thread: how often each began to wait, and woke up."""
        counts = {}
        for task in (self.folder / "task").iterdir():
            text = (task / "status").read_text(encoding="ascii")
            for line in text.splitlines():
                if line.startswith("voluntary_ctxt_switches:"):
                    counts[f"{(task / 'comm').read_text().strip()} {task.name}"] = int(
                        line.split()[1])
        return counts


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
