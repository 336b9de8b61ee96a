"""What every rotation over time does with its memory, and what is done to it behind its back."""

import copy
import pickle

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean, ExponentialStd
from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from quorvane.functions.rotations.longitudinal.rolling import RollingMean, RollingStd, RollingZScore
from support.series import random_rows, same_bits

WINDOW = 5
MAKERS = {
    "mean": lambda columns: RollingMean(WINDOW, 2, N_alloc=columns),
    "deviation": lambda columns: RollingStd(WINDOW, 2, N_alloc=columns),
    "distance": lambda columns: RollingZScore(WINDOW, 2, N_alloc=columns),
    "exponential mean": lambda columns: ExponentialMean(0.9, N_alloc=columns),
    "exponential deviation": lambda columns: ExponentialStd(0.9, N_alloc=columns),
    "delay": lambda columns: Delay(WINDOW, N_alloc=columns),
    "difference": lambda columns: Diff(WINDOW, N_alloc=columns),
}
EVERY = pytest.mark.parametrize("make", MAKERS.values(), ids=MAKERS.keys())


def run(rotation, rows):
    return np.array([rotation(row) for row in rows]).reshape(np.shape(rows))


def same_states(left, right):
    left, right = left.get_state(), right.get_state()
    rest = [{key: state[key] for key in ("arguments", "position")} for state in (left, right)]
    return rest[0] == rest[1] and same_bits(left["memory"], right["memory"])


# ---- states -------------------------------------------------------------------------------------


@EVERY
def test_a_restored_state_goes_on_to_the_bit(make):
    rows = random_rows(7, days=40, columns=23)
    expected = run(make(23), rows)
    for days in range(3 * WINDOW):
        first, second = make(23), make(23)
        run(first, rows[:days])
        second.set_state(copy.deepcopy(first.get_state()))
        assert same_bits(run(second, rows[days:]), expected[days:])
        assert same_bits(run(pickle.loads(pickle.dumps(first)), rows[days:]), expected[days:])
        assert same_bits(run(copy.deepcopy(first), rows[days:]), expected[days:])


@EVERY
def test_the_state_is_a_copy_both_ways(make):
    rotation, other = make(2), make(2)
    run(rotation, [[1.0, 2.0], [3.0, np.nan]])
    state = rotation.get_state()
    assert set(state) == {"arguments", "memory", "position"}
    other.set_state(state)
    state["memory"][:] = 99.0
    assert same_states(rotation, other)
    rotation([5.0, 6.0])
    other([5.0, 6.0])
    assert (state["memory"] == 99.0).all()
    assert same_states(rotation, other)


@EVERY
def test_a_state_in_another_order_in_memory_is_the_same(make):
    rotation, other = make(3), make(3)
    run(rotation, random_rows(1, days=7, columns=3))
    state = rotation.get_state()
    state["memory"] = np.asfortranarray(state["memory"])
    other.set_state(state)
    assert same_states(rotation, other)
    state["memory"] = state["memory"].tolist()
    other.set_state(state)
    assert same_states(rotation, other)


@pytest.mark.parametrize(
    ("change", "message"),
    [
        (lambda state: [], "must be a dict with the keys"),
        (lambda state: {}, "must be a dict with the keys"),
        (lambda state: {**state, "more": 1}, "must be a dict with the keys"),
        (
            lambda state: {**state, "arguments": {}},
            r"state\['arguments'\] must be \{.*\}, got \{\}",
        ),
        (lambda state: {**state, "memory": np.zeros((1, 3))}, r"\['memory'\] must have shape"),
        (lambda state: {**state, "memory": np.zeros(3)}, r"\['memory'\] must have shape"),
        (lambda state: {**state, "memory": None}, r"\['memory'\] must have shape"),
        (lambda state: {**state, "memory": "abc"}, "could not convert"),
        (lambda state: {**state, "position": -1}, r"\['position'\] must be an int from 0 on"),
        (lambda state: {**state, "position": True}, r"\['position'\] must be an int from 0 on"),
        (lambda state: {**state, "position": 0.0}, r"\['position'\] must be an int from 0 on"),
        (lambda state: {**state, "position": 10**30}, r"\['position'\] must be (below|0)"),
    ],
)
@EVERY
def test_a_state_that_does_not_fit_changes_nothing(make, change, message):
    rotation, before = make(3), make(3)
    for each in (rotation, before):
        run(each, [[1.0, 2.0, np.nan], [2.0, 3.0, 4.0]])
    with pytest.raises(ValueError, match=message):
        rotation.set_state(change(rotation.get_state()))
    assert same_states(rotation, before)
    assert same_bits(rotation([3.0, 3.0, 3.0]), before([3.0, 3.0, 3.0]))


