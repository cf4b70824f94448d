"""The demo says that the tune arrived only when it did."""

import array
import os
import pathlib
import re
import signal
import subprocess
import sys
import urllib.request

from support.harness import Process, SystemTest, die_with_parent, program
from support.signals import noise, read_wav, silence, write_wav

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "lib"
sys.path.insert(0, str(SCRIPTS))

import demo  # noqa: E402
from tune import RATE, make_tune  # noqa: E402


class WholeDemo(SystemTest):
    def run_demo(self, **environment):
        build = pathlib.Path(program("VELANTRIX_SERVER")).parent
        return subprocess.run(
            [sys.executable, SCRIPTS / "demo.py", build, self.folder],
            env=dict(os.environ, **environment), capture_output=True, text=True, timeout=110,
            check=False)

    def test_tune_arrives_and_is_recorded(self):
        result = self.run_demo()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("The tune arrived.", result.stdout)
        samples, rate = read_wav(self.folder / "recording.wav")
        self.assertEqual(rate, RATE)
        self.assertGreater(len(samples) / 2, 8 * RATE)

    def test_with_web_everybody_hears_it_until_it_is_interrupted(self):
        build = pathlib.Path(program("VELANTRIX_SERVER")).parent
        with Process([sys.executable, SCRIPTS / "demo.py", "--web", build, self.folder],
                     dict(os.environ)) as demonstration:
            demonstration.out.wait_for(re.compile("^http://"), timeout=110)
            address = "http://127.0.0.1:59080"
            with urllib.request.urlopen(f"{address}/", timeout=30) as page:
                self.assertEqual(page.headers.get_content_type(), "text/html")
            heard = subprocess.run(
                ["curl", "-sS", "-m", "13", f"{address}/stream.wav"], capture_output=True,
                preexec_fn=die_with_parent, check=False).stdout
            write_wav(self.folder / "recording.wav", array.array("h", heard[44:len(heard) // 4 * 4]),
                      RATE)
            self.assertEqual(demo.judge(self.folder, 2 * make_tune()), 0)
            self.assertEqual(demonstration.stop(signal.SIGINT), 0)

    def test_no_sound_server_is_one_clear_failure(self):
        (self.folder / "bin").mkdir()
        result = self.run_demo(PATH=str(self.folder / "bin"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("demo: pulseaudio is not installed", result.stderr)
        self.assertNotIn("The tune arrived.", result.stdout)


class Judgement(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.tune = make_tune()

    def judge(self, recording, rate=RATE):
        write_wav(self.folder / "recording.wav", recording, rate)
        return demo.judge(self.folder, self.tune)

    def piece(self, seconds):
        """The tune from 1.23 s on, behind a little silence."""
        start = 2 * int(1.23 * RATE)
        return silence(1000) + self.tune[start:start + 2 * int(seconds * RATE)]

    def test_ten_seconds_from_the_middle_are_accepted(self):
        self.assertEqual(self.judge(self.piece(10)), 0)

    def test_what_is_not_the_tune_is_refused(self):
        swapped = self.piece(10)
        swapped[0::2], swapped[1::2] = swapped[1::2], swapped[0::2]
        halved = array.array("h", (value // 2 for value in self.piece(10)))
        for name, recording in (
                ("a short recording", self.piece(5)), ("silence", silence(10 * RATE)),
                ("other sound", noise(10 * RATE, seed=1)), ("swapped channels", swapped),
                ("half the volume", halved)):
            with self.subTest(name):
                self.assertEqual(self.judge(recording), 1)

    def test_wrong_rate_is_refused(self):
        self.assertEqual(self.judge(self.piece(10), 44100), 1)
