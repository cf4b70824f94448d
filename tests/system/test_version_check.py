"""The version check of the whole program: its time, its lines, what it keeps and what it asks."""

import configparser
import os
import re
import signal
import subprocess
import time

from support.display import Display
from support.harness import (BANNER, CAPTURE_RUNNING, NEWER_VERSION, VERSION, Server, SoundServer, SystemTest,
                             fake, has_sanitizer, program, wait_until)
from support.probe import Probe
from support.processes import catches
from support.version_server import LATE, VERSION_FILE, VersionServer

NEWS = "WebIf::checkVersion: A new version of Velantrix Server is available"
CHECK_LINE = re.compile(r"^WebIf::")
WAIT = 8.0
"""Seconds from the start to the check; SHORT_WAIT where the test does not look at that."""
SHORT_WAIT = WAIT / 10
FATAL = 255
MAX_SHUTDOWN = 4.0
"""Seconds from the signal to the end; the program itself waits for its threads for 3 at most."""

QUIET_MINUTES = 480
QUESTION = "Velantrix Version Notification"
PROGRAM_CLASS = "VelantrixServer"

NO_LIBRARY = "Error, could not dlopen the cURL shared library libcurl.so.4."


def retrieved(version, line_end):
    """The line about a file with a version and a line end of this many bytes."""
    return (f"WebIf::checkVersion: {len(version) + line_end} bytes retrieved ({len(version)}): "
            f"{version} ({VERSION})")


def advice(address):
    return [" Velantrix Server will continue to run but won't be able to check for new",
            f" versions. Please visit {address} occasionally to check for",
            " new versions of this program. You may be able to fix this issue by installing",
            " libcurl using your linux system's package manager. If there is more than one",
            " option try the SSL variant of cURL."]


class VersionTest(SystemTest):
    """Servers that share one settings folder, and a web server of the test's own."""

    def setUp(self):
        super().setUp()
        self.web = VersionServer()
        self.addCleanup(self.web.__exit__)
        self.settings = self.folder / "Velantrix" / "Server.conf"

    def server(self, *arguments, faults="short-wait", env=(), **options):
        env = {"XDG_CONFIG_HOME": str(self.folder), "VELANTRIX_WEB_ADDRESS": self.web.address,
               "VELANTRIX_FAULTS": faults, **dict(env)}
        return Server(*arguments, env=env, preload=fake("preload_faults.so"), **options)

    def stored(self):
        """The settings in the file, as texts; empty when there is no file."""
        parser = configparser.ConfigParser()
        parser.optionxform = str
        parser.read(self.settings)
        return dict(parser["General"]) if parser.has_section("General") else {}

    def store(self, **values):
        self.settings.parent.mkdir(exist_ok=True)
        lines = [f"{key}={value}" for key, value in values.items()]
        self.settings.write_text("\n".join(["[General]", *lines, ""]), encoding="ascii")

    def run_past_the_check(self, server):
        """Runs a server well beyond the time of its check; returns its lines about it."""
        server.out.wait_for(BANNER)
        time.sleep(SHORT_WAIT + 2)
        self.assert_ends_cleanly(server)
        return [line for line in server.out.all() if CHECK_LINE.search(line)]


class Announcement(VersionTest):
    def test_new_version_is_printed_8_seconds_after_the_start_and_kept(self):
        self.web.answer(body=f"{NEWER_VERSION}\r\n")
        with self.server(faults="") as server:
            server.out.wait_for(BANNER)
            begin = time.monotonic()
            server.out.wait_for(NEWS)
            # The banner was printed a little before it was read.
            self.assertGreater(time.monotonic() - begin, WAIT - 1)
            self.assert_lines_in_order(server.out.all(), [
                retrieved(NEWER_VERSION, line_end=2), NEWS])
            self.assert_ends_cleanly(server)
        self.assertEqual([request["path"] for request in self.web.requests()], [VERSION_FILE])
        stored = self.stored()
        self.assertEqual(stored["VersionCheckResponse"], NEWER_VERSION)
        self.assertLess(abs(int(stored["VersionCheckTime"]) - time.time() / 60), 5)

    def test_restart_within_8_hours_asks_nothing(self):
        self.web.answer(body=f"{NEWER_VERSION}\n")
        minute = int(time.time() / 60) - 400
        self.store(VersionCheckTime=minute)
        with self.server() as server:
            self.assertEqual(self.run_past_the_check(server), [])
        self.assertEqual(self.web.requests(), [])
        self.assertEqual(self.stored(), {"VersionCheckTime": str(minute)})


class Shutdown(VersionTest):
    def test_server_that_never_answers_does_not_hold_up_the_end(self):
        self.web.answer(manner=LATE)
        with self.server() as server:
            wait_until(self.web.requests, "a request comes")
            begin = time.monotonic()
            self.assert_ends_cleanly(server)
            taken = time.monotonic() - begin
            print(f"ended {taken:.2f} s after the signal")
            self.assertLess(taken, 20 if has_sanitizer() else MAX_SHUTDOWN)
            self.assertFalse([line for line in server.out.all() if CHECK_LINE.search(line)])

    def test_end_before_the_check_asks_nothing(self):
        with self.server(faults="") as server:
            server.out.wait_for(BANNER)
            self.assert_ends_cleanly(server)
        self.assertEqual(self.web.requests(), [])
        self.assertEqual(self.stored(), {})


