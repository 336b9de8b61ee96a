"""A process ends as it was asked to, whatever its threads are computing or writing meanwhile."""

import os
import signal
from pathlib import Path

import pytest

from quorvane.stores import DirectoryStore, SqliteStore
from support.exits import ends

LONG = bool(os.environ.get("QUORVANE_LONG"))
EXITS = 24 if LONG else 4
THREADS = 3

COMPUTING = [
    "one_structure",
    "baskets_and_children",
    "whole_tables",
    "whole_histories",
    "columns_made_and_read",
    "children_alone",
    "long_restores",
    "quiet_restores",
    "python_child_and_sink",
    "errors_in_flight",
    "keys_compared_in_python",
    "one_for_all",
]
WRITING = ["directory_checkpoints", "sqlite_checkpoints"]

# The exit status, and how the last line on standard error begins. Python forgets that it was
# interrupted when another thread begins to run a text or a module just then.
ENDS = {
    "returning": {(0, "")},
    "exiting": {(3, "")},
    "failing": {(1, "RuntimeError: the end")},
    "leaving_at_once": {(4, "")},
    "terminated": {(-signal.SIGTERM, "")},
    "interrupted": {(-signal.SIGINT, "KeyboardInterrupt"), (1, "KeyboardInterrupt")},
    "terminated_by_handler": {(5, "")},
}


@pytest.mark.parametrize("way", ENDS)
@pytest.mark.parametrize("work", COMPUTING)
def test_threads_that_compute_do_not_change_the_end(exits, tmp_path, work, way):
    outcomes = exits.outcomes(
        "work_in_threads", tmp_path, range(EXITS), work=work, way=way, threads=THREADS
    )
    assert len(outcomes) == EXITS
    assert ENDS[way].issuperset(ends(outcomes))


@pytest.mark.parametrize("way", ENDS)
@pytest.mark.parametrize("work", WRITING)
def test_threads_that_write_leave_a_state_acknowledged_or_in_flight(exits, tmp_path, work, way):
    pytest.importorskip("msgpack")
    outcomes = exits.outcomes(
        "work_in_threads", tmp_path, range(EXITS), work=work, way=way, threads=THREADS
    )
    assert len(outcomes) == EXITS
    assert ENDS[way].issuperset(ends(outcomes))
    for seed in range(EXITS):
        for thread in range(THREADS + 1):
            check_store(tmp_path / str(seed), work, str(thread))


def check_store(folder, work, thread):
    """The newest state is the last acknowledged one, or the one that was being written."""
    if work == "directory_checkpoints":
        store = DirectoryStore(folder, namespace=thread)
    else:
        store = SqliteStore(folder / "s.db", namespace=thread)
    acknowledged = last_acknowledged(folder / f"acknowledged-{thread}")
    state = store.read("pairs")
    found = 0 if state is None else state["child_states"][0]["days"][0]
    assert found in (acknowledged, acknowledged + 1)


def last_acknowledged(notes):
    data = Path(notes).read_bytes() if notes.exists() else b""
    whole = len(data) - len(data) % 8
    return int.from_bytes(data[whole - 8 : whole], "little") if whole else 0
