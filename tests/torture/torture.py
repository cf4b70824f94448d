"""Runs one session of the server again and again, each time with another call failing.

A session: start, two streaming clients, a version check against a small web server, shutdown.
First some sessions without a failure count the fallible calls that the server, ENet and Opus
make, by site (function and way to it). Then one session for each of the chosen calls lets that
call fail. What it may lead to is in torture_judge.py: mostly nothing, so that both clients hear
and the server ends with status 0; no crash, no hang, no block and no descriptor leaked.

Usage: torture.py [--every] [--random N] [--seed S] [--only HASH:N] [--verbose]
Calls chosen: of every site the first, the second and the one in the middle, or with --every all
that the sessions without a failure had in common. Everything runs in a
private network. VELANTRIX_SERVER and VELANTRIX_FAKES as for the system tests, VELANTRIX_CAPTURE
is the paced capture library.
"""

import argparse
import collections
import pathlib
import random
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

from network import enter_private_network  # noqa: E402
from torture_judge import FATAL, Judge  # noqa: E402
from torture_session import run_session  # noqa: E402
from version_server import VersionServer  # noqa: E402

ATTEMPTS = 3
MOST_UNREACHED = 0.05  # Share of the chosen calls.
# What a busy machine may cause: then a second session decides. A line on standard error is lost
# when it comes while that is turned off for the sound library's start.
PERHAPS_TIMING = ("the clients", "the failure", "the version check", "blocks", "descriptors",
                  "it takes")


def chosen_calls(sites, every):
    """Every (hash, number of the call) that is to fail."""
    for number, site in sorted(sites.items(), key=lambda item: (item[1].function, item[0])):
        few = {1, min(2, site.calls), max(1, site.calls // 2)}
        for call in range(1, site.calls + 1) if every else sorted(few):
            yield number, call


def report(name, site, outcome, complaint, judge, verbose):
    if complaint is None and outcome.faults and not verbose:
        return
    print(f"{name} {site.function} ({site.way}): status {outcome.status}, packets "
          f"{outcome.packets}: {complaint or ('ok' if outcome.faults else 'not reached')}",
          flush=True)
    if complaint is not None or verbose:
        for line in judge.new_lines(outcome):
            print(f"    {line}", flush=True)


def choose(options, sites):
    calls = list(chosen_calls(sites, options.every))
    total = sum(site.calls for site in sites.values())
    print(f"{total} fallible calls at {len(sites)} sites; {len(calls)} of them can be chosen",
          flush=True)
    if options.random:
        print(f"seed {options.seed}: {options.random} of them", flush=True)
        calls = random.Random(options.seed).sample(calls, min(options.random, len(calls)))
    if options.only:
        number, call = options.only.split(":")
        calls = [(int(number, 16), int(call))]
    return calls


def run_until_reached(web, name, judge):
    """Which calls a session makes depends on time a little: one may come without this call."""
    for _ in range(ATTEMPTS):
        outcome = run_session(web, name, len(judge.descriptors))
        if outcome.faults:
            break
    return outcome


def try_call(web, number, call, judge, verbose):
    """Lets one call fail; returns what came of it."""
    name, site = f"{number:x}:{call}", judge.sites[number]
    outcome = run_until_reached(web, name, judge)
    complaint = judge.complaint(outcome, number)
    if complaint is not None and complaint.startswith(PERHAPS_TIMING):
        report(f"first try of {name}", site, outcome, complaint, judge, verbose)
        outcome = run_until_reached(web, name, judge)
        complaint = judge.complaint(outcome, number)
    report(name, site, outcome, complaint, judge, verbose)
    if complaint is not None:
        return "found wrong"
    if not outcome.faults:
        return "call not reached"
    return "reported, status 255" if outcome.status == FATAL else "went on"


def torture(options, web):
    judge = Judge(web)
    calls = choose(options, judge.common_sites())
    endings = collections.Counter(try_call(web, number, call, judge, options.verbose)
                                  for number, call in calls)
    print(", ".join(f"{count} {what}" for what, count in sorted(endings.items())), flush=True)
    if endings["call not reached"] > MOST_UNREACHED * len(calls):
        print("too many calls were not reached", flush=True)
        return 1
    return 1 if endings["found wrong"] else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--every", action="store_true", help="every call, not up to three a site")
    parser.add_argument("--random", type=int, default=0, help="only so many calls")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--only", help="one call, as reported: HASH:N")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    enter_private_network()
    with VersionServer() as web:
        web.answer(body="9.9\n")
        return torture(options, web)


if __name__ == "__main__":
    sys.exit(main())
