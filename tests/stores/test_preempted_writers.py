"""Two writers of one record, stopped at any moment or killed: nothing is lost, nothing is to mend.

QUORVANE_LONG=1 runs many more rounds.
"""

import os
import random

import pytest

from stores.support.samples import durable_store, exactly_equal, numbered_state
from support.preemption import preempt

pytestmark = pytest.mark.plain_python

ROUNDS = 130 if os.environ.get("QUORVANE_LONG") else 4
WRITES = 8
FIRST = {"a": 1, "b": 1001}


@pytest.fixture(params=range(ROUNDS))
def generator(request):
    """Random moments, others in each round."""
    return random.Random(request.param)


@pytest.fixture
def together(tmp_path, tasks, generator):
    """Run a task twice at once; for each, how often it was acknowledged, and its exit code."""

    def together(task, arguments):
        notes = {who: tmp_path / f"acknowledged by {who}" for who in arguments}
        processes = {
            who: tasks.start(task, acknowledged=str(notes[who]), folder=str(tmp_path), **given)
            for who, given in arguments.items()
        }
        preempt([*processes.values()], generator, longest_run=0.02, longest_stop=0.03)
        codes = {who: tasks.wait(process) for who, process in processes.items()}
        assert set(codes.values()) <= {0, -9}
        return {
            who: (len(notes[who].read_bytes()) if notes[who].exists() else 0, code)
            for who, code in codes.items()
        }

    return together


def possible(ended):
    """How many writes may have happened: those acknowledged, and of the killed one more."""
    acknowledged, code = ended
    return {acknowledged} if code == 0 else {acknowledged, acknowledged + 1}


def numbers_of(kind, **options):
    return {
        who: {"kind": kind, "first": first, "last": first + WRITES - 1, **options}
        for who, first in FIRST.items()
    }


def test_every_acknowledged_version_is_there_in_its_writers_order(
    versioned_kind, tmp_path, together
):
    ended = together("write_noted", numbers_of(versioned_kind, keep=3 * WRITES))
    store = durable_store(versioned_kind, tmp_path, keep=3 * WRITES)
    versions = [entry.version for entry in store.versions("rotation")][::-1]
    assert versions == list(range(1, len(versions) + 1))
    states = [store.load("rotation", version) for version in versions]
    for who, first in FIRST.items():
        own = [state for state in states if first <= state["number"] < first + WRITES]
        assert len(own) in possible(ended[who])
        for number, state in enumerate(own, start=first):
            assert exactly_equal(state, numbered_state(number))


def test_the_file_that_was_renamed_last_stays(tmp_path, together):
    ended = together("write_noted", numbers_of("directory"))
    state = durable_store("directory", tmp_path).read("rotation")
    last = {
        first + count - 1
        for who, first in FIRST.items()
        for count in possible(ended[who])
        if count > 0
    }
    if state is not None:
        assert state["number"] in last
        assert exactly_equal(state, numbered_state(state["number"]))
    assert state is not None or all(0 in possible(one) for one in ended.values())


def test_what_a_transaction_counts_is_counted_once(versioned_kind, tmp_path, together):
    ended = together(
        "count_together", {who: {"kind": versioned_kind, "times": WRITES} for who in FIRST}
    )
    store = durable_store(versioned_kind, tmp_path)
    expected = {a + b for a in possible(ended["a"]) for b in possible(ended["b"])}
    counted = {name: store.read(name) or 0 for name in ("left", "right")}
    assert counted["left"] == counted["right"]
    assert counted["left"] in expected
    for name in store.names():
        for entry in store.versions(name):
            store.load(name, entry.version)
