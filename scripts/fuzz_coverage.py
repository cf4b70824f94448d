"""Prints the coverage of fuzz targets, from what scripts/fuzz-coverage has left, as a table.

Usage: fuzz_coverage.py REPOSITORY BUILD TARGET...
"""

import json
import pathlib
import sys

# What each target is about: the files that take foreign bytes apart, and those that have to live
# with the outcome.
FILES = {
    "audio_packet": ("listen/audio_packet.cpp", "listen/sequence_tracker.cpp",
                     "listen/stream_decoder.cpp", "listen/timeline.cpp", "listen/playout.cpp",
                     "listen/jitter_buffer.cpp"),
    "control_message": ("stream/client_table.cpp",),
    "datagram_guard": ("stream/datagram_guard.cpp", "stream/command_cost.cpp",
                       "stream/stuck_peers.cpp", "stream/event_backlog.cpp"),
    "discovery_datagram": ("discovery/multi_host.cpp", "discovery/query.cpp"),
    "settings_file": ("gui/Settings.cpp",),
    "start_values": ("app/command_line.cpp", "discovery/query.cpp", "update/web_address.cpp"),
    "version_page": ("update/version_page.cpp", "update/WebIf.cpp"),
}


def figures(path, repository):
    """(lines, branches) by file, each as llvm-cov's summary of it."""
    files = json.loads(path.read_text(encoding="utf-8"))["data"][0]["files"]
    return {str(pathlib.Path(file["filename"]).relative_to(repository)):
            (file["summary"]["lines"], file["summary"]["branches"])
            for file in files if file["filename"].startswith(f"{repository}/")}


def share(counted):
    return f"{counted['covered']} of {counted['count']}" if counted["count"] else "-"


def rows(repository, build, target):
    seeds, everything = (figures(build / f"{target}-{inputs}.json", repository)
                         for inputs in ("seeds", "all"))
    for name in FILES[target]:
        if name not in everything:
            sys.exit(f"{target} does not contain {name}")
        cells = [share(counted) for pair in zip(seeds[name], everything[name]) for counted in pair]
        yield f"| `{target}` | `{name}` | {' | '.join(cells)} |"


def main():
    repository, build = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    targets = sys.argv[3:]
    if unknown := set(targets) - set(FILES):
        sys.exit(f"say which files these targets are about: {', '.join(sorted(unknown))}")
    print("| Target | File | Lines: seeds | with what was learnt | Branches: seeds "
          "| with what was learnt |")
    print("|---|---|---:|---:|---:|---:|")
    for target in targets:
        print("\n".join(rows(repository, build, target)))


if __name__ == "__main__":
    main()
