"""Instructions of one processBuffer call with ten clients, held against stored figures.

Instructions, unlike seconds, do not depend on what else the machine is doing. A change that costs
more than the slack fails; after a change that is worth its cost, or an improvement, run
`instruction_guard.py PROGRAM --store` and commit the new figures.
"""

import json
import os
import subprocess
import sys
import tempfile
from pathlib import Path

CALLS = 200
SLACK = 0.10
FIGURES = Path(__file__).with_name("instructions.json")


def instructions_per_call(program, which):
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "callgrind.out"
        subprocess.run(
            ["unshare", "-n" if os.geteuid() == 0 else "-rn", "sh", "-c", 'ip link set lo up && exec "$@"', "sh",
             "valgrind", "--tool=callgrind", f"--callgrind-out-file={output}",
             "--toggle-collect=processBuffer(char*, int, bool)", program, which, str(CALLS)],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        for line in output.read_text(encoding="ascii", errors="replace").splitlines():
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1]) / CALLS
    raise RuntimeError("callgrind wrote no summary")


def main():
    program = sys.argv[1]
    measured = {which: round(instructions_per_call(program, which))
                for which in ("raw", "compressed")}
    if "--store" in sys.argv:
        FIGURES.write_text(json.dumps(measured, indent=2) + "\n", encoding="ascii")
    stored = json.loads(FIGURES.read_text(encoding="ascii"))
    failed = False
    for which, now in measured.items():
        change = now / stored[which] - 1
        print(f"{which}: {now} instructions a call, stored {stored[which]} ({change:+.1%})")
        failed |= change > SLACK
    if failed:
        sys.exit("processBuffer became more expensive than the slack allows")


if __name__ == "__main__":
    main()