class ForcedExit(VersionTest):
    def test_forced_exit_waits_for_the_check_that_is_writing_a_setting(self):
        with self.server(faults="short-wait,slow-disc,host-create") as server:
            self.assertEqual(server.wait(), FATAL)
        self.assertEqual(list(self.stored()), ["VersionCheckTime"])


class WithoutLibcurl(VersionTest):
    def test_server_streams_gives_advice_once_and_never_checks(self):
        (self.folder / "libcurl.so.4").touch()  # No library: none is looked for any further.
        missing = {"LD_LIBRARY_PATH": str(self.folder)}
        with SoundServer() as sound, self.server(sound=sound, env=missing) as server:
            server.wait_for_capture()
            with Probe(self.folder) as probe:
                client = probe.connect()
                client.request()
                client.wait_packets(100)
            time.sleep(SHORT_WAIT + 1)
            self.assert_ends_cleanly(server)
            expected = [NO_LIBRARY, *advice(self.web.address)]
            self.assert_lines_in_order(server.out.all(), expected)
            for line in expected:
                self.assertEqual(server.out.all().count(line), 1, line)
            self.assertIn(CAPTURE_RUNNING, server.out.all())
            self.assertFalse([line for line in server.out.all() if CHECK_LINE.search(line)])
        self.assertEqual(self.web.requests(), [])
        self.assertEqual(self.stored(), {})


class Linking(SystemTest):
    def test_program_does_not_name_libcurl_among_its_libraries(self):
        dynamic = subprocess.run(["readelf", "--wide", "--dynamic", program("VELANTRIX_SERVER")],
                                 check=True, capture_output=True, text=True).stdout
        needed = re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic)
        self.assertIn("libc.so.6", needed)
        self.assertFalse([name for name in needed if "curl" in name])


class Question(VersionTest):
    """With the window, on a display without a screen, answered at the keyboard."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.display = cls.enterClassContext(Display())

    def setUp(self):
        super().setUp()
        self.web.answer(body=f"{NEWER_VERSION}\n")
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        self.opened = self.folder / "opened"

    def add_browser(self, then=""):
        fake = self.programs / "xdg-open"
        fake.write_text(
            f"#!/bin/sh\nprintf '%s\\n' $# \"$@\" >> '{self.opened}'\n{then}\n", encoding="ascii")
        fake.chmod(0o755)

    def window(self, **options):
        # Without the system's folders: an installed xdg-open must not run.
        return self.server(gui=True, env={"DISPLAY": self.display.env["DISPLAY"], "QT_QPA_PLATFORM": "xcb",
                                          "PATH": str(self.programs)}, **options)

    def visible(self, *search):
        """The windows that can be seen, of those that xdotool finds."""
        return self.display.run("xdotool", "search", "--onlyvisible", *search, check=False).split()

    def answer(self, server, key):
        """Answers the question; returns the windows that are left, of the main window and boxes."""
        server.out.wait_for(NEWS)
        question = wait_until(lambda: self.visible("--name", QUESTION), "the question is shown")[0]
        self.assertEqual(self.stored()["VersionCheckResponse"], NEWER_VERSION)
        wait_until(lambda: self.pressed_away(question, key), "the question is answered")
        time.sleep(2)
        return self.visible("--class", PROGRAM_CLASS)

    def pressed_away(self, window, key):
        self.display.run("xdotool", "windowfocus", "--sync", window, "key", key, check=False)
        time.sleep(0.5)
        return window not in self.visible("--class", PROGRAM_CLASS)

    def test_enter_means_yes_and_opens_the_browser_once(self):
        self.add_browser()
        with self.window() as server:
            self.assertEqual(len(self.answer(server, "Return")), 1)
            self.assertEqual(self.opened.read_text(encoding="ascii"), f"1\n{self.web.address}\n")
            self.assert_ends_cleanly(server)

    def test_interrupt_at_the_terminal_ends_a_browser_in_the_foreground_and_then_the_server(self):
        self.add_browser("exec /bin/sleep 300")
        with self.window(prefix=["/usr/bin/setsid"]) as server:
            self.answer(server, "Return")
            wait_until(self.opened.exists, "the browser is open")
            os.killpg(server.pid, signal.SIGINT)
            wait_until(lambda: catches(server.pid, signal.SIGINT), "the browser ends")
            self.assertIsNone(server.child.poll())
            os.killpg(server.pid, signal.SIGINT)
            self.assertEqual(server.wait(), 0)

    def test_no_shows_one_message_and_a_restart_asks_nothing(self):
        self.add_browser()
        with self.window() as server:
            windows = self.answer(server, "alt+n")
            self.assertEqual(len(windows), 2)
            message = next(window for window in windows if window not in
                           self.visible("--name", "^Velantrix Server"))
            wait_until(lambda: self.pressed_away(message, "Return"), "the message is closed")
            self.assert_ends_cleanly(server)
        self.store(VersionCheckTime=int(time.time() / 60) - QUIET_MINUTES - 60,
                   VersionCheckResponse=NEWER_VERSION)
        with self.window() as server:
            server.out.wait_for(NEWS)
            time.sleep(2)
            self.assertEqual(len(self.visible("--class", PROGRAM_CLASS)), 1)
            self.assert_ends_cleanly(server)
        self.assertFalse(self.opened.exists())
        self.assertEqual(len(self.web.requests()), 2)
