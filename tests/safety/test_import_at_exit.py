"""The package is imported and used in a thread alone, and the program ends at any moment of it."""

import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.exits import environment

LONG = bool(os.environ.get("QUORVANE_LONG"))
EXITS = 60 if LONG else 4

# NumPy comes first: what becomes of its own import is its own concern.
PROGRAM = """
import sys, threading, time
import numpy as np

def work():
    from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
    pairs = FixedBaskets({"A": {"X": 1.0, "Y": -1.0}}, ["X", "Y"], transformation_expression="rank")
    for day in range(DAYS):
        assert pairs(np.array([1.0, 3.0 + day])).tolist() == [1.0, -1.0]
    print("worked")

sys.setswitchinterval(1e-5)
"""


def ended(last_lines):
    """Run the program in an interpreter of its own; its status and all that it said."""
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", PROGRAM + last_lines],
        env=environment(),
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
    )
    return done.returncode, done.stdout, done.stderr


def test_a_thread_may_be_the_only_one_that_imports_it():
    thread = "DAYS = 100\nthread = threading.Thread(target=work); thread.start()"
    assert ended(thread + "; thread.join()") == (0, "worked\n", "")
    assert ended(thread) == (0, "worked\n", "")


@pytest.mark.parametrize("longest_life", [0.05, 0.4], ids=["first import", "days"])
def test_the_program_ends_whatever_the_thread_is_at(longest_life):
    program = "DAYS = 10**9\nthreading.Thread(target=work, daemon=True).start()\ntime.sleep({})"
    lives = [longest_life * (turn + 1) / EXITS for turn in range(EXITS)]
    with ThreadPoolExecutor(2) as two:
        assert list(two.map(ended, map(program.format, lives))) == [(0, "", "")] * EXITS
