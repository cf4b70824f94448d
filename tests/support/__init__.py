"""Shared by the tests and benchmarks in Python.

With ``tests/`` on the module path: ``from support.harness import Server``. pytest.ini puts it there
for the system tests; other programs do it themselves.
"""
