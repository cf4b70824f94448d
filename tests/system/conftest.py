"""Runs the system tests in a private network, and fails when a sanitizer finds something."""

import unittest.case

import pytest

from support.network import enter_private_network
from support.sanitizers import collect_reports, take_reports


def pytest_configure(config):
    if not config.option.collectonly:
        enter_private_network()
        collect_reports()


def _fail_with_reports():
    reports = take_reports()
    if reports:
        pytest.fail("a sanitizer reports:\n" + "\n".join(reports), pytrace=False)


@pytest.fixture(autouse=True)
def _reports_of_a_test():
    yield
    _fail_with_reports()


@pytest.fixture(autouse=True, scope="module")
def _reports_of_what_a_module_shares():
    yield
    unittest.case.doModuleCleanups()  # pytest does it neither for setUpModule nor for others.
    _fail_with_reports()
