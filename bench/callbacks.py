"""Why a capture callback was long: the machine, the scheduler, ENet's wait, or the server itself.

A callback may wait for 1 ms at the end of each of its passes, and it may work. Everything beyond
that was done to it: the machine stood still, another program had the processor, a wait came back
late, ENet's service call began its wait anew because a datagram had come, or the same calls of the
kernel and of the encoder took more than twice their mean.
"""

from session import BLOCK_PERIOD_S

LIMIT_NS = BLOCK_PERIOD_S * 1e9 / 2

WAIT_NS = 1000000
"""What each pass may wait for."""

SLOW = 2
"""Times the mean of as many calls, from which on they count as slow."""

STALL, QUEUED, LATE_WAKE_UP = "machine stood still", "no processor", "late wake-up"
WAITED_AGAIN, SLOW_CALLS, OURS = "waited again", "slow calls", "ours"


def work(call):
    """What it worked, and slept elsewhere than in poll."""
    processor = call["processor"] - call["poll_processor"]
    queued = call["queued"] - call["poll_queued"]
    return processor + max(0, call["wall"] - call["waited"] - processor - queued)


def first_waits(call):
    return min(call["intended"], call["passes"] * WAIT_NS)


def excess_of_calls(call):
    """By how much calls that were slow took longer than as many do in the mean."""
    excess = 0
    for time, number, usual in (("sending", "sends", "usual_send"),
                                ("receiving", "receives", "usual_receive"),
                                ("encoding", "encodes", "usual_encode")):
        mean = call[number] * call[usual]
        excess += call[time] - mean if call[time] > SLOW * mean else 0
    return excess


def explain(call, stalls):
    stood_still = stalls.time((call["first_cpu"], call["last_cpu"]), call["entry"],
                              call["entry"] + call["wall"])
    own = work(call) + first_waits(call)
    if own > LIMIT_NS:
        # The processor's clock runs on while the machine stands still.
        own -= min(stood_still, work(call))
        if own <= LIMIT_NS:
            return STALL
        return SLOW_CALLS if own - excess_of_calls(call) <= LIMIT_NS else OURS
    causes = {STALL: stood_still, QUEUED: call["queued"],
              WAITED_AGAIN: call["intended"] - first_waits(call),
              LATE_WAKE_UP: call["waited"] - call["intended"] - call["poll_queued"] - stood_still}
    return max(causes, key=causes.get)


def ours(causes):
    return sum(cause == OURS for cause in causes)
