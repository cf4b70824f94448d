"""The version check with the window, on a display without a screen, answered at the keyboard."""

import os
import signal
import time

from support.display import Display
from support.harness import NEWER_VERSION, wait_until
from support.processes import catches
from test_version_check import NEWS, VersionTest

QUIET_MINUTES = 480
QUESTION = "Velantrix Version Notification"
PROGRAM_CLASS = "VelantrixServer"

display = None


def setUpModule():
    global display
    display = Display.of_module()


def visible(*search):
    """The windows that can be seen, of those that xdotool finds."""
    return display.run("xdotool", "search", "--onlyvisible", *search, check=False).split()


def wait_for_question():
    return wait_until(lambda: visible("--name", QUESTION), "the question is shown")[0]


class Question(VersionTest):
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
        return self.server(gui=True, env={"DISPLAY": display.env["DISPLAY"], "QT_QPA_PLATFORM": "xcb",
                                          "PATH": str(self.programs)}, **options)

    def answer(self, server, key):
        """Answers the question; returns the windows that are left, of the main window and boxes."""
        server.out.wait_for(NEWS)
        question = wait_for_question()
        self.assertEqual(self.stored()["VersionCheckResponse"], NEWER_VERSION)
        wait_until(lambda: self.pressed_away(question, key), "the question is answered")
        time.sleep(2)
        return visible("--class", PROGRAM_CLASS)

    def pressed_away(self, window, key):
        display.run("xdotool", "windowfocus", "--sync", window, "key", key, check=False)
        time.sleep(0.5)
        return window not in visible("--class", PROGRAM_CLASS)

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
                           visible("--name", "^Velantrix Server"))
            wait_until(lambda: self.pressed_away(message, "Return"), "the message is closed")
            self.assert_ends_cleanly(server)
        self.store(VersionCheckTime=int(time.time() / 60) - QUIET_MINUTES - 60,
                   VersionCheckResponse=NEWER_VERSION)
        with self.window() as server:
            server.out.wait_for(NEWS)
            time.sleep(2)
            self.assertEqual(len(visible("--class", PROGRAM_CLASS)), 1)
            self.assert_ends_cleanly(server)
        self.assertFalse(self.opened.exists())
        self.assertEqual(len(self.web.requests()), 2)
