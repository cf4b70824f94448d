"""Why a capture callback was long: the machine, the scheduler, ENet's wait, or the server itself.

A callback may wait for 1 ms at the end of each of its passes, and it may work. Everything beyond
that was done to it: the machine stood still, another program had the processor, a wait came back
late, ENet's service call began its wait anew because a datagram had come, or the same calls of the
kernel and of the encoder took more than twice their mean.

ENet waits anew only while its clock, in whole milliseconds, has not moved on since the service call
began. What it asks for by that, all its waits of a pass together, is always less than 2 ms. When
the waits asked for more, something else than ENet's repetition did, and none of it is excused.
"""

from results import milliseconds
from session import BLOCK_PERIOD_S

LIMIT_NS = BLOCK_PERIOD_S * 1e9 / 2

WAIT_NS = 1000000
"""What each pass may wait for."""

SLOW = 2
"""Times the mean of as many calls, from which on they count as slow."""

STALL, QUEUED, LATE_WAKE_UP = "machine stood still", "no processor", "late wake-up"
WAITED_AGAIN, SLOW_CALLS, OURS = "waited again", "slow calls", "ours"


TIMES = ("wall", "processor", "queued", "waited", "intended", "poll_processor", "poll_queued",
         "sending", "receiving", "encoding")
NUMBERS = ("sends", "receives", "encodes", "passes")


def work(call):
    """What it worked, and slept elsewhere than in poll."""
    processor = call["processor"] - call["poll_processor"]
    queued = call["queued"] - call["poll_queued"]
    return processor + max(0, call["wall"] - call["waited"] - processor - queued)


def first_waits(call):
    return min(call["intended"], call["passes"] * WAIT_NS)


def waits_anew(call):
    """What ENet waited for again."""
    more = call["intended"] - first_waits(call)
    return more if more < call["passes"] * WAIT_NS else 0


def excess_of_calls(call):
    """By how much calls that were slow took longer than as many do in the mean."""
    excess = 0
    for time, number, usual in (("sending", "sends", "usual_send"),
                                ("receiving", "receives", "usual_receive"),
                                ("encoding", "encodes", "usual_encode")):
        mean = call[number] * call[usual]
        excess += call[time] - mean if call[time] > SLOW * mean else 0
    return excess


def time_stood_still(call, stalls):
    return stalls.time((call["first_cpu"], call["last_cpu"]), call["entry"],
                       call["entry"] + call["wall"])


def explain(call, stalls):
    stood_still = time_stood_still(call, stalls)
    own = work(call) + call["intended"] - waits_anew(call)
    if own > LIMIT_NS:
        # The processor's clock runs on while the machine stands still.
        own -= min(stood_still, work(call))
        if own <= LIMIT_NS:
            return STALL
        return SLOW_CALLS if own - excess_of_calls(call) <= LIMIT_NS else OURS
    causes = {STALL: stood_still, QUEUED: call["queued"],
              WAITED_AGAIN: waits_anew(call),
              LATE_WAKE_UP: call["waited"] - call["intended"] - call["poll_queued"] - stood_still}
    return max(causes, key=causes.get)


def described(call, stalls, start_ns):
    """All that a cause is judged by, as columns of a row: times in ms, the entry since a start."""
    return {"entry_ms": milliseconds(call["entry"] - start_ns),
            **{name: milliseconds(call[name]) for name in TIMES},
            "stood_still": milliseconds(time_stood_still(call, stalls)),
            **{name: call[name] for name in NUMBERS}, "cause": explain(call, stalls)}
