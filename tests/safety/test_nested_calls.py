"""Whatever is nested in itself ends in RecursionError, in every stack: never in a crash."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

PROGRAM = Path(__file__).with_name("nested_calls.py")
USUAL = 0
SMALL = 1 << 20
LARGE = 128 << 20
# Python's smallest, and more for interpreters that need more. The frames that sanitizers watch are
# several times as large.
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
SMALLEST = [kibibytes << (12 if SANITIZED else 10) for kibibytes in (32, 48, 64, 96, 128, 256)]
NESTING = [
    "rotations_that_reach_themselves",
    "many_rotations_in_one_another",
    "through_a_hook",
    "through_what_is_converted",
    "through_a_factory",
    "through_a_sink_and_a_store",
    "every_operation",
]


def finished(size, program):
    """Run one of the programs in an interpreter of its own, with this one's import path."""
    # In a thread the interpreter's own limit is lifted, so that the room alone ends the calls.
    limit = 10**6 if size else 0
    path = os.pathsep.join(filter(None, sys.path))
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", str(PROGRAM), str(size), str(limit), program],
        env={**os.environ, "PYTHONPATH": path},
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )


def run(size, program):
    done = finished(size, program)
    assert (done.returncode, done.stdout) == (0, "done\n"), done.stderr[-4000:]


@pytest.mark.skipif(SANITIZED, reason="the sanitizers need files themselves")
def test_the_main_thread_needs_no_file_to_know_its_stack():
    run(USUAL, "where_no_file_can_be_opened")


@pytest.fixture(scope="module")
def smallest():
    """The smallest stack of a thread in which the same days run in plain Python."""
    return next(size for size in SMALLEST if not finished(size, "days_in_plain_python").returncode)


@pytest.mark.parametrize("program", NESTING)
@pytest.mark.parametrize("size", [USUAL, SMALL], ids=["usual", "small"])
def test_nothing_overruns_the_stack(size, program):
    run(size, program)


@pytest.mark.parametrize("program", NESTING)
def test_nothing_overruns_the_smallest_stack(smallest, program):
    run(smallest, program)


def test_days_run_in_a_large_stack():
    run(LARGE, "days_of_the_module")


def test_days_run_in_the_smallest_stack_that_plain_python_runs_in(smallest):
    run(smallest, "days_of_the_module")
