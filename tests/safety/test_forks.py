"""A fork of a process whose threads compute or write: the new one does the same, and ends."""

import os

import pytest

from support.exits import ends

LONG = bool(os.environ.get("QUORVANE_LONG"))
PROCESSES = 2
FORKS = 50 if LONG else 5

# The address sanitizer of older compilers does not take its own locks before a fork: one that
# another thread holds just then is held for ever in the new process.
pytestmark = pytest.mark.skipif(
    "libasan" in os.environ.get("LD_PRELOAD", ""), reason="the sanitizer's locks do not pass a fork"
)

WAYS = [
    "leaving_at_once",
    "leaving_the_interpreter",
    "in_the_middle_of_a_day",
    "by_multiprocessing",
]


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize(
    "work", ["baskets_and_children", "whole_histories", "directory_checkpoints"]
)
def test_a_forked_process_does_its_work_and_ends_with_its_status(exits, tmp_path, work, way):
    pytest.importorskip("msgpack")
    outcomes = exits.outcomes(
        "fork_while_threads_work", tmp_path, range(PROCESSES), work=work, way=way, times=FORKS
    )
    assert ends(outcomes) == [(0, "")] * PROCESSES
