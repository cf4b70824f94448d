"""Rows of figures in CSV files, written one by one so that a stopped run can be continued."""

import csv
import math
import os
import platform
import subprocess
import sys
import time
from pathlib import Path


class Results:
    """A CSV file that grows row by row; rows that it already has are not measured again.

    `keys` are the columns that tell one row from another. Without a path the rows go to standard
    output, and none is there yet.
    """

    def __init__(self, path, keys):
        self.path = Path(path) if path else None
        self.keys = tuple(keys)
        self.columns = None
        self.present = set()
        if self.path and self.path.exists() and self.path.stat().st_size:
            with open(self.path, newline="", encoding="ascii") as file:
                reader = csv.DictReader(file)
                self.columns = reader.fieldnames
                self.present = {self._key(row) for row in reader}

    def _key(self, row):
        return tuple(str(row[key]) for key in self.keys)

    def has(self, **row):
        return self._key(row) in self.present

    def add(self, row):
        if self.columns is not None and list(row) != list(self.columns):
            raise SystemExit(f"{self.path} has other columns; move it away first")
        new = self.columns is None
        self.columns = list(row)
        self.present.add(self._key(row))
        if self.path is None:
            self._write(sys.stdout, row, new)
            sys.stdout.flush()
            return
        self.path.parent.mkdir(parents=True, exist_ok=True)
        with open(self.path, "a", newline="", encoding="ascii") as file:
            self._write(file, row, new)

    def _write(self, file, row, header):
        writer = csv.DictWriter(file, self.columns, lineterminator="\n")
        if header:
            writer.writeheader()
        writer.writerow(row)


def percentile(ordered, share):
    """`ordered` is sorted; the value below which `share` of them lie."""
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def median(values):
    return percentile(sorted(values), 0.5)


def milliseconds(nanoseconds):
    return round(nanoseconds / 1e6, 3)


def histogram(values_ns, per_decade=20):
    """(upper bound in ms, count) pairs over logarithmic classes, empty ones left out."""
    counts = {}
    for value in values_ns:
        step = math.ceil(per_decade * math.log10(max(value, 1000) / 1e6))
        counts[step] = counts.get(step, 0) + 1
    return [(round(10 ** (step / per_decade), 5), counts[step]) for step in sorted(counts)]


def write_histogram(folder, name, values_ns):
    """Writes the distribution of one row as its own small CSV file."""
    folder = Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    with open(folder / f"{name}.csv", "w", newline="", encoding="ascii") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow(("up_to_ms", "count"))
        writer.writerows(histogram(values_ns))


def version_of(package):
    found = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], check=False,
                           capture_output=True, text=True)
    return found.stdout or "not a package here"


def describe_machine(path, packages, more=()):
    """Describes the machine of a measurement, with the packages' versions and `more` pairs of what and
    value, unless the file exists."""
    if path.exists():
        return
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        model = next((line.partition(":")[2].strip() for line in lines
                      if line.startswith("model name")), platform.machine())
    rows = [("date", time.strftime("%Y-%m-%d")), ("processor", model),
            ("processors", os.cpu_count()), ("kernel", platform.release().partition("-")[0]),
            *more, *((package, version_of(package)) for package in packages)]
    with open(path, "w", newline="", encoding="utf-8") as file:
        csv.writer(file, lineterminator="\n").writerows([("what", "value"), *rows])


def build_folder(parser):
    """The option that every measurement has; resolved by `os.path.abspath` at once."""
    parser.add_argument("--build", default="build-bench", type=os.path.abspath,
                        help="folder of a build with -DVELANTRIX_BENCH=ON")
