"""The version check of the whole program, headless: its time, its lines and what it keeps."""

import configparser
import re
import subprocess
import time

from support.harness import (BANNER, CAPTURE_RUNNING, NEWER_VERSION, VERSION, Server, SoundServer, SystemTest,
                             fake, has_sanitizer, program, wait_until)
from support.probe import Probe
from support.version_server import LATE, VERSION_FILE, VersionServer

NEWS = "WebIf::checkVersion: A new version of Velantrix Server is available"
CHECK_LINE = re.compile(r"^WebIf::")
WAIT = 8.0
"""Seconds from the start to the check; SHORT_WAIT where the test does not look at that."""
SHORT_WAIT = WAIT / 10
FATAL = 255
LONGEST_SHUTDOWN = 4.0
"""Seconds from the signal to the end; the program itself waits for its threads for 3 at most."""

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
            self.assertLess(taken, 20 if has_sanitizer() else LONGEST_SHUTDOWN)
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
