"""The version check with the window, on a display without a screen, answered at the keyboard."""

import contextlib
import os
import signal
import subprocess
import time

from support.display import XServer
from support.harness import NEWER_VERSION, Process, clean_environment, wait_until
from test_stop import default_action
from test_version_check import BANNER, NEWS, QUIET_MINUTES, WAIT, VersionTest

QUESTION = "Velantrix Version Notification"
PROGRAM_CLASS = "VelantrixServer"
LOOK_AGAIN = 2.0
"""Seconds between two looks at a minimised window."""
LOAD_MARGIN = 10.0
"""Seconds that a busy machine may add."""


class Display:
    """A private X server, with a window manager if asked for. A context manager."""

    def __init__(self, manager=False):
        self.manager = manager

    def __enter__(self):
        self.programs = contextlib.ExitStack()
        self.name = self.programs.enter_context(XServer()).name
        if self.manager:
            self.programs.enter_context(Process(["openbox", "--sm-disable"],
                                                dict(clean_environment(), DISPLAY=self.name)))
            wait_until(lambda: "window id" in self.run("xprop", "-root", "_NET_SUPPORTING_WM_CHECK"),
                       "the window manager is there")
        return self

    def __exit__(self, *_):
        self.programs.close()

    def run(self, *command):
        return subprocess.run(command, env=dict(clean_environment(), DISPLAY=self.name),
                              capture_output=True, text=True).stdout

    def xdotool(self, *words):
        return self.run("xdotool", *words).split()

    def windows(self, *search):
        return self.xdotool("search", "--onlyvisible", *search)

    def wait_for_question(self):
        return wait_until(lambda: self.windows("--name", QUESTION), "the question is shown")[0]

    def press(self, window, key):
        self.xdotool("windowfocus", "--sync", window, "key", key)


class Question(VersionTest):
    def setUp(self):
        super().setUp()
        self.web.answer(body=f"{NEWER_VERSION}\n")
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        self.opened = self.folder / "opened"

    def add_browser(self, then=""):
        stand_in = self.programs / "xdg-open"
        stand_in.write_text(
            f"#!/bin/sh\nprintf '%s\\n' $# \"$@\" >> '{self.opened}'\n{then}\n", encoding="ascii")
        stand_in.chmod(0o755)

    def window(self, display, **options):
        # Without the system's folders: an installed xdg-open must not run.
        return self.server(gui=True, env={"DISPLAY": display.name, "QT_QPA_PLATFORM": "xcb",
                                          "PATH": str(self.programs)}, **options)

    def answer(self, display, server, key):
        """Answers the question; returns the windows that are left, of the main window and boxes."""
        server.out.wait_for(NEWS)
        question = display.wait_for_question()
        self.assertEqual(self.stored()["VersionCheckResponse"], NEWER_VERSION)
        wait_until(lambda: self.pressed_away(display, question, key), "the question is answered")
        time.sleep(2)
        return display.windows("--class", PROGRAM_CLASS)

    def pressed_away(self, display, window, key):
        display.press(window, key)
        time.sleep(0.5)
        return window not in display.windows("--class", PROGRAM_CLASS)

    def test_enter_means_yes_and_opens_the_browser_once(self):
        self.add_browser()
        with Display() as display, self.window(display) as server:
            self.assertEqual(len(self.answer(display, server, "Return")), 1)
            self.assertEqual(self.opened.read_text(encoding="ascii"), f"1\n{self.web.address}\n")
            self.assert_ends_cleanly(server)

    def test_interrupt_at_the_terminal_ends_a_browser_in_the_foreground_and_then_the_server(self):
        self.add_browser("exec /bin/sleep 300")
        with Display() as display, self.window(display, prefix=["/usr/bin/setsid"]) as server:
            self.answer(display, server, "Return")
            wait_until(self.opened.exists, "the browser is open")
            os.killpg(server.pid, signal.SIGINT)
            wait_until(lambda: not default_action(server.pid, signal.SIGINT), "the browser ends")
            self.assertIsNone(server.child.poll())
            os.killpg(server.pid, signal.SIGINT)
            self.assertEqual(server.wait(), 0)

    def test_yes_without_a_browser_shows_nothing_more(self):
        with Display() as display, self.window(display) as server:
            self.assertEqual(len(self.answer(display, server, "Return")), 1)
            self.assert_ends_cleanly(server)

    def test_no_shows_one_message_and_a_restart_asks_nothing(self):
        self.add_browser()
        with Display() as display:
            with self.window(display) as server:
                windows = self.answer(display, server, "alt+n")
                self.assertEqual(len(windows), 2)
                message = next(window for window in windows if window not in
                               display.windows("--name", "^Velantrix Server"))
                wait_until(lambda: self.pressed_away(display, message, "Return"),
                           "the message is closed")
                self.assert_ends_cleanly(server)
            self.store(VersionCheckTime=int(time.time() / 60) - QUIET_MINUTES - 60,
                       VersionCheckResponse=NEWER_VERSION)
            with self.window(display) as server:
                server.out.wait_for(NEWS)
                time.sleep(2)
                self.assertEqual(len(display.windows("--class", PROGRAM_CLASS)), 1)
                self.assert_ends_cleanly(server)
        self.assertFalse(self.opened.exists())
        self.assertEqual(len(self.web.requests()), 2)

    def test_minimized_window_postpones_the_check(self):
        with Display(manager=True) as display, self.window(display, faults="") as server:
            server.out.wait_for(BANNER)
            window = wait_until(lambda: display.windows("--name", "^Velantrix Server"),
                                "the window is shown")[0]
            display.xdotool("windowminimize", "--sync", window)
            wait_until(lambda: not display.windows("--name", "^Velantrix Server"),
                       "the window is minimised")
            time.sleep(WAIT + 4)
            self.assertEqual(self.web.requests(), [])
            display.xdotool("windowactivate", window)
            begin = time.monotonic()
            wait_until(self.web.requests, "the check is made", timeout=LOOK_AGAIN + LOAD_MARGIN)
            display.wait_for_question()
            print(f"asked {time.monotonic() - begin:.1f} s after the window was restored")
            self.assertEqual(len(self.web.requests()), 1)
            self.assert_ends_cleanly(server)

    def test_program_may_be_ended_while_the_question_is_open(self):
        with Display() as display, self.window(display) as server:
            server.out.wait_for(NEWS)
            display.wait_for_question()
            self.assert_ends_cleanly(server)
            self.assertIn(BANNER, server.out.all())
