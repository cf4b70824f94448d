"""The base of the system tests.

pytest runs the test modules in a network namespace of their own, under ctest (which gives the paths
of the programs in VELANTRIX_SERVER, VELANTRIX_LISTEN, VELANTRIX_WEB and VELANTRIX_FAKES) or by hand:

    VELANTRIX_SERVER=build/VelantrixServer VELANTRIX_LISTEN=build/velantrix-listen \\
    VELANTRIX_FAKES=build/tests/support python3 -m pytest tests/system/test_start.py -k test_name
"""

import functools
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from support.network import HERE_ADDRESS, THERE_ADDRESS, OtherNetwork
from support.processes import PATIENCE, Lines, Process, die_with_parent, wait_until
from support.sound import SoundServer, clean_environment, private_home

__all__ = ["HERE_ADDRESS", "THERE_ADDRESS", "PATIENCE", "BANNER", "CAPTURE_RUNNING",
           "DEFAULT_PORT", "NEWER_VERSION", "VERSION", "OtherNetwork", "Process", "Lines", "Server",
           "SoundServer", "SystemTest", "busy_port", "clean_environment", "die_with_parent",
           "end_by_itself", "fake", "has_sanitizer", "listen", "listen_command", "private_home",
           "program", "resident_bytes", "wait_until", "with_prompt_release"]

DEFAULT_PORT = 59010
END_PATIENCE = 30.0
CAPTURE_RUNNING = "VelantrixServer: Audio capture running"
SOURCE = pathlib.Path(__file__).resolve().parents[2]
VERSION = re.search(r"project\(VelantrixServer VERSION (\d+\.\d+)",
                    (SOURCE / "CMakeLists.txt").read_text())[1]
NEWER_VERSION = re.sub(r"\d+$", lambda minor: str(int(minor[0]) + 1), VERSION)
BANNER = f"Velantrix Server v{VERSION}"


def program(variable):
    """Path of a program that ctest names in an environment variable."""
    path = os.environ.get(variable)
    if not path or not os.access(path, os.X_OK):
        raise AssertionError(f"{variable} must name an executable program, it is {path!r}")
    return path


@functools.lru_cache
def has_sanitizer():
    """Whether the server was built with a sanitizer: slower, and its memory means nothing."""
    content = pathlib.Path(program("VELANTRIX_SERVER")).read_bytes()
    return any(mark in content for mark in (b"__asan_init", b"__tsan_init", b"__ubsan_handle"))


def with_prompt_release():
    """Variables for a server whose memory is judged: the address sanitizer's allocator holds back
    what is freed, in all 256 MiB unless told."""
    options = [os.environ.get("ASAN_OPTIONS", ""), "quarantine_size_mb=1",
               "thread_local_quarantine_size_kb=64"]
    return {"ASAN_OPTIONS": ":".join(filter(None, options))}


def resident_bytes(process, what="VmRSS"):
    """Resident memory of a running Process; its own without the files' is "RssAnon"."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith(what))


def fake(name):
    """Path of a test program or preload library built in tests/support."""
    folder = os.environ.get("VELANTRIX_FAKES")
    path = pathlib.Path(folder or "/nonexistent") / name
    if not path.exists():
        raise AssertionError(f"VELANTRIX_FAKES has no {name} (it is {folder!r})")
    return str(path)


def end_by_itself(process):
    """A sanitizer checks for leaks when a program ends, not when it is killed."""
    if process.child.poll() is None:
        status = process.stop(timeout=END_PATIENCE)
        if status != 0:
            raise AssertionError(f"{process.name} ended with status {status}:\n  "
                                 + "\n  ".join(process.out.all() + process.err.all()))


class Program(Process):
    """One of our programs: a sanitizer's report fails the test, unless it has failed already."""

    def __exit__(self, *problem):
        try:
            if not any(problem) and has_sanitizer():
                end_by_itself(self)
        finally:
            super().__exit__()


