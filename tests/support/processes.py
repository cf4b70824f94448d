"""Child processes whose printed lines a test can wait for."""

import contextlib
import ctypes
import os
import pathlib
import re
import signal
import subprocess
import sys
import threading
import time

PATIENCE = 30.0
"""Seconds to wait for something that is immediate on an idle machine."""

NOT_ROOT = ["unshare", "--user", "--map-user=65534", "--map-group=65534", "--"]
"""The words before a program that refuses to run as root."""

_PR_SET_PDEATHSIG = 1
_WRITE_COUNTS_AND_DIE = 60
_libc = ctypes.CDLL(None)


def die_with_parent():
    """For ``preexec_fn``: the child is killed when the test is, however the test ends."""
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


def wait_until(condition, what, timeout=PATIENCE):
    """Waits until ``condition()`` is true and returns its value; fails with ``what``."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout:g} s: {what}")
        time.sleep(0.02)


def catches(pid, number):
    """True when the process has a handler for the signal."""
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
        caught = next(int(line.split()[1], 16) for line in status if line.startswith("SigCgt"))
    return bool(caught >> (number - 1) & 1)


class Lines:
    """The lines that come out of one pipe, in order, kept as they come."""

    def __init__(self, pipe, name):
        self.name = name
        self._lines = []
        self._changed = threading.Condition()
        self._ended = False
        self._thread = threading.Thread(target=self._read, args=(pipe,), daemon=True)
        self._thread.start()

    def _read(self, pipe):
        for line in pipe:
            with self._changed:
                self._lines.append(line.rstrip("\n"))
                self._changed.notify_all()
        pipe.close()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def all(self):
        """Every line until now."""
        with self._changed:
            return list(self._lines)

    def count(self):
        with self._changed:
            return len(self._lines)

    def wait_for(self, pattern, start=0, timeout=PATIENCE):
        """Waits for a whole line (text) or a match (compiled pattern) from line ``start`` on.

        Returns the line's index. Fails with everything printed when it does not come.
        """
        fits = pattern.search if isinstance(pattern, re.Pattern) else pattern.__eq__
        end = time.monotonic() + timeout
        with self._changed:
            position = start
            while True:
                for index in range(position, len(self._lines)):
                    if fits(self._lines[index]):
                        return index
                position = max(position, len(self._lines))
                left = end - time.monotonic()
                if left <= 0 or self._ended:
                    why = "the output ended" if self._ended else f"waited {timeout:g} s"
                    raise AssertionError(
                        f"{self.name}: no line {pattern!r} from line {start} on ({why}):\n  "
                        + "\n  ".join(self._lines))
                self._changed.wait(left)

    def finish(self, timeout=PATIENCE):
        """Waits for the end of the pipe and returns every line."""
        self._thread.join(timeout)
        if self._thread.is_alive():
            raise AssertionError(f"{self.name}: the pipe stays open")
        return self.all()


class Process:
    """A running program with both outputs captured by line. A context manager that kills it."""

    def __init__(self, command, env, name=None, **options):
        self.name = name or str(command[0]).rsplit("/", 1)[-1]
        self.child = subprocess.Popen(
            [str(word) for word in command], env=env, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, stdin=options.pop("stdin", subprocess.DEVNULL), text=True,
            errors="backslashreplace", preexec_fn=die_with_parent, **options)
        self.out = Lines(self.child.stdout, f"{self.name} standard output")
        self.err = Lines(self.child.stderr, f"{self.name} standard error")

    @property
    def pid(self):
        return self.child.pid

    def send_signal(self, number):
        self.child.send_signal(number)

    def wait(self, timeout=PATIENCE):
        """Waits for the end; returns the status (negative: the number of the signal)."""
        try:
            status = self.child.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} still runs after {timeout:g} s:\n  "
                                 + "\n  ".join(self.out.all() + self.err.all())) from None
        self.out.finish()
        self.err.finish()
        return status

    def stop(self, number=signal.SIGTERM, timeout=PATIENCE):
        """Sends a signal and waits for the end; returns the status."""
        if self.child.poll() is None:
            self.send_signal(number)
        return self.wait(timeout)

    def kill(self):
        if self.child.poll() is None:
            self._save_coverage()
            self.child.kill()
        self.child.wait()

    def _save_coverage(self):
        """Makes a program of a coverage build write its counts and end."""
        if not catches(self.pid, _WRITE_COUNTS_AND_DIE):
            return
        self.send_signal(_WRITE_COUNTS_AND_DIE)
        try:
            self.child.wait(2)
        except subprocess.TimeoutExpired:
            pass  # It was stopped, or hangs: the counts are lost.

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()
        if self.child.stdin:
            self.child.stdin.close()
        self.out.finish()
        self.err.finish()


class ModuleProcess(Process):
    """A module of this package that runs as a program; ``prefix`` are words before its command."""

    def __init__(self, module, *arguments, prefix=(), **options):
        super().__init__([*prefix, sys.executable, "-m", f"support.{module}", *arguments], None,
                         name=module, cwd=pathlib.Path(__file__).parents[1], **options)


def descendants(pid):
    """The process and all that descend from it."""
    found = [pid]
    for parent in found:
        for children in pathlib.Path(f"/proc/{parent}/task").glob("*/children"):
            try:
                found.extend(int(word) for word in children.read_text(encoding="ascii").split())
            except (FileNotFoundError, ProcessLookupError):
                pass
    return found


def prefer(pid, priority=1):
    """Gives a program and its children real-time priority, where that is allowed."""
    for process in descendants(pid):
        with contextlib.suppress(OSError):
            for task in os.listdir(f"/proc/{process}/task"):
                os.sched_setscheduler(int(task), os.SCHED_RR, os.sched_param(priority))
