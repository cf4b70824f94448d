"""The window of the real program, on a private screen, seen from outside."""

import contextlib
import os
import pathlib
import signal
import stat
import time

from support.display import Display
from support.harness import PATIENCE, SoundServer, SystemTest, busy_port, wait_until
from support.probe import Probe

ADDRESS_TIP = "IP address of this server (computer), to enter in app"
BUTTON = "Open Pulse Audio\nVolume Control"
BUSY = "Network port busy (another Velantrix Server may already be running)"
PORTAUDIO = "Initializing PortAudio"
NO_SOUND = "Error -10000 opening audio input device"
FATAL = 255

display = None


def setUpModule():
    global display
    display = Display.of_module()


class Texts(SystemTest):
    def test_texts_follow_sound_and_clients(self):
        with SoundServer() as sound, display.seen_server(sound=sound, rate=48000) as (server, view):
            view.wait_for(lambda v: "Audio capture running at 48 kHz" in v.names("label"),
                          "the running capture shows")
            view.wait_status("Disconnected")
            self.assertTrue(view.lines()[ADDRESS_TIP])
            view.wait_for(lambda v: v.names("frame") == ["Velantrix Server"], "the short title")
            self.assertEqual([name for name in view.names("label") if name.endswith(":")],
                             ["Status:", "Server Address:"])
            self.assertEqual(view.names("push button"), [BUTTON])
            with Probe(self.folder) as probe:
                first = probe.connect()
                view.wait_status("Connected")
                first.request(name="K\u00fcche \u266b")
                view.wait_status("Connected to K\u00fcche \u266b")
                second = probe.connect()
                view.wait_status("Connected (2)")
                second.request(name="Desk")
                view.wait_status("Connected to Desk (2)")
                first.disconnect()
                view.wait_status("Connected to Desk")
                second.disconnect()
                view.wait_status("Disconnected")
            self.assert_ends_cleanly(server)


class VolumeControl(SystemTest):
    """The button, with a stand-in for the volume control on PATH."""

    def setUp(self):
        super().setUp()
        self.record = self.folder / "record"
        fake = self.folder / "pavucontrol"
        fake.write_text(
            "#!/usr/bin/python3\n"
            "import os, time\n"
            "fds = sorted(int(n) for n in os.listdir('/proc/self/fd'))\n"
            f"with open('{self.record}.new', 'w') as out:\n"
            "    print(os.getpid(), *fds, file=out)\n"
            f"os.rename('{self.record}.new', '{self.record}')\n"
            "time.sleep(600)\n", encoding="ascii")
        fake.chmod(fake.stat().st_mode | stat.S_IXUSR)
        self.env = {"PATH": f"{self.folder}:{os.environ['PATH']}"}

    def test_button_starts_it_and_the_server_goes_on(self):
        with display.seen_server(env=self.env) as (server, view):
            view.press(BUTTON)
            wait_until(self.record.exists, "the stand-in runs")
            process, *descriptors = map(int, self.record.read_text().split())
            self.addCleanup(end, process)
            # Its script and the folder that it lists, on the lowest free numbers: nothing of ours.
            self.assertLessEqual(len(descriptors), 3)
            self.assertLess(max(descriptors), 5)
            self.assertTrue(pathlib.Path(f"/proc/{process}").exists())
            self.assert_ends_cleanly(server)


def end(process):
    with contextlib.suppress(ProcessLookupError):
        os.kill(process, signal.SIGKILL)


class BusyPort(SystemTest):
    """A fatal error shows its box, and the status after it is 255."""

    def setUp(self):
        super().setUp()
        self.enterContext(busy_port())

    def test_box_tells_and_ok_ends_with_status_255(self):
        with display.seen_server() as (server, view):
            view.wait_for(lambda v: BUSY in v.names("label"), "the box tells the reason")
            time.sleep(1)
            self.assertIsNone(server.child.poll(), "the program waits for the user")
            view.press("OK")
            self.assertEqual(server.wait(), FATAL)

    def test_box_ends_with_status_255_every_time(self):
        for _ in range(int(os.environ.get("VELANTRIX_BUSY_BOXES", "10"))):
            with display.server() as server:
                wait_until(lambda: len(display.windows(server)) > 1, "the box shows")
                press_return_until_end(server)
                self.assertEqual(server.wait(), FATAL)

    def test_stop_signal_with_the_box_open_ends_with_status_255(self):
        with display.server() as server:
            wait_until(lambda: len(display.windows(server)) > 1, "the box shows")
            begin = time.monotonic()
            self.assertEqual(server.stop(), FATAL)
            self.assertLess(time.monotonic() - begin, PATIENCE / 2)

def press_return_until_end(server):
    """The box may not have the keyboard yet when it shows."""
    def ended():
        display.run("xdotool", "key", "Return", check=False)
        return server.child.poll() is not None
    wait_until(ended, "the box is closed")


class BindWarning(SystemTest):
    """The box about a bind address that does not exist delays the start until it is closed."""

    def test_sound_is_opened_only_after_the_box_is_closed(self):
        with display.seen_server("-b", "no.such.host") as (server, view):
            wait_bind_warning(view)
            time.sleep(1)
            self.assertNotIn(PORTAUDIO, server.out.all())
            self.assertEqual(server.err.all(), [])
            told = server.out.count()
            view.press("OK")
            server.out.wait_for(PORTAUDIO, told)
            server.err.wait_for(NO_SOUND)
            self.assert_ends_cleanly(server)


def wait_bind_warning(view):
    start = "Warning, could not bind server to address 'no.such.host'"
    view.wait_for(lambda v: any(name.startswith(start) for name in v.names("label")),
                  "the warning shows")


class Closing(SystemTest):
    def test_closing_the_window_ends_with_status_0(self):
        with SoundServer() as sound, display.server(sound=sound) as server:
            server.wait_for_capture()
            display.close_window(display.wait_window(server))
            self.assertEqual(server.wait(), 0)
            self.assertEqual(server.err.all(), [])
