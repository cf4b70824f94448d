"""Runs a program in a terminal and keeps the screen that it draws."""

import fcntl
import os
import pty
import struct
import subprocess
import termios
import threading

import pyte

from support.processes import PATIENCE, die_with_parent, wait_until


class TerminalProcess:
    """A program whose standard output is a terminal. A context manager that kills it.

    ``screen``  what the terminal shows, see pyte.
    """

    def __init__(self, command, env, columns, rows=24):
        self.screen = pyte.Screen(columns, rows)
        self._stream = pyte.ByteStream(self.screen)
        self._lock = threading.Lock()
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.child = subprocess.Popen(
            [str(word) for word in command], env=dict(env, TERM="xterm"), stdin=subprocess.DEVNULL,
            stdout=theirs, stderr=subprocess.PIPE, preexec_fn=die_with_parent)
        os.close(theirs)
        self._ours = ours
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            try:
                data = os.read(self._ours, 65536)
            except OSError:  # The other end is closed.
                return
            with self._lock:
                self._stream.feed(data)

    def text(self):
        with self._lock:
            return "\n".join(line.rstrip() for line in self.screen.display)

    def wait_for(self, part):
        """Waits until the screen shows ``part``; returns the whole screen."""
        wait_until(lambda: part in self.text(), f"{part!r} shows on the screen")
        return self.text()

    def wait(self, timeout=PATIENCE):
        status = self.child.wait(timeout)
        self._thread.join(timeout)
        return status

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.child.poll() is None:
            self.child.kill()
        self.child.wait()
        self._thread.join(PATIENCE)
        self.child.stderr.close()
        os.close(self._ours)