class Server(Program):
    """A running VelantrixServer, headless unless ``gui``.

    ``sound``    a SoundServer, or None for a machine without any sound device.
    ``env``      variables on top; a value of None removes one.
    ``preload``  path of a library for LD_PRELOAD.
    ``rate``     the capture rate to ask for, None to leave it to the device.
    """

    def __init__(self, *arguments, sound=None, env=None, preload=None, rate=None, gui=False,
                 prefix=()):
        self.own_home = None
        environment = clean_environment()
        if sound is not None:
            environment.update(sound.env)
        else:
            environment.update(self._silent_home())
        if rate is not None:
            environment["VELANTRIX_SERVER_SAMPLE_RATE"] = str(rate)
        if preload is not None:
            environment["LD_PRELOAD"] = preload
        environment.update(env or {})
        environment = {name: value for name, value in environment.items() if value is not None}
        command = [*prefix, program("VELANTRIX_SERVER"), *([] if gui else ["-nogui"]), *arguments]
        super().__init__(command, environment, name="VelantrixServer")

    def _silent_home(self):
        """A home in which ALSA knows one device only, one that cannot be opened.

        An ALSA configuration without any device makes PortAudio fail an assertion of its own.
        """
        self.own_home = tempfile.mkdtemp(prefix="velantrix-home-")
        config = pathlib.Path(self.own_home) / "alsa.conf"
        config.write_text("pcm.missing { type hw card 99 }\n", encoding="ascii")
        return dict(private_home(self.own_home), XDG_RUNTIME_DIR=self.own_home,
                    ALSA_CONFIG_PATH=str(config), JACK_NO_START_SERVER="1")

    def wait_for_capture(self):
        """Waits until sound flows, from when on clients are served."""
        self.out.wait_for(CAPTURE_RUNNING)

    def __exit__(self, *problem):
        try:
            super().__exit__(*problem)
        finally:
            if self.own_home:
                shutil.rmtree(self.own_home, ignore_errors=True)


def busy_port():
    """Holds the server's port for as long as the context lasts."""
    holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    holder.bind(("0.0.0.0", DEFAULT_PORT))
    return holder


def listen_command(*arguments, host="127.0.0.1"):
    """Without a host the client searches for a server."""
    return [program("VELANTRIX_LISTEN"), *([host] if host else []), *map(str, arguments)]


def listen(*arguments, host="127.0.0.1", prefix=(), timeout=60, env=None):
    """Runs velantrix-listen to its end; returns the completed process with its texts."""
    return subprocess.run([*prefix, *listen_command(*arguments, host=host)], timeout=timeout,
                          env=dict(clean_environment(), **(env or {})), capture_output=True,
                          text=True, preexec_fn=die_with_parent, check=False)


class SystemTest(unittest.TestCase):
    """A test case with a scratch folder and the console's lines at hand."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velantrix-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def enterContext(self, manager):  # In unittest itself from Python 3.11 on.
        value = manager.__enter__()
        self.addCleanup(manager.__exit__, None, None, None)
        return value

    def assert_lines_in_order(self, lines, expected):
        """Waits for each expected line (text, or compiled pattern), in this order."""
        position = 0
        for pattern in expected:
            fits = pattern.search if isinstance(pattern, re.Pattern) else pattern.__eq__
            found = next((i for i in range(position, len(lines)) if fits(lines[i])), None)
            self.assertIsNotNone(
                found, f"no {pattern!r} from line {position} on:\n  " + "\n  ".join(lines))
            position = found + 1

    def assert_ends_cleanly(self, server, number=signal.SIGTERM):
        self.assertEqual(server.stop(number), 0, "\n".join(server.out.all() + server.err.all()))

    def assert_ends_in_time(self, server, number=signal.SIGTERM):
        """As above, also when the sound library hangs, for which the server waits 3 s. Returns the
        seconds that it took."""
        begin = time.monotonic()
        SystemTest.assert_ends_cleanly(self, server, number)
        taken = time.monotonic() - begin
        print(f"the server ended within {taken:.1f} s")
        self.assertLess(taken, 20 if has_sanitizer() else 5)
        return taken
