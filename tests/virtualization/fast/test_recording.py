"""Days of every style, with any of an item's steps overridden, are those of plain Python."""

import itertools

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from adversary.actions.tampering import WAYS
from virtualization.fast.styles import REPORTS, STEPS, STYLES, Recorded, passes


class Custom:
    """An object that is nobody's own kind, and counts as true."""


def changes_the_record(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.value = record.value * 2.0
        record.metadata = {**record.metadata, "seen": step}
    return answer


def changes_the_metadata_in_place(step, answer, structure):
    if step == "_structure_is_valid":
        structure.metadata["seen"] = [len(structure.legs)]
    return answer


def leaves_small_ones_no_metadata(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key" and record.value < 2.0:
        record.metadata = None
    return answer


def says_another_key(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.metadata = {"key": ("another",), "legs": record.legs}
    return answer


def says_key_and_legs_the_other_way_round(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key":
        record.metadata = {"legs": record.legs, "key": record.key}
    return answer


def takes_the_value_of_small_ones(step, answer, structure):
    record = structure if step == "_structure_is_valid" else answer
    if step != "_slot_for_key" and record.value < 2.0:
        del record.value
    return answer


def takes_the_key_of_small_ones(step, answer, structure):
    if step == "_structure_is_valid" and structure.value < 2.0:
        del structure.key
    return answer


def gives_other_legs(step, answer, structure):
    if step == "_normalize_structure":
        answer.legs = [list(leg) for leg in answer.legs]
    return answer


def answers_in_another_type(step, answer, structure):
    if step == "_slot_for_key":
        return np.int64(answer)
    if step == "_structure_is_valid":
        return Custom() if answer else 0
    return answer


def answers_in_new_objects(step, answer, structure):
    if step == "_slot_for_key":
        return int(str(answer))
    if step == "_structure_is_valid":
        return bool(answer)
    return answer


HABITS = [
    passes, changes_the_record, changes_the_metadata_in_place, leaves_small_ones_no_metadata,
    says_another_key, says_key_and_legs_the_other_way_round, takes_the_value_of_small_ones,
    takes_the_key_of_small_ones, gives_other_legs,
    answers_in_another_type, answers_in_new_objects,
]  # fmt: skip


PICKS = st.lists(st.tuples(st.integers(0, len(STYLES) - 1), st.integers(0, 4)), max_size=6)
REPORT = st.sampled_from(list(REPORTS))
PLAN = st.lists(
    st.one_of(
        st.tuples(st.just("day"), PICKS, REPORT, st.booleans()),
        st.tuples(st.just("fresh"), PICKS, REPORT),
        st.tuples(st.just("tamper"), st.sampled_from(list(WAYS)), st.integers(0, 11)),
    ),
    max_size=8,
)


@settings(max_examples=250, deadline=None, suppress_health_check=list(HealthCheck))
@given(plan=PLAN, steps=st.sets(st.sampled_from(STEPS)), habit=st.sampled_from(HABITS))
def test_days_of_every_style_are_those_of_the_twin(modules, plan, steps, habit):
    native, twin = modules
    expected = Recorded(twin, steps, habit).play(plan)
    assert Recorded(native, steps, habit).play(plan) == expected
    if "_normalize_structure" not in steps:
        assert Recorded(native, steps, habit, through_all=True).play(plan) == expected


@pytest.mark.parametrize("habit", HABITS)
@pytest.mark.parametrize("steps", [s for n in range(4) for s in itertools.combinations(STEPS, n)])
def test_each_style_among_plain_items_is_that_of_the_twin(modules, steps, habit):
    native, twin = modules
    for style in range(len(STYLES)):
        plain = [(0, i) for i in range(3)]
        picks = [plain[0], (style, 1), plain[2], (style, 3), plain[2], plain[1], (style, 1)]
        plan = [
            (kind, chosen, report)
            for report in REPORTS
            for kind, chosen in [("day", plain), ("day", picks), ("fresh", picks), ("day", plain)]
        ]
        expected = Recorded(twin, steps, habit).play(plan)
        assert Recorded(native, steps, habit).play(plan) == expected, STYLES[style].__name__