@pytest.mark.parametrize("cls", [RollingMean, RollingStd, RollingZScore])
def test_a_window_with_an_infinity_is_no_state(cls):
    rotation = cls(3, N_alloc=2)
    state = rotation.get_state()
    state["memory"][1, 1] = np.inf
    with pytest.raises(ValueError, match="must hold no infinity"):
        rotation.set_state(state)
    with pytest.raises(ValueError, match=r"state\['position'\] must be below 3, got 3"):
        rotation.set_state({**rotation.get_state(), "position": 3})


@EVERY
def test_is_stateful(make):
    assert make(2).stateful is True
    assert isinstance(type(make(2)).stateful, property)


# ---- resize and forget --------------------------------------------------------------------------


@EVERY
def test_resize_keeps_the_columns_that_stay(make):
    rows = random_rows(3, days=30, columns=6)
    rotation, narrow, late = make(6), make(4), make(6)
    run(rotation, rows[:13])
    run(narrow, rows[:13, :4])
    run(late, np.full((13, 6), np.nan))
    rotation.resize(4)
    assert same_states(rotation, narrow)
    assert same_bits(run(rotation, rows[13:20, :4]), run(narrow, rows[13:20, :4]))
    rotation.resize(6)
    run(late, np.full((7, 6), np.nan))
    out = run(rotation, rows[20:])
    assert same_bits(out[:, :4], run(narrow, rows[20:, :4]))
    assert same_bits(out[:, 4:], run(late, rows[20:])[:, 4:])


@pytest.mark.parametrize(("size", "error"), [(0, ValueError), (True, TypeError), (2.0, TypeError)])
@EVERY
def test_a_bad_resize_changes_nothing(make, size, error):
    rotation, before = make(2), make(2)
    for each in (rotation, before):
        each([1.0, 2.0])
    with pytest.raises(error, match="new_N_alloc must be a positive int"):
        rotation.resize(size)
    assert same_states(rotation, before)


@EVERY
def test_a_forgotten_column_has_seen_nothing(make):
    rows = random_rows(5, days=33, columns=5)
    for days in range(1, 14):
        rotation, without = make(5), make(5)
        run(rotation, rows[:days])
        seen = rows[:days].copy()
        seen[:, [1, 4]] = np.nan
        run(without, seen)
        rotation.forget([4, 1])
        assert np.isnan(rotation.get_state()["memory"][:, [1, 4]]).all()
        assert same_bits(run(rotation, rows[days:]), run(without, rows[days:]))


@pytest.mark.parametrize("slots", [[0, 5], [-1], [1, 10**30]])
@EVERY
def test_columns_that_are_not_there_cannot_be_forgotten(make, slots):
    rotation, before = make(5), make(5)
    for each in (rotation, before):
        each(np.arange(5.0))
    with pytest.raises(IndexError, match="slots must be from 0 to 4, got"):
        rotation.forget(slots)
    assert same_states(rotation, before)


@EVERY
def test_nothing_may_be_forgotten(make):
    rotation, before = make(5), make(5)
    for each in (rotation, before):
        each(np.arange(5.0))
    for nothing in ([], (), range(0)):
        rotation.forget(nothing)
    assert same_states(rotation, before)


STEPS = st.one_of(
    st.tuples(st.just("days"), st.integers(0, 2 * WINDOW)),
    st.tuples(st.just("forget"), st.sets(st.integers(0, 3), max_size=3)),
    st.tuples(st.just("resize"), st.integers(4, 6)),
    st.tuples(st.just("restore"), st.none()),
    st.tuples(st.just("derive"), st.none()),
)


@settings(max_examples=50, deadline=None)
@given(make=st.sampled_from(list(MAKERS.values())), steps=st.lists(STEPS, max_size=12))
def test_what_follows_from_the_memory_is_made_anew_to_the_bit(make, steps):
    """The first four columns of a rotation to which all happens, and each of them by itself."""
    rng = np.random.default_rng(len(steps))
    rotation, alone = make(4), [make(1) for _ in range(4)]
    columns, days_so_far = 4, 0
    for kind, argument in [*steps, ("days", 2 * WINDOW)]:
        if kind == "days":
            for _ in range(argument):
                row = rng.choice([np.nan, np.inf, 0.1, 1e8, *rng.normal(size=6)], size=columns)
                out = rotation(row)
                days_so_far += 1
                for i in range(4):
                    assert same_bits(alone[i](row[i : i + 1]), out[i : i + 1])
        elif kind == "forget":
            rotation.forget(sorted(argument))
            for i in argument:
                alone[i] = make(1)
                run(alone[i], np.full((days_so_far, 1), np.nan))
        elif kind == "resize":
            rotation.resize(argument)
            columns = argument
        elif kind == "restore":
            rotation.set_state(rotation.get_state())
        else:
            rotation._derive(0, columns)


