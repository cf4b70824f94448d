"""The tools that judge and show the figures: causes of long callbacks, counts, rows, the page."""

import importlib.machinery
import importlib.util
import sys
import tempfile
import unittest
import xml.dom.minidom
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "docs"), str(ROOT / "tests" / "performance")]
sys.dont_write_bytecode = True

import instruction_guard  # noqa: E402
from callbacks import (LATE_WAKE_UP, OURS, QUEUED, SLOW_CALLS, STALL,  # noqa: E402
                       WAITED_AGAIN, explain)
from profile_counts import read  # noqa: E402
from results import Results, histogram, percentile  # noqa: E402
from svg_chart import Chart  # noqa: E402
from watch import Stalls, StallWatch  # noqa: E402

MS = 1000000


def script(folder, name):
    """The module of a script whose name has no ending."""
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / folder / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


def call(wall, processor, queued=0, waited=0, intended=None, sending=0, encoding=0, **other):
    """A callback of two passes on processor 0 with ten sends and an encoding, times in ms."""
    times = {"wall": wall, "processor": processor, "queued": queued, "waited": waited,
             "intended": min(waited, 2) if intended is None else intended, "poll_processor": 0,
             "poll_queued": 0, "sending": sending, "receiving": 0, "encoding": encoding,
             "usual_send": 0.02, "usual_receive": 0.001, "usual_encode": 0.2}
    return {"number": 1, "entry": 1000 * MS, "sends": 10, "receives": 4, "encodes": 1, "passes": 2,
            "first_cpu": 0, "last_cpu": 0, **{name: time * MS for name, time in times.items()},
            **other}


def stalls(*spans, processor=0):
    """Stalls of one processor, in ms."""
    return Stalls([(processor, since * MS, to * MS) for since, to in spans])


class LongCallback(unittest.TestCase):
    def test_stall_of_its_processor_is_the_machines_fault(self):
        self.assertEqual(explain(call(9, 8), stalls((1003, 1009))), STALL)

    def test_stall_at_another_time_excuses_nothing(self):
        self.assertEqual(explain(call(9, 8), stalls((900, 999), (1010, 1020))), OURS)

    def test_stall_of_another_processor_excuses_nothing(self):
        self.assertEqual(explain(call(9, 8), stalls((1001, 1009), processor=1)), OURS)

    def test_stalls_count_for_what_they_took(self):
        taken = call(5, 3, waited=2)
        self.assertEqual(explain(taken, stalls((1001, 1002), (1003, 1003.6))), STALL)
        self.assertEqual(explain(taken, stalls((1001, 1002))), OURS)

    def test_work_is_ours(self):
        self.assertEqual(explain(call(6, 4, waited=2), stalls()), OURS)

    def test_calls_that_took_over_twice_their_usual_time(self):
        self.assertEqual(explain(call(6, 4, waited=2, sending=1, encoding=2.5), stalls()),
                         SLOW_CALLS)

    def test_calls_that_took_a_little_longer_excuse_nothing(self):
        self.assertEqual(explain(call(3.9, 1.9, waited=2, sending=0.3, encoding=0.4), stalls()),
                         OURS)

    def test_slow_calls_do_not_excuse_work_of_our_own(self):
        self.assertEqual(explain(call(8, 6, waited=2, sending=1, encoding=2.5), stalls()), OURS)

    def test_more_calls_than_fit_are_ours(self):
        self.assertEqual(explain(call(6, 4, waited=2, sending=4, sends=200), stalls()), OURS)

    def test_sleep_outside_of_the_waits_is_ours(self):
        self.assertEqual(explain(call(6, 0.5, waited=2), stalls()), OURS)

    def test_sleep_outside_is_seen_beside_work_and_queueing_inside_of_a_wait(self):
        inside = {"poll_processor": 0.2 * MS, "poll_queued": 1.5 * MS}
        self.assertEqual(explain(call(7, 0.7, queued=1.5, waited=3.5, intended=2, **inside),
                                 stalls()), OURS)

    def test_thread_that_was_ready_but_on_no_processor(self):
        self.assertEqual(explain(call(6, 0.5, queued=4, waited=2), stalls()), QUEUED)

    def test_wait_of_1_ms_that_came_back_late(self):
        self.assertEqual(explain(call(6, 0.5, waited=5.5), stalls()), LATE_WAKE_UP)

    def test_wait_that_began_anew(self):
        self.assertEqual(explain(call(4.3, 0.5, waited=3.8, intended=3.7), stalls()), WAITED_AGAIN)

    def test_wait_that_was_meant_to_be_longer_is_ours(self):
        self.assertEqual(explain(call(5.5, 0.5, waited=5, intended=5, passes=1), stalls()), OURS)
        self.assertEqual(explain(call(4.5, 0.5, waited=4, intended=4), stalls()), OURS)

    def test_longer_wait_is_ours_beside_what_the_machine_did(self):
        self.assertEqual(explain(call(12.5, 0.5, waited=12, intended=10), stalls((1001, 1003))),
                         OURS)


