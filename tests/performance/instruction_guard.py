"""Instructions of one processBuffer call with ten clients, held against stored figures.

Instructions, unlike seconds, do not depend on what else the machine is doing. A change that costs
more than the slack fails, and so does one that saves more: then the stored figure is out of date,
or not all of the call was counted. After a change that is worth its cost, or an improvement, run
`instruction_guard.py PROGRAM --store` and commit the new figures.
"""

import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench"))
sys.dont_write_bytecode = True

from session import enter_private_network  # noqa: E402

CALLS = 200
FUNCTION = "processBuffer(char*, int, bool)*"  # With whatever the optimiser appends.
SLACK = 0.10
FIGURES = Path(__file__).with_name("instructions.json")


def instructions(text):
    """The sum of callgrind's cost lines; the line behind a `calls=` is what the callee cost."""
    total, skip = 0, False
    for line in text.splitlines():
        if line.startswith("calls="):
            skip = True
        elif re.match(r"[0-9+*-]", line):
            total += 0 if skip else int(line.split()[1])
            skip = False
    return total


def count(program, which):
    """Instructions of one call, "raw" or "compressed"."""
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "callgrind.out"
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}",
             "--compress-strings=no", "--compress-pos=no", f"--toggle-collect={FUNCTION}",
             program, which, str(CALLS)],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        return instructions(output.read_text(encoding="ascii", errors="replace")) / CALLS


def complaint(now, stored):
    """A message about a count that is not near the stored one, else nothing."""
    if now == 0:
        return "nothing was counted: callgrind found no function of the name"
    if now > stored * (1 + SLACK):
        return "became more expensive than the slack allows"
    if now < stored * (1 - SLACK):
        return "fell by more than the slack: store the new figure, if all of the call was counted"
    return ""


def main():
    program = Path(sys.argv[1]).resolve()
    enter_private_network()
    measured = {which: round(count(program, which)) for which in ("raw", "compressed")}
    if "--store" in sys.argv and all(measured.values()):
        FIGURES.write_text(json.dumps(measured, indent=2) + "\n", encoding="ascii")
    stored = json.loads(FIGURES.read_text(encoding="ascii"))
    found = []
    for which, now in measured.items():
        change = now / stored[which] - 1
        print(f"{which}: {now} instructions a call, stored {stored[which]} ({change:+.1%})")
        if complaint(now, stored[which]):
            found.append(f"processBuffer, {which}: {complaint(now, stored[which])}")
    if found:
        sys.exit("\n".join(found))


if __name__ == "__main__":
    main()
