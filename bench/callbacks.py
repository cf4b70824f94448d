"""Why a capture callback was long: the machine, the scheduler, or the server itself.

A callback may wait for 1 ms at the end of each of its passes, and it may work. Everything beyond
that was done to it: the machine stood still, another program had the processor, a wait of 1 ms came
back late, or the same calls of the kernel and of the encoder took longer than they do in the mean.
"""

LIMIT_NS = 338 / 48000 * 1e9 / 2
"""Half the block period at 48 kHz."""

WAIT_NS = 1000000
"""What each pass may wait for."""

STALL, QUEUED, LATE_WAKE_UP = "machine stood still", "no processor", "late wake-up"
SLOW_CALLS, OURS = "slow calls", "ours"


def own_time(call):
    """What the callback itself asked for: work, intended waits, and any wait elsewhere."""
    intended = min(call["waited"], call["passes"] * WAIT_NS)
    elsewhere = call["wall"] - call["waited"] - call["processor"] - call["queued"]
    return call["processor"] + intended + max(0, elsewhere)


def excess_of_calls(call):
    """By how much its system calls and encodings were slower than as many are in the mean."""
    return max(0, call["calling"] - call["calls"] * call["usual_call"]) + \
        max(0, call["encoding"] - call["encodes"] * call["usual_encode"])


def explain(call, stalls):
    span = (call["entry"], call["entry"] + call["wall"])
    # First of all, since the processor's clock runs on while the machine stands still.
    if stalls.overlap(*span):
        return STALL
    own = own_time(call)
    if own <= LIMIT_NS:
        return QUEUED if call["wall"] - call["queued"] <= LIMIT_NS else LATE_WAKE_UP
    own -= stalls.time((call["first_cpu"], call["last_cpu"]), *span)
    if own <= LIMIT_NS:
        return STALL
    return SLOW_CALLS if own - excess_of_calls(call) <= LIMIT_NS else OURS


def ours(causes):
    return sum(cause == OURS for cause in causes)
