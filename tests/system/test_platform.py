"""Which display the window goes to, and what is printed about it, for each environment.

Wayland is a real compositor without an output (weston); X11 is Xvfb.
"""

import os
import re
import subprocess
import time
import unittest

from support.display import Display
from support.harness import SOURCE, Server, SystemTest, die_with_parent, wait_until

WARNING = ("Warning: This session may be using a Wayland variant. If you see any other Qt errors "
           "you should choose X11 by starting VelantrixServer with '-platform xcb' option.")
IGNORING = ("Warning: Ignoring XDG_SESSION_TYPE=wayland. Start VelantrixServer with '-platform "
            "wayland' option or set environment variable QT_QPA_PLATFORM=wayland to run on "
            "Wayland anyway.")

display = None
wayland = None


def setUpModule():
    global display, wayland
    display = Display.of_module()
    socket = display.folder / "wayland-test"
    wayland = subprocess.Popen(
        ["weston", "--backend=headless-backend.so", "--idle-time=0", f"--socket={socket.name}",
         "--no-config"], env=dict(os.environ, XDG_RUNTIME_DIR=str(display.folder)),
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=die_with_parent)
    unittest.addModuleCleanup(wayland.wait)
    unittest.addModuleCleanup(wayland.terminate)
    wait_until(socket.exists, "the compositor listens")


class Platform(SystemTest):
    def check(self, *arguments, warning=None, x11, **environment):
        """Starts the window; checks the warnings, and that it shows on X11 or only on Wayland."""
        variables = {"DISPLAY": display.env["DISPLAY"], "WAYLAND_DISPLAY": "wayland-test",
                     "XDG_RUNTIME_DIR": str(display.folder), **environment}
        with Server(*arguments, gui=True, env=variables) as server:
            server.err.wait_for("Error -10000 opening audio input device")
            if x11:
                display.wait_window(server)
            else:
                self.assertTrue(uses_wayland(server))
                time.sleep(0.5)
                self.assertEqual(display.windows(server), [])
            self.assertEqual([line for line in server.out.all() if line.startswith("Warning")],
                             [warning] if warning else [])
            self.assertEqual(server.stop(), 0)

    # Where nothing is chosen, Qt 6 prefers a compositor that is there.
    def test_x11_session_says_nothing(self):
        self.check(x11=True, XDG_SESSION_TYPE="x11", WAYLAND_DISPLAY=None)

    def test_no_session_type_says_nothing(self):
        self.check(x11=True, WAYLAND_DISPLAY=None)

    def test_wayland_session_is_steered_to_x11(self):
        self.check(x11=True, warning=IGNORING, XDG_SESSION_TYPE="wayland")

    def test_wayland_session_in_capitals_is_steered_to_x11(self):
        self.check(x11=True, warning=IGNORING, XDG_SESSION_TYPE="Wayland")

    def test_wayland_variant_is_warned_about(self):
        self.check("-b", "127.0.0.1", x11=True, warning=WARNING, XDG_SESSION_TYPE="wayland-egl",
                   WAYLAND_DISPLAY=None)

    def test_chosen_x11_in_a_wayland_session_says_nothing(self):
        self.check(x11=True, QT_QPA_PLATFORM="xcb", XDG_SESSION_TYPE="wayland")

    def test_chosen_wayland_is_warned_about_and_taken(self):
        self.check(x11=False, warning=WARNING, QT_QPA_PLATFORM="wayland",
                   XDG_SESSION_TYPE="wayland")

    def test_wayland_chosen_in_capitals_is_warned_about(self):
        self.check(x11=True, warning=WARNING, QT_QPA_PLATFORM="xcb;WAYLAND")

    def test_platform_option_x11_in_a_wayland_session_says_nothing(self):
        self.check("-platform", "xcb", x11=True, XDG_SESSION_TYPE="wayland")

    def test_platform_option_wayland_is_warned_about_and_taken(self):
        self.check("-platform", "wayland", x11=False, warning=WARNING, XDG_SESSION_TYPE="x11")

    def test_platform_option_leaves_the_environment_alone(self):
        self.check("-platform", "xcb", x11=True, QT_QPA_PLATFORM="wayland")

    def test_compositor_is_told_the_desktop_entry(self):
        entry = next((SOURCE / "packaging/applications").iterdir()).stem
        with Server("-verbose", "-platform", "wayland", gui=True,
                    env={"WAYLAND_DISPLAY": "wayland-test", "WAYLAND_DEBUG": "1",
                         "XDG_RUNTIME_DIR": str(display.folder)}) as server:
            server.err.wait_for(re.compile(rf'\.set_app_id\("{re.escape(entry)}"\)'))
            self.assertEqual(server.stop(), 0)

    def test_later_argument_that_names_wayland_is_taken_for_a_platform(self):
        with Server("-platform", "xcb", "-b", "my-wayland-box", gui=True,
                    env={"DISPLAY": display.env["DISPLAY"]}) as server:
            server.err.wait_for("Error -10000 opening audio input device")
            self.assertIn(WARNING, server.out.all())
            self.assertNotIn("Binding", "\n".join(server.out.all()))
            self.assertEqual(server.stop(), 0)


def uses_wayland(server):
    """True when the process has loaded the toolkit's Wayland part, and its window stands."""
    with open(f"/proc/{server.pid}/maps", encoding="utf-8") as maps:
        return "libqwayland" in maps.read()
