"""Why a capture callback was long: the machine, the scheduler, or the server itself.

A callback may wait for 1 ms at the end of each of its passes, and it may work. Everything beyond
that was done to it: the machine stood still, another program had the processor, or a wait of 1 ms
came back late.
"""

from watch import overlaps

LIMIT_NS = 338 / 48000 * 1e9 / 2
"""Half the block period at 48 kHz."""

WAIT_NS = 1000000
"""What each pass may wait for."""

STALL, QUEUED, LATE_WAKE_UP, OURS = "machine stood still", "no processor", "late wake-up", "ours"


def own_time(call):
    """What the callback itself asked for: work, intended waits, and any wait elsewhere."""
    intended = min(call["waited"], call["passes"] * WAIT_NS)
    elsewhere = call["wall"] - call["waited"] - call["processor"] - call["queued"]
    return call["processor"] + intended + max(0, elsewhere)


def explain(call, stalls):
    # First of all, since the processor's clock runs on while the machine stands still.
    if overlaps(stalls, call["entry"], call["entry"] + call["wall"]):
        return STALL
    if own_time(call) > LIMIT_NS:
        return OURS
    return QUEUED if call["wall"] - call["queued"] <= LIMIT_NS else LATE_WAKE_UP


def ours(causes):
    return sum(cause == OURS for cause in causes)
