"""The paced capture, which replaces the sound library, and its table."""

import mmap
import struct

REMEMBERED = 1 << 16
COUNTERS_AT = 2 * REMEMBERED * 8 + 8  # Behind the first sequence numbers, see capture_table.h.
COUNTER_NAMES = ("callbacks", "processor_ns", "sends", "receives", "polls", "encode_ns")


def capture_environment(library, table, **more):
    """Variables for a server on the paced capture; ``table`` is the path of the file it makes."""
    return {"LD_PRELOAD": str(library), "PACED_CAPTURE_TABLE": str(table),
            "VELANTRIX_SERVER_SAMPLE_RATE": "48000", **more}


def counters(table):
    """The counts until now by name; none before the capture has made its table."""
    try:
        with open(table, "rb") as file, mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ) as content:
            values = struct.unpack_from(f"<{len(COUNTER_NAMES)}q", content, COUNTERS_AT)
    except (OSError, ValueError):
        return None
    return dict(zip(COUNTER_NAMES, values))
