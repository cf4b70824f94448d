"""A small terminal: runs a program in a pty and keeps the screen that it draws."""

import fcntl
import os
import pty
import re
import struct
import subprocess
import termios
import threading

from processes import PATIENCE, die_with_parent, wait_until

_SEQUENCE = re.compile(r"\x1b\[(\??)(\d*)([A-Za-z])")


class Screen:
    """Lines of text that grow downwards, with the few control sequences that the client uses.

    Anything else that starts with an escape character is an error, and so is a line that is
    longer than the terminal is wide (it would wrap and spoil the drawing in place).
    """

    def __init__(self, columns):
        self.columns = columns
        self.lines = [""]
        self.row = self.column = 0
        self.cursor_shown = True
        self.errors = []

    def feed(self, text):
        position = 0
        while position < len(text):
            if text[position] == "\x1b":
                found = _SEQUENCE.match(text, position)
                if found is None:
                    return text[position:]
                self._control(*found.groups())
                position = found.end()
            else:
                self._put(text[position])
                position += 1
        return ""

    def _put(self, char):
        if char == "\r":
            self.column = 0
        elif char == "\n":
            self.row += 1
            while self.row >= len(self.lines):
                self.lines.append("")
        else:
            line = self.lines[self.row].ljust(self.column)
            self.lines[self.row] = line[:self.column] + char + line[self.column + 1:]
            self.column += 1
            if self.column >= self.columns:
                self.errors.append(f"a line reaches column {self.column}: {line!r}")

    def _control(self, private, number, letter):
        if private:
            self.cursor_shown = letter == "h"
        elif letter == "A":
            self.row = max(0, self.row - int(number or 1))
        elif letter == "K":
            self.lines[self.row] = self.lines[self.row][:self.column]
        elif letter == "J":
            self.lines[self.row] = self.lines[self.row][:self.column]
            del self.lines[self.row + 1:]
        else:
            self.errors.append(f"unknown control sequence {private}{number}{letter}")

    def text(self):
        return "\n".join(self.lines)


class TerminalProcess:
    """A program whose standard output is a terminal. A context manager that kills it."""

    def __init__(self, command, env, columns, rows=24):
        self.screen = Screen(columns)
        self._lock = threading.Lock()
        self._errors = []
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
        rest = ""
        while True:
            try:
                data = os.read(self._ours, 65536)
            except OSError:  # The other end is closed.
                return
            with self._lock:
                rest = self.screen.feed(rest + data.decode("utf-8", "replace"))

    def text(self):
        with self._lock:
            return self.screen.text()

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