class InstructionGuard(unittest.TestCase):
    def test_counts_within_the_slack_are_right(self):
        for now in (900, 1000, 1100):
            self.assertEqual(instruction_guard.complaint(now, 1000), "")

    def test_count_above_the_slack(self):
        self.assertIn("more expensive", instruction_guard.complaint(1101, 1000))

    def test_count_that_fell_by_more_than_the_slack(self):
        self.assertIn("fell", instruction_guard.complaint(899, 1000))

    def test_function_that_was_not_found(self):
        self.assertIn("nothing", instruction_guard.complaint(0, 1000))

    def test_shares_are_summed_without_what_a_callee_cost(self):
        text = ("ob=/x/program\nfn=processBuffer(char*, int, bool) [clone .cold]\n10 5\n"
                "cob=/lib/libenet.so.7\ncfn=enet_host_flush\ncalls=1 3\n11 70\n"
                "ob=/lib/libenet.so.7\nfn=enet_host_flush\n3 70\n")
        self.assertEqual(read(text, "/y/program"), {"ours": 5, "ENet": 70})


class RealPath(unittest.TestCase):
    SHORT, LONG = (1000, 1005), (1000, 1600)

    def is_fault(self, kind, at_ms, reliable=True, *spans):
        return script("bench", "real_path").is_fault(kind, at_ms * MS, reliable, stalls(*spans))

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
    def test_spans_that_only_come_near_have_no_time_in_common(self):
        seen = stalls((10, 20), (30, 40))
        found = [seen.time((0,), since * MS, to * MS) for since, to in ((0, 9), (21, 29), (41, 50))]
        self.assertEqual(found, [0] * 3)

    def test_common_time_is_that_of_the_parts(self):
        seen = stalls((10, 20), (30, 40))
        found = [seen.time(None, since * MS, to * MS) // MS
                 for since, to in ((0, 11), (12, 13), (19, 32), (0, 50))]
        self.assertEqual(found, [1, 1, 3, 20])

    def test_short_ones_are_not_among_the_long_ones(self):
        self.assertEqual(stalls((10, 12), (20, 22.5)).long, [(20 * MS, 22.5 * MS)])

    def test_late_wake_ups_of_two_processors_are_joined(self):
        seen = Stalls([(0, 10 * MS, 20 * MS), (1, 40 * MS, 50 * MS), (1, 15 * MS, 30 * MS)])
        self.assertEqual(seen.long, [(10 * MS, 30 * MS), (40 * MS, 50 * MS)])
        self.assertEqual(seen.time((0,), 0, 100 * MS), 10 * MS)
        self.assertEqual(seen.time((0, 1), 12 * MS, 45 * MS), 23 * MS)

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
        for path, text in script("docs", "plots").outputs().items():
            self.assertEqual(path.read_text("utf-8"), text, f"{path.name}: run docs/plots")

    def test_every_table_has_its_place(self):
        plots = script("docs", "plots")
        page = plots.PAGE.read_text("utf-8")
        missing = [name for name in plots.TABLES if f"<!-- table: {name} -->" not in page]
        self.assertEqual(missing, [])

    def test_chart_is_well_formed(self):
        for logarithmic in (False, True):
            chart = Chart("a < b", "x", "y & z", x_log=logarithmic, y_log=logarithmic)
            chart.add("line", [(0.5, 0.001), (20, 3)])
            chart.add("dots", [(1, 2)], dots=True)
            chart.limit(1, "limit")
            xml.dom.minidom.parseString(chart.svg())


if __name__ == "__main__":
    unittest.main()
