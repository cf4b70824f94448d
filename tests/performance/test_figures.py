"""The tools that judge and show the figures: counts, stalls, rows, the page."""

import importlib.machinery
import importlib.util
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "tests" / "performance")]
sys.dont_write_bytecode = True

import instruction_guard  # noqa: E402
from results import Results, histogram, percentile  # noqa: E402
from watch import Stalls, StallWatch  # noqa: E402

MS = 1000000


def script(name):
    """The module of a benchmark whose name has no ending."""
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / "bench" / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


def stalls(*spans):
    """Late wake-ups, in ms."""
    return Stalls([(since * MS, to * MS) for since, to in spans])


class InstructionGuard(unittest.TestCase):
    def test_complaint_tells_what_is_wrong_with_a_count(self):
        for now, wanted in ((0, "nothing"), (899, "fell"), (900, ""), (1100, ""),
                            (1101, "more expensive")):
            complaint = instruction_guard.complaint(now, 1000)
            self.assertIn(wanted, complaint)
            self.assertEqual(bool(complaint), bool(wanted), now)

    def test_what_a_callee_cost_is_counted_once(self):
        text = ("ob=/x/program\nfn=processBuffer(char*, int, bool) [clone .cold]\n10 5\n"
                "cob=/lib/libenet.so.7\ncfn=enet_host_flush\ncalls=1 3\n11 70\n"
                "ob=/lib/libenet.so.7\nfn=enet_host_flush\n3 70\n")
        self.assertEqual(instruction_guard.instructions(text), 75)


class RealPath(unittest.TestCase):
    SHORT, LONG = (1000, 1005), (1000, 1600)

    def is_fault(self, kind, at_ms, reliable=True, *spans):
        return script("real_path").is_fault(kind, at_ms * MS, reliable, stalls(*spans))

    def test_number_that_came_again_is_never_excused(self):
        self.assertTrue(self.is_fault("back", 1100, True, self.LONG))

    def test_gap_of_a_reliable_client(self):
        self.assertTrue(self.is_fault("gap", 1100, True))
        self.assertTrue(self.is_fault("gap", 1100, True, self.SHORT))

    def test_gap_of_a_reliable_client_whose_queue_filled_in_a_stall(self):
        self.assertFalse(self.is_fault("gap", 2000, True, self.LONG))
        self.assertTrue(self.is_fault("gap", 4000, True, self.LONG))

    def test_gap_of_a_best_effort_client(self):
        self.assertFalse(self.is_fault("gap", 1100, False))

    def test_broken_tone_within_a_second_of_a_stall(self):
        self.assertFalse(self.is_fault("glitch", 1900, True, self.SHORT))
        self.assertTrue(self.is_fault("glitch", 2100, True, self.SHORT))
        self.assertTrue(self.is_fault("silence", 1100, True))


class StallsSeen(unittest.TestCase):
    def test_time_is_what_spans_have_in_common(self):
        seen = stalls((10, 20), (30, 40))
        spans = ((0, 9), (21, 29), (41, 50), (9, 11), (20, 31), (19, 32), (0, 50))
        found = [seen.time(since * MS, to * MS) / MS for since, to in spans]
        self.assertEqual(found, [0, 0, 0, 1, 1, 3, 20])

    def test_late_wake_ups_of_two_processors_are_joined(self):
        seen = stalls((10, 20), (40, 50), (15, 30), (60, 61))
        self.assertEqual(seen.long, [(10 * MS, 30 * MS), (40 * MS, 50 * MS)])
        self.assertEqual(seen.time(0, 100 * MS), 31 * MS)

    def test_lines_of_the_watch(self):
        with tempfile.TemporaryDirectory() as folder:
            watch = StallWatch.__new__(StallWatch)
            watch.path = Path(folder) / "stalls"
            self.assertEqual(watch.stalls().long, [])
            watch.path.write_text("0 1000000 5000000\n1 2000000 2300000\n0 90", "ascii")
            self.assertEqual(watch.stalls().long, [(MS, 5 * MS)])


class Rows(unittest.TestCase):
    def test_rows_of_a_stopped_run_are_known(self):
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder) / "rows.csv"
            Results(path, ["rate", "clients"]).add({"rate": "raw", "clients": 10, "p50": 0.2})
            again = Results(path, ["rate", "clients"])
            self.assertTrue(again.has(rate="raw", clients=10))
            self.assertFalse(again.has(rate="raw", clients=1))
            again.add({"rate": "raw", "clients": 1, "p50": 0.1})
            self.assertEqual(path.read_text("ascii"),
                             "rate,clients,p50\nraw,10,0.2\nraw,1,0.1\n")

    def test_other_columns_do_not_get_into_a_file(self):
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder) / "rows.csv"
            Results(path, ["rate"]).add({"rate": "raw", "p50": 0.2})
            with self.assertRaises(SystemExit):
                Results(path, ["rate"]).add({"rate": "64", "p99": 0.2})

    def test_histogram_counts_everything_once(self):
        counted = histogram([50000, 51000, 900000, 40 * MS])
        self.assertEqual(sum(count for _, count in counted), 4)
        self.assertGreaterEqual(counted[-1][0], 40)

    def test_percentile_of_one_value(self):
        self.assertEqual(percentile([7], 0.999), 7)


class Page(unittest.TestCase):
    def test_page_and_pictures_are_those_of_the_files(self):
        self.assertEqual(script("plots").out_of_date(), [], "run bench/plots")


if __name__ == "__main__":
    unittest.main()
