"""What the benchmarks of the listening client share.

Importing this makes the harness of the system tests known to Python.
"""

import argparse
import csv
import os
import pathlib
import sys

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "system"))

EARS = "ears"


def arguments(description, seconds):
    """The parser that every one of them starts from; ``seconds`` is the default duration."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", default=ROOT / "build", type=pathlib.Path,
                        help="folder of the built programs (build)")
    parser.add_argument("--seconds", type=float, default=seconds, help=f"({seconds:g})")
    parser.add_argument("--csv", type=pathlib.Path, default=None,
                        help="where the table goes (standard output)")
    return parser


def name_programs(build):
    """Tells the harness where the programs are."""
    build = build.resolve()
    os.environ.update(VELANTRIX_SERVER=str(build / "VelantrixServer"),
                      VELANTRIX_LISTEN=str(build / "velantrix-listen"),
                      VELANTRIX_FAKES=str(build / "tests" / "fakes"))


class Table:
    """Rows of comma-separated values, each written at once. A context manager."""

    def __init__(self, path, columns):
        self.file = sys.stdout if path is None else open(path, "w", encoding="utf-8", newline="")
        self.writer = csv.writer(self.file, lineterminator="\n")
        self.write(columns)

    def write(self, row):
        self.writer.writerow(row)
        self.file.flush()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.file is not sys.stdout:
            self.file.close()


def prefer(*processes):
    """Lets processes go before ordinary work, where that is allowed.

    For what surrounds the client: a sound server, a relay or a server that is held up by something
    else on the machine would be measured in the client's place.
    """
    for process in processes:
        for task in os.listdir(f"/proc/{process.pid}/task"):
            try:
                os.sched_setscheduler(int(task), os.SCHED_RR, os.sched_param(5))
            except OSError:
                return


def add_ears(sound, name=EARS):
    """A null sink for a client to play into; returns the variables that lead there."""
    sound.control("load-module", "module-null-sink", f"sink_name={name}", "rate=48000",
                  "channels=2", "format=s16le")
    return dict(sound.env, PULSE_SINK=name)


def processor_seconds(pid):
    """Processor time that a process has used, in seconds."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_megabytes(pid):
    """Resident memory of a process, shared libraries included."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0.0
