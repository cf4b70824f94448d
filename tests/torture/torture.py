"""Runs one session of the server again and again, each time with another call failing.

A session: start, a discovery query of each form, two streaming clients, a version check against a
small web server, shutdown. First some sessions without a failure, with and without an address for
the server, count the fallible calls that the server, ENet and Opus make, by site (function and way
to it). Then one session for each of the chosen calls lets that call fail. What it may lead to is in
torture_judge.py: mostly nothing, so that both clients hear and the server ends with status 0; no
crash, no hang, no block and no descriptor leaked. Functions that never fail here are in
torture_imports.py, each with its reason.

Usage: torture.py [--every] [--random N] [--seed S] [--function NAME]... [--only HASH:N] [--verbose]
Calls chosen: of every site the first, the second and the one in the middle, or with --every all
that the sessions without a failure had in common. Sites that only some of these sessions came by
are listed; but with --random the first call of each is tried, too, and may not be reached.
Everything runs in a private network. VELANTRIX_SERVER and VELANTRIX_FAKES as for the system tests,
VELANTRIX_CAPTURE is the paced capture library.
"""

import argparse
import collections
import dataclasses
import pathlib
import random
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from support.harness import fake, program  # noqa: E402
from support.network import enter_private_network  # noqa: E402
from support.version_server import VersionServer  # noqa: E402
from torture_imports import forgotten  # noqa: E402
from torture_judge import FATAL, Judge  # noqa: E402
from torture_session import ANYWHERE, AT_AN_ADDRESS, run_session  # noqa: E402

ATTEMPTS = 3
MAX_UNREACHED = 0.05  # Share of the chosen calls.
# Effects of a busy machine: then a second session decides. A line on standard error is lost when it
# comes while that is turned off for the sound library's start.
PERHAPS_TIMING = ("the clients", "the queries", "the failure", "the version check", "blocks",
                  "descriptors", "it takes")
NOT_REACHED, OTHER_NOT_REACHED = "not reached", "at a site of some sessions not reached"


@dataclasses.dataclass(frozen=True)
class Call:
    """A call that must fail, in a session like those that `judge` knows."""

    judge: Judge
    number: int  # The site's hash.
    count: int  # The count-th call there.

    @property
    def name(self):
        return f"{self.number:x}:{self.count}"

    @property
    def site(self):
        return self.judge.sites[self.number]

    @property
    def common(self):
        return self.number in self.judge.common_sites()


def by_function(sites):
    return sorted(sites.items(), key=lambda item: (item[1].function, item[0]))


def calls_of(judge, sites, every):
    """All calls that must fail."""
    for number, site in by_function(sites):
        few = {1, min(2, site.calls), max(1, site.calls // 2)}
        for count in range(1, site.calls + 1) if every else sorted(few):
            yield Call(judge, number, count)


def tell_others(judge, sites):
    """Lists the sites that depend on time."""
    for number, site in by_function(sites):
        print(f"only {judge.sessions[number]} sessions came by {number:x} {site.function} "
              f"({site.way})", flush=True)


def all_calls(judges, options):
    """The calls that can be chosen: each site with the first judge that knows it."""
    known, calls = set(), []
    for judge in judges:
        common, others = ({number: site for number, site in sites.items() if number not in known}
                          for sites in (judge.common_sites(), judge.other_sites()))
        known.update(common, others)
        print(f"started with {' '.join(judge.arguments) or 'no address'}: "
              f"{sum(site.calls for site in common.values())} fallible calls at {len(common)} "
              "sites", flush=True)
        tell_others(judge, others)
        calls += calls_of(judge, common, options.every)
        if not options.random:
            calls += [Call(judge, number, 1) for number, _ in by_function(others)]
    return calls


def choose(judges, options):
    calls = all_calls(judges, options)
    if options.function:
        calls = [call for call in calls if call.site.function in options.function]
    if options.random:
        print(f"seed {options.seed}: {options.random} of {len(calls)} calls", flush=True)
        calls = random.Random(options.seed).sample(calls, min(options.random, len(calls)))
    if options.only:
        number, count = options.only.split(":")
        knowing = [judge for judge in judges if int(number, 16) in judge.sites]
        calls = [Call(judge, int(number, 16), int(count)) for judge in knowing[:1]]
    if not calls:
        sys.exit("no session without a failure makes such a call")
    return calls


def report(name, call, outcome, complaint, verbose):
    if complaint is None and outcome.faults and not verbose:
        return
    print(f"{name} {call.site.function} ({call.site.way}): status {outcome.status}, packets "
          f"{outcome.packets}: {complaint or ('ok' if outcome.faults else NOT_REACHED)}",
          flush=True)
    if complaint is not None or verbose:
        for line in call.judge.new_lines(outcome):
            print(f"    {line}", flush=True)


def run_until_reached(web, call):
    """Which calls a session makes depends on time a little: one may come without this call."""
    for _ in range(ATTEMPTS):
        outcome = run_session(web, call.judge.arguments, call.name, len(call.judge.descriptors))
        if outcome.faults:
            break
    return outcome


def try_call(web, call, verbose):
    """Makes one call fail; returns the result."""
    outcome = run_until_reached(web, call)
    complaint = call.judge.complaint(outcome, call.number)
    if complaint is not None and complaint.startswith(PERHAPS_TIMING):
        report(f"first try of {call.name}", call, outcome, complaint, verbose)
        outcome = run_until_reached(web, call)
        complaint = call.judge.complaint(outcome, call.number)
    report(call.name, call, outcome, complaint, verbose)
    if complaint is not None:
        return "found wrong"
    if not outcome.faults:
        return NOT_REACHED if call.common else OTHER_NOT_REACHED
    return "reported, status 255" if outcome.status == FATAL else "went on"


def torture(options, web):
    if names := forgotten(fake("torture.so"), program("VELANTRIX_SERVER")):
        print(f"neither made to fail nor excused in torture_imports.py: {', '.join(names)}")
        return 1
    calls = choose([Judge(web, arguments) for arguments in (AT_AN_ADDRESS, ANYWHERE)], options)
    endings = collections.Counter(try_call(web, call, options.verbose) for call in calls)
    print(", ".join(f"{count} {what}" for what, count in sorted(endings.items())), flush=True)
    if endings[NOT_REACHED] > MAX_UNREACHED * len(calls):
        print("too many calls were not reached", flush=True)
        return 1
    return 1 if endings["found wrong"] else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--every", action="store_true", help="every call, not up to three a site")
    parser.add_argument("--random", type=int, default=0, help="only so many calls")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--function", action="append", help="only calls of this function")
    parser.add_argument("--only", help="one call, as reported: HASH:N")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    enter_private_network()
    with VersionServer() as web:
        web.answer(body="9.9\n")
        return torture(options, web)


if __name__ == "__main__":
    sys.exit(main())
