"""Instructions counted by callgrind, by whose code they are in."""

import re
import subprocess
import tempfile
from pathlib import Path

CALLS = 200
PROCESS_BUFFER = "processBuffer(char*, int, bool)*"  # With whatever the optimiser appends.
SHARES = (("ENet", "libenet"), ("Opus", "libopus"),
          ("libc", r"libc\.so|libm\.so|ld-linux|libpthread"),
          ("Qt", "libQt5|libicu|libfontconfig|libfreetype|libharfbuzz|libqoffscreen"))


def callgrind(program, arguments, function):
    """{share: instructions} spent in the function and what it calls, all its calls together."""
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "callgrind.out"
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}",
             "--compress-strings=no", "--compress-pos=no", f"--toggle-collect={function}",
             program, *arguments],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        return read(output.read_text(encoding="ascii", errors="replace"), str(program))


def read(text, program):
    """Sums the cost lines by object file; the line behind a `calls=` is what the callee cost."""
    sums, share, skip = {}, "other", False
    for line in text.splitlines():
        if line.startswith("ob="):
            share = share_of(line[3:], program)
        elif line.startswith("calls="):
            skip = True
        elif re.match(r"[0-9+*-]", line):
            if not skip:
                sums[share] = sums.get(share, 0) + int(line.split()[1])
            skip = False
    return sums


def share_of(path, program):
    if path == program or path.endswith(Path(program).name):
        return "ours"
    return next((name for name, pattern in SHARES if re.search(pattern, path)), "other")


def counts_of(program, which):
    """{share: instructions} of one processBuffer call, "raw" or "compressed", with ten clients.

    `program` is instruction_count.
    """
    sums = callgrind(program, [which, str(CALLS)], PROCESS_BUFFER)
    return {name: value / CALLS for name, value in sums.items()}


def stream_rows(build):
    """(call, {share: instructions of one call}) of processBuffer with ten clients."""
    for which in ("raw", "compressed"):
        yield which, counts_of(build / "instruction_count", which)
