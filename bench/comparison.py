"""The tables about other programs, from the files that bench/peers writes."""

import csv
import sys
from pathlib import Path

from results import median

FIGURES = Path(__file__).resolve().parent / "figures"
OURS = "Velantrix Server"
BASE = "no sender"
LOSSLESS = ("raw", "FLAC")

MODULES = ("simple protocol", "PulseAudio RTP", "PipeWire RTP")
EXPLAINED = {"delay by default": ("trx", "PipeWire RTP"), "delay, short": MODULES,
             "processor, 1 client": (*MODULES, "Snapcast"), "processor, 10 clients": MODULES,
             "network, 1 client, lossless": ("Snapcast",),
             "network, 10 clients, lossless": ("PulseAudio RTP", "PipeWire RTP"),
             "memory": MODULES}
"""Programs that may have the least figure: the page's text says why."""


def rows_of(name):
    with open(FIGURES / f"{name}.csv", newline="", encoding="utf-8") as file:
        return list(csv.DictReader(file))


def table(headings, rows):
    lines = ["| " + " | ".join(headings) + " |", "|" + "---|" * len(headings)]
    return "\n".join(lines + ["| " + " | ".join(map(str, row)) + " |" for row in rows])


def label(row):
    return row["program"], row["sound"], row["setting"]


def of(rows, what, clients):
    """The rows of one program in one setting, one for each round."""
    return [row for row in rows if label(row) == what and int(row["clients"]) == clients]


def middle(rows, column):
    """The median over the rounds, None where it was not measured."""
    values = [float(row[column]) for row in rows if row[column] != ""]
    return median(values) if values else None


def sent(rows, kind):
    """`ms` or `pss` of the sending side, without what its sound server takes anyway."""
    values = [float(row[f"own_{kind}"]) + float(row[f"sound_{kind}"]) - float(row[f"base_{kind}"])
              for row in rows]
    return median(values) if values else None


def silence(rows):
    return sum(float(row["silent_ms"]) for row in rows) / sum(float(row["seconds"]) for row in rows)


def shown(value, digits=0):
    """A negative difference is noise."""
    return "" if value is None else f"{max(value, 0):.{digits}f}"


def figures():
    """A line for each program and setting, and what each column holds."""
    rows = rows_of("peers")
    for what in dict.fromkeys(map(label, rows)):
        if what[0] == BASE:
            continue
        one, ten = of(rows, what, 1), of(rows, what, 10)
        yield {"what": what, "delay": min(float(row["p50"]) for row in one),
               "longest": max(float(row["max"]) for row in one),
               "silent": silence(one),
               "ms": sent(one, "ms"), "ms_ten": sent(ten, "ms"),
               "kbit": middle(one, "kbit_out"), "kbit_ten": middle(ten, "kbit_out"),
               "pss": sent(one, "pss")}


def measured():
    return table(["program", "sound", "setting", "delay, ms", "longest, ms", "silence, ms/s",
                  "processor, 1 client, ms/s", "10 clients", "network, 1 client, kbit/s",
                  "10 clients", "memory, MB"],
                 [[*row["what"], shown(row["delay"]), shown(row["longest"]),
                   shown(row["silent"], 1), shown(row["ms"]), shown(row["ms_ten"]),
                   shown(row["kbit"]), shown(row["kbit_ten"]), shown(row["pss"])]
                  for row in figures()])


def best():
    """The least of each figure, and our own."""
    lines = list(figures())

    def line(name, column, unit, short=False, lossless=False):
        chosen = sorted((line for line in lines if line[column] is not None
                         and (short or line["what"][2] == "default")
                         and (not lossless or line["what"][1] in LOSSLESS)),
                        key=lambda line: line[column])
        first = chosen[0]
        ours = next(line for line in chosen if line["what"][0] == OURS)
        if first["what"][0] not in EXPLAINED[name]:
            sys.exit(f"docs/comparison.md does not say why {first['what'][0]} has the least in "
                     f"'{name}': change the text, and EXPLAINED in comparison.py")
        return [name, ", ".join(first["what"]), shown(first[column]) + unit,
                shown(ours[column]) + unit]

    return table(["lowest", "program", "figure", OURS], [
        line("delay by default", "delay", " ms"), line("delay, short", "delay", " ms", short=True),
        line("processor, 1 client", "ms", " ms/s"), line("processor, 10 clients", "ms_ten", " ms/s"),
        line("network, 1 client, lossless", "kbit", " kbit/s", lossless=True),
        line("network, 10 clients, lossless", "kbit_ten", " kbit/s", lossless=True),
        line("memory", "pss", " MB")])


def path():
    """The delay of the measurement itself."""
    rows = rows_of("peers")
    return table(["recorded at the source", "delay, ms", "longest, ms", "silence, ms/s"], [
        [server, shown(min(float(row["p50"]) for row in base)),
         shown(max(float(row["max"]) for row in base)), shown(silence(base), 1)]
        for server, base in ((name, of(rows, (BASE, name, ""), 0))
                             for name in ("PulseAudio", "PipeWire"))])


def commands():
    def code(text):
        return f"`{text}`".replace("|", "\\|")

    return table(["program", "sound", "setting", "sender", "client"], [
        [*label(row), code(row["sender"]), code(row["client"])] for row in rows_of("peers_commands")])


def machine():
    rows = rows_of("peers")
    loads, steal, seconds = ([float(row[column]) for row in rows]
                             for column in ("load", "steal", "seconds"))
    return ", ".join(f"{row['what']} {row['value']}" for row in rows_of("peers_machine")) + (
        f"; {len({row['round'] for row in rows})} rounds of {max(seconds):.0f} s a row; "
        f"load {min(loads):g} to {max(loads):g}, steal time {min(steal):g} to {max(steal):g} %")


TABLES = {"measured": measured, "best": best, "machine": machine}
