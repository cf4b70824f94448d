"""How the headless server ends: signals, a capture that hangs in its close, forced exits."""

import os
import signal

from support.harness import (BANNER, Server, SoundServer, SystemTest, busy_port, die_with_parent,
                             fake, wait_until)
from support.processes import catches

SLOW_CLOSE = ("VelantrixServer: Audio shutdown is taking a long time, may be caused by an audio "
              "driver issue. Quitting.")
CLOSE_HANGS = {"VELANTRIX_FAULTS": "close-hangs"}
FATAL = 255

BUSY_STARTS = int(os.environ.get("VELANTRIX_BUSY_STARTS", "16"))


class Signals(SystemTest):
    def check_signal(self, number, sound):
        with Server(sound=sound) as server:
            if sound:
                server.wait_for_capture()
            else:
                server.err.wait_for("Error -10000 opening audio input device")
            self.assert_ends_in_time(server, number)
            self.assertNotIn(SLOW_CLOSE, server.out.all())

    def test_interrupt_while_streaming_gives_status_0(self):
        with SoundServer() as sound:
            self.check_signal(signal.SIGINT, sound)

    def test_terminate_while_streaming_gives_status_0(self):
        with SoundServer() as sound:
            self.check_signal(signal.SIGTERM, sound)

    def test_interrupt_without_sound_gives_status_0(self):
        self.check_signal(signal.SIGINT, None)

    def test_terminate_right_after_the_banner_gives_status_0(self):
        with SoundServer() as sound:
            for _ in range(5):
                with Server(sound=sound) as server:
                    server.out.wait_for(BANNER)
                    self.assert_ends_in_time(server)


class WithoutDisplay(SystemTest):
    def test_fonts_are_not_read_at_the_end(self):
        with Server(env={"FONTCONFIG_FILE": str(self.folder / "missing")}) as server:
            server.out.wait_for(BANNER)
            self.assert_ends_cleanly(server)
            self.assertFalse([line for line in server.err.all() if "Fontconfig" in line])


class HangingClose(SystemTest):
    def start(self, sound):
        return Server(sound=sound, preload=fake("preload_faults.so"), env=CLOSE_HANGS)

    def test_exit_comes_after_3_seconds_with_the_message_and_status_0(self):
        with SoundServer() as sound, self.start(sound) as server:
            server.wait_for_capture()
            self.assertGreaterEqual(self.assert_ends_in_time(server), 3.0)
            self.assertEqual(server.out.all().count(SLOW_CLOSE), 1)

    def check_second_signal(self, first, second):
        with SoundServer() as sound, self.start(sound) as server:
            server.wait_for_capture()
            server.send_signal(first)
            wait_until(lambda: not catches(server.pid, second), "the first signal is handled")
            server.send_signal(second)
            self.assertEqual(server.wait(), -second)
            self.assertNotIn(SLOW_CLOSE, server.out.all())

    def test_second_interrupt_ends_at_once_by_the_signal(self):
        self.check_second_signal(signal.SIGINT, signal.SIGINT)

    def test_terminate_after_an_interrupt_ends_at_once_by_the_signal(self):
        self.check_second_signal(signal.SIGINT, signal.SIGTERM)


class HangingOpen(SystemTest):
    def test_sound_server_that_stood_still_before_the_start_does_not_hold_up_the_end(self):
        with SoundServer() as sound:
            sound.daemon.send_signal(signal.SIGSTOP)
            with Server(sound=sound) as server:
                server.out.wait_for("Initializing PortAudio")
                self.assertGreaterEqual(self.assert_ends_in_time(server), 3.0)
                self.assertEqual(server.out.all().count(SLOW_CLOSE), 1)
            sound.daemon.send_signal(signal.SIGCONT)


class HangingExit(SystemTest):
    """A library's exit handler never returns. The limit of 30 s is cut to one second."""

    def start(self):
        return Server(preload=fake("preload_faults.so"), env={"VELANTRIX_FAULTS": "exit-hangs"})

    def test_ordinary_end_comes_all_the_same_with_status_0(self):
        with self.start() as server:
            server.err.wait_for("Error -10000 opening audio input device")
            self.assert_ends_in_time(server)

    def test_forced_end_comes_all_the_same_with_status_255(self):
        with busy_port():
            with self.start() as server:
                self.assertEqual(server.wait(), FATAL)


class ForcedExit(SystemTest):
    def test_busy_port_gives_status_255_every_time_also_under_load(self):
        print(f"{BUSY_STARTS} starts, the second half under load "
              "(VELANTRIX_BUSY_STARTS sets the number)")
        statuses = []
        with busy_port():
            statuses += [self.start_once() for _ in range(BUSY_STARTS // 2)]
            with Load():
                statuses += [self.start_once() for _ in range(BUSY_STARTS - BUSY_STARTS // 2)]
        self.assertEqual(statuses, [FATAL] * BUSY_STARTS)

    def start_once(self):
        with Server() as server:
            return server.wait()


class Load:
    """Keeps every core busy for as long as the context lasts."""

    def __enter__(self):
        self.children = []
        for _ in range(2 * (os.cpu_count() or 1)):
            child = os.fork()
            if child == 0:
                die_with_parent()
                while True:
                    pass
            self.children.append(child)

    def __exit__(self, *_):
        for child in self.children:
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
