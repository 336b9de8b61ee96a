"""A signal's handler that raises in the middle of a call: the interrupt comes out, nothing breaks.

Days, states, stores and columns are broken into at random moments; a rotation is then as it was,
or as it was to be, or at least a restored state gives the same bits again.
"""

import os

import pytest

from support.exits import ends

LONG = bool(os.environ.get("QUORVANE_LONG"))
PROCESSES = 4 if LONG else 1
TIMES = 1000 if LONG else 100

IN_A_ROTATION = [
    "day",
    "day_with_a_python_child_and_sink",
    "batch",
    "get_state",
    "set_state",
    "columns_made",
]
IN_A_STORE = [
    "recover_from_a_directory",
    "recover_from_sqlite",
    "checkpoint_to_a_directory",
    "checkpoint_to_sqlite",
]


@pytest.mark.parametrize("what", IN_A_ROTATION)
def test_an_interrupted_call_leaves_a_state_that_can_go_on(exits, tmp_path, what):
    interrupt(exits, tmp_path, what, TIMES)


@pytest.mark.parametrize("what", IN_A_STORE)
def test_an_interrupted_store_holds_what_was_acknowledged_or_in_flight(exits, tmp_path, what):
    pytest.importorskip("msgpack")
    # Fewer, as the disk has to be waited for.
    interrupt(exits, tmp_path, what, TIMES // 4)


def interrupt(exits, folder, what, times):
    outcomes = exits.outcomes("interrupt_often", folder, range(PROCESSES), what=what, times=times)
    assert ends(outcomes) == [(0, "")] * PROCESSES