# ---- days that are not plain --------------------------------------------------------------------


@EVERY
def test_columns_that_are_not_there_today_have_no_number(make):
    rows = random_rows(2, days=24, columns=150)
    wide, padded = make(150), make(150)
    for day, row in enumerate(rows):
        present = 150 if day % 3 else 40
        filled = row.copy()
        filled[present:] = np.nan
        assert same_bits(wide(row[:present]), padded(filled)[:present])
    assert same_states(wide, padded)


@EVERY
def test_columns_that_are_left_out_count_as_missing(make, make_context):
    rotation, left_out = make(6), make(6)
    rows = random_rows(9, days=20, columns=6)
    mask = (np.random.default_rng(1).random(rows.shape) < 0.7).astype(np.uint8)
    for day, row in enumerate(rows):
        expected = rotation(np.where(mask[day], row, np.nan))
        assert same_bits(left_out(row.copy(), context=make_context(mask, day)), expected)


LAYOUTS = {
    "strided": lambda row: np.repeat(row, 2)[::2],
    "backwards": lambda row: row[::-1].copy()[::-1],
    "misaligned": lambda row: np.frombuffer(b"x" + row.tobytes(), offset=1, dtype=np.float64),
    "other bytes": lambda row: row.astype(">f8"),
    "list": lambda row: row.tolist(),
    "read-only": lambda row: np.frombuffer(row.tobytes()),
}


@pytest.mark.parametrize("layout", LAYOUTS.values(), ids=LAYOUTS.keys())
@EVERY
def test_a_row_may_lie_in_memory_as_it_likes(make, layout):
    rows = random_rows(6, days=14, columns=13)
    rotation, plain = make(13), make(13)
    for row in rows:
        assert same_bits(rotation(layout(row)), plain(row))
    assert same_states(rotation, plain)


@pytest.mark.parametrize(
    "output",
    [
        np.zeros(13, ">f8"),
        np.zeros(26)[::2],
        np.zeros(13 * 8 + 1, np.uint8)[1:].view(np.float64),
        np.zeros(20),
    ],
    ids=["other bytes", "strided", "misaligned", "longer"],
)
@EVERY
def test_an_output_may_lie_in_memory_as_it_likes(make, output):
    rotation, plain = make(13), make(13)
    for row in random_rows(6, days=14, columns=13):
        assert rotation.compute((row,), None, None, output, 13) == 0
        assert same_bits(output[:13], plain(row))
    assert same_states(rotation, plain)


@EVERY
def test_a_row_may_be_its_own_output(make):
    rotation, plain = make(13), make(13)
    for row in random_rows(6, days=14, columns=13):
        expected = plain(row.copy())
        rotation.compute((row,), None, None, row, 13)
        assert same_bits(row, expected)
    assert same_states(rotation, plain)


@EVERY
def test_a_subclass_may_do_more_than_the_class(make):
    class Doubled(type(make(1))):
        def compute(self, args, *others):
            return super().compute((2.0 * args[0],), *others)

        def __call__(self, *inputs, **options):
            return -super().__call__(*inputs, **options)

    rotation, plain = make(3), make(3)
    rotation.__class__ = Doubled
    for row in np.random.default_rng(1).normal(size=(14, 3)):
        assert same_bits(rotation(row), -plain(2.0 * row))
    assert same_states(rotation, plain)


@EVERY
def test_there_is_a_number_of_columns(make):
    with pytest.raises(TypeError, match="N_alloc must be a positive int, got None of type"):
        make(None)
    with pytest.raises(ValueError, match="N_alloc must be a positive int, got 0"):
        make(0)
    with pytest.raises((ValueError, MemoryError)):
        make(2**62)


@EVERY
def test_two_inputs_are_refused(make):
    with pytest.raises(TypeError, match="exactly one input is allowed, got 2"):
        make(2)([1.0, 2.0], [1.0, 2.0])
