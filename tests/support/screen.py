"""A private X server."""

import os

from processes import Process
from sound import clean_environment

ATTEMPTS = 5


class Screen:
    """Xvfb without a window manager; `name` is its display. A context manager.

    Of two that start at the same moment one may find its number taken, and tries again. The server
    stays as it is when its last client leaves, so that the next one need not wait.
    """

    def __init__(self, size="1024x768x24"):
        self.size = size

    def __enter__(self):
        for _ in range(ATTEMPTS):
            number = self._start()
            if number:
                self.name = f":{number}"
                return self
            self.process.__exit__()
        raise AssertionError("Xvfb did not start")

    def __exit__(self, *_):
        self.process.__exit__()

    def _start(self):
        reader, writer = os.pipe()
        self.process = Process(["Xvfb", "-screen", "0", self.size, "-nolisten", "tcp", "-noreset",
                                "-displayfd", str(writer)], clean_environment(),
                               pass_fds=[writer])
        os.close(writer)
        with os.fdopen(reader, encoding="ascii") as lines:
            return lines.readline().strip()
