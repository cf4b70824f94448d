"""Reports of sanitizers in any process that a test starts.

A report goes to a file of its own, not to standard error, which the server may have turned away
and where a test expects lines of the program's. Without sanitizers nobody reads the variables.
"""

import os
import pathlib
import tempfile

VARIABLES = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")

_folder = None


def collect_reports():
    """From now on, reports of the processes that are started come here."""
    global _folder
    _folder = tempfile.TemporaryDirectory(prefix="velantrix-sanitizers-")
    # Also for a program that has dropped root's rights.
    os.chmod(_folder.name, 0o1777)
    for variable in VARIABLES:
        options = [os.environ[variable]] if os.environ.get(variable) else []
        os.environ[variable] = ":".join([*options, f"log_path={_folder.name}/report"])


def take_reports():
    """The texts of the reports since the last call."""
    texts = []
    for path in sorted(pathlib.Path(_folder.name).iterdir()) if _folder else ():
        texts.append(path.read_text(encoding="utf-8", errors="replace"))
        path.unlink()
    return texts
