"""Whatever is left behind at the end of a program still computes the same, and then goes."""

import os

import pytest

from support.exits import ends

EXITS = 40 if os.environ.get("QUORVANE_LONG") else 2

# What is left behind, and how often it tells of what it has computed.
LEFT_BEHIND = {
    "rotation_in_a_global": 1,
    "rotation_in_a_cycle": 1,
    "rotation_in_an_attribute_of_its_class": 1,
    "days_in_a_weak_references_finalizer": 1,
    "days_at_exit": 1,
    "days_at_exit_while_threads_compute": 1,
    "checkpoints_at_exit": 1,
    "threads_that_are_waited_for": 2,
    "views_of_a_day": 1,
}


@pytest.mark.parametrize("what", LEFT_BEHIND)
def test_what_is_left_behind_computes_the_same(exits, tmp_path, what):
    if what == "checkpoints_at_exit":
        pytest.importorskip("msgpack")
    outcomes = exits.outcomes("leave_behind", tmp_path, range(EXITS), what=what)
    assert ends(outcomes) == [(0, "")] * EXITS
    for seed in range(EXITS):
        told = (tmp_path / str(seed) / "told").read_text()
        assert told.split() == ["same"] * LEFT_BEHIND[what]
