"""Runs the system tests in a private network, and fails when a sanitizer finds something."""

import os
import pathlib
import tempfile
import unittest.case

import pytest

from support.network import enter_private_network

# A sanitizer's report goes to a file of its own, not to standard error, which the server may have
# turned away and where a test expects lines of the program's. Without sanitizers nobody reads these.
VARIABLES = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")

_folder = None


def collect_reports():
    """From now on, reports of the processes that are started come here."""
    global _folder
    _folder = tempfile.TemporaryDirectory(prefix="velantrix-sanitizers-")
    # Also for a program that has given root's rights up.
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


def pytest_configure(config):
    if not config.option.collectonly:
        enter_private_network()
        collect_reports()


def _fail_with_reports():
    reports = take_reports()
    if reports:
        # Of several failures of a test's end only the first is shown, but all that was printed.
        print(*reports, sep="\n")
        pytest.fail("a sanitizer reports what is printed", pytrace=False)


@pytest.fixture(autouse=True)
def _reports_of_a_test():
    yield
    _fail_with_reports()


@pytest.fixture(autouse=True, scope="module")
def _reports_of_what_a_module_shares():
    yield
    unittest.case.doModuleCleanups()  # pytest does it neither for setUpModule nor for others.
    _fail_with_reports()
