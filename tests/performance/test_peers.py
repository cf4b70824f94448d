"""What measures the programs that docs/comparison.md compares, each tried once.

Usage: test_peers.py BUILD_FOLDER
"""

import csv
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "tests")]
sys.dont_write_bytecode = True

from peer_sound import BYTES_PER_S, Recording, burst, delays  # noqa: E402

MS = 1000000


def rows_of(path):
    with open(path, newline="", encoding="utf-8") as file:
        return list(csv.DictReader(file))


class Delays(unittest.TestCase):
    TIMES = [at * MS for at in (0, 700, 1650, 2300, 3250, 3900)]

    def test_delay_longer_than_the_pauses(self):
        heard = [at + 2000 * MS + shift * MS for shift, at in enumerate(self.TIMES)]
        self.assertEqual(delays(self.TIMES, heard), [(2000 + shift) * MS for shift in range(6)])

    def test_click_that_was_not_heard(self):
        heard = [at + 50 * MS for at in self.TIMES]
        del heard[2]
        self.assertEqual(delays(self.TIMES, heard), [50 * MS] * 5)

    def test_nothing_heard(self):
        self.assertEqual(delays(self.TIMES, []), [])


class Heard(unittest.TestCase):
    def recording(self, data):
        recording = Recording.__new__(Recording)
        recording.data, recording.ends = bytearray(data), [len(data) // 2, len(data)]
        recording.times = [1 * MS, 2 * MS]
        return recording

    def test_click_has_the_time_of_the_piece_that_holds_it(self):
        quiet = bytes([10, 0]) * (BYTES_PER_S // 2)
        recording = self.recording(quiet + burst() + quiet)
        self.assertEqual(list(recording.clicks(0, recording.mark())), [1 * MS])

    def test_silence_is_counted(self):
        sound = bytes([10, 0]) * (BYTES_PER_S // 2)
        recording = self.recording(sound + bytes(BYTES_PER_S // 100) + sound)
        self.assertEqual(recording.silent_ms(0, recording.mark()), 10)


class EveryCommand(unittest.TestCase):
    """Runs all commands of the page: one short row each."""

    def test_each_streams_and_the_page_shows_these_commands(self):
        figures = ROOT / "bench/figures"
        with tempfile.TemporaryDirectory() as folder:
            run = subprocess.run(
                [sys.executable, ROOT / "bench/peers", "--quick", "--folder", folder,
                 "--build", BUILD], check=False, capture_output=True, text=True)
            self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
            measured = rows_of(Path(folder) / "peers.csv")
            self.assertEqual(rows_of(Path(folder) / "peers_commands.csv"),
                             rows_of(figures / "peers_commands.csv"))
        shown = rows_of(figures / "peers.csv")
        self.assertEqual(list(measured[0]), list(shown[0]))
        names = {tuple(row[key] for key in ("program", "sound", "setting")) for row in shown}
        for row in measured:
            self.assertIn((row["program"], row["sound"], row["setting"]), names)
            self.assertGreater(int(row["heard"]), 0, row)


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
