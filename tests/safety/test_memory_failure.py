"""When memory runs out: MemoryError and nothing else, and what was not done is not half done."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

pytest.importorskip("_testcapi", reason="only a CPython with its test modules can fail allocations")

PROGRAM = Path(__file__).with_name("failing_allocations.py")


def run(name):
    """Run one of the programs in an interpreter of its own, with this one's import path."""
    path = os.pathsep.join(filter(None, sys.path))
    finished = subprocess.run(
        [sys.executable, "-X", "faulthandler", str(PROGRAM), name],
        env={**os.environ, "PYTHONPATH": path},
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert (finished.returncode, finished.stdout) == (0, "done\n"), finished.stderr[-4000:]


def test_only_memory_errors_come_out():
    run("every_operation")


def test_a_failed_restore_leaves_everything_as_it_was():
    run("every_restore")


def test_a_day_that_failed_does_not_show_in_the_days_after_it():
    run("days_after_a_failure")


def test_a_first_day_that_failed_does_not_show_in_the_days_after_it():
    run("first_days")


def test_an_average_does_not_remember_a_day_that_failed():
    run("child_days")
