"""Watches a running process, and the machine under it, from outside."""

import os
import subprocess
import time
from bisect import bisect_left
from pathlib import Path


class StallWatch:
    """Runs stall_watch beside a measurement; knows afterwards when the machine stood still.

    A context manager. `stalls()` are (from, to) pairs in CLOCK_MONOTONIC nanoseconds, in order,
    joined where they overlap.
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

    def lines(self):
        """(processor, due, woke) of every late wake-up."""
        text = self.path.read_text(encoding="ascii") if self.path.exists() else ""
        return [tuple(map(int, line.split())) for line in text.splitlines() if line.count(" ") == 2]

    def stalls(self):
        joined = []
        for _, due, woke in sorted(self.lines(), key=lambda line: line[1]):
            if joined and due <= joined[-1][1]:
                joined[-1] = (joined[-1][0], max(joined[-1][1], woke))
            else:
                joined.append((due, woke))
        return joined


def overlaps(stalls, start, end):
    """Whether the span touches one of the ordered, separate stalls."""
    first = bisect_left(stalls, start, key=lambda stall: stall[1])
    return first < len(stalls) and stalls[first][0] <= end


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
