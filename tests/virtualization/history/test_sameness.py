"""A history that is computed at once is, to the bit, the one that is computed day by day."""

import types

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.histories import ByDays, both, leftovers, random_baskets, replayed, traced_peak
from virtualization.history.at_once import prices, rotation_of, some_baskets

EXPRESSIONS = [
    "none", "ewma(20)", "rank", "zscore", "sigmoid", "ewma(20);rank", "rank;ewma(3)",
    "ewma(2);ewma(5);zscore;rank", "zscore;sigmoid;ewma(1)",
]  # fmt: skip


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_every_chain_gives_the_same(expression, policy):
    rng = np.random.default_rng(1)
    baskets, names = random_baskets(rng, 13, 70, 4)
    for days in (1, 2, 9, 17, 18, 26, 200):
        matrix = prices(rng, days, 13, missing=0.1, infinite=0.01)
        at_once, by_days = both(
            lambda cls: rotation_of(cls, baskets, names, expression, unmap_policy=policy), matrix
        )
        assert at_once == by_days, days


@settings(max_examples=150, deadline=None)
@given(
    seed=st.integers(0, 2**32 - 1),
    days=st.integers(1, 90),
    instruments=st.integers(1, 24),
    baskets=st.integers(1, 140),
    legs=st.integers(1, 24),
    more_slots=st.integers(0, 9),
    more_columns=st.integers(0, 3),
    expression=st.sampled_from(EXPRESSIONS),
    policy=st.sampled_from(["proportional", "equal_split"]),
    missing=st.sampled_from([0.0, 0.1, 0.9, 1.0]),
    infinite=st.sampled_from([0.0, 0.05]),
    scale=st.sampled_from([1.0, 1e-300, 1e-308, 1e155, 1e308]),
    threads=st.integers(1, 3),
)
def test_random_histories_give_the_same(
    seed, days, instruments, baskets, legs, more_slots, more_columns, expression, policy, missing,
    infinite, scale, threads,
):  # fmt: skip
    rng = np.random.default_rng(seed)
    made, names = random_baskets(rng, instruments, baskets, min(legs, instruments))
    matrix = prices(rng, days, instruments + more_columns, missing, infinite)
    with np.errstate(over="ignore", under="ignore"):
        matrix[rng.random(days) < 0.2] *= scale
    options = {
        "unmap_policy": policy,
        "max_structures": baskets + more_slots,
        "N_alloc": instruments + more_columns,
    }
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("QUORVANE_NUM_THREADS", str(threads))
        at_once, by_days = both(
            lambda cls: rotation_of(cls, made, names, expression, **options), matrix
        )
    assert at_once == by_days


LAYOUTS = {
    "in rows": lambda matrix: matrix,
    "in columns": np.asfortranarray,
    "backwards": lambda matrix: matrix[::-1, ::-1],
    "every second": lambda matrix: np.repeat(np.repeat(matrix, 2, axis=0), 2, axis=1)[::2, ::2],
    "one row for all days": lambda matrix: np.broadcast_to(matrix[0], matrix.shape),
    "float32": lambda matrix: matrix.astype(np.float32),
    "other bytes": lambda matrix: matrix.astype(">f8"),
    "lists": lambda matrix: matrix.tolist(),
    "read-only": lambda matrix: np.frombuffer(matrix.tobytes()).reshape(matrix.shape),
    "not aligned": lambda matrix: np.frombuffer(b"x" + matrix.tobytes(), offset=1).reshape(
        matrix.shape
    ),
}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_a_matrix_may_lie_in_memory_as_it_likes(layout):
    matrix = LAYOUTS[layout](prices(np.random.default_rng(2), 60, 11, missing=0.1))
    baskets, names = some_baskets()
    at_once, by_days = both(lambda cls: rotation_of(cls, baskets, names, "ewma(9);rank"), matrix)
    assert at_once == by_days


UNIVERSES = {
    "everybody": np.ones((60, 11), dtype=np.uint8),
    "some": np.random.default_rng(3).random((60, 11)) < 0.8,
    "some as bytes": (np.random.default_rng(3).random((60, 11)) < 0.8).astype(np.uint8) * 7,
    "one row": np.array([1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 0], dtype=bool),
    "more than there are": np.ones((61, 13), dtype=bool),
    "backwards": (np.random.default_rng(4).random((60, 22)) < 0.8)[::-1, ::-2],
    "as numbers": (np.random.default_rng(4).random((60, 11)) < 0.8).astype(float),
    "too few days": np.ones((30, 11), dtype=bool),
    "too few columns": np.ones((60, 10), dtype=bool),
    "nobody's": None,
}


@pytest.mark.parametrize("universe", UNIVERSES)
def test_whoever_is_left_out_is_missing(universe):
    matrix = prices(np.random.default_rng(2), 60, 11)
    baskets, names = some_baskets()
    context = types.SimpleNamespace(universe_mask=UNIVERSES[universe])
    at_once, by_days = both(
        lambda cls: rotation_of(cls, baskets, names, "ewma(9);rank"), matrix, context=context
    )
    assert at_once == by_days


def test_days_in_which_numpy_warns_are_those_days():
    """An overflow on some days, in the sums of one instrument, and infinite sums after it."""
    baskets = {f"b{i}": {"a": 1e300 * (i + 1), "b": -1e300} for i in range(5)}
    matrix = np.full((100, 2), 1e-300)
    matrix[[30, 31, 70]] = [[1e8, 1.0], [-1e8, 1.0], [1e8, -1e8]]
    for policy in ("proportional", "equal_split"):
        at_once, by_days = both(
            lambda cls, policy=policy: rotation_of(
                cls, baskets, ["a", "b"], "ewma(5)", unmap_policy=policy
            ),
            matrix,
        )
        assert at_once == by_days
        if policy == "proportional":
            assert at_once[1], "NumPy warned of nothing"


def test_a_history_stops_on_the_day_on_which_numpy_raises():
    baskets = {"x": {"a": 1e300}, "y": {"b": 1.0}}
    matrix = np.ones((100, 2))
    matrix[77, 0] = 1e8
    with np.errstate(all="raise"):
        at_once, by_days = both(
            lambda cls: rotation_of(cls, baskets, ["a", "b"], "ewma(5)"), matrix
        )
    assert at_once[0][0] == "raised"
    assert at_once == by_days


class NothingOverridden(FixedBaskets):
    _name = "nothing_overridden"
    note = "an attribute of its own"


@pytest.mark.parametrize("cls", [FixedBaskets, NothingOverridden])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_a_history_is_computed_at_once(cls, expression):
    """Day by day, each day's output is an array that lives until all are stacked."""
    baskets, names = some_baskets(instruments=50)
    matrix = prices(np.random.default_rng(2), 2_000, 50, missing=0.1)
    assert traced_peak(rotation_of(cls, baskets, names, expression), matrix) < 1.5
    assert traced_peak(rotation_of(ByDays, baskets, names, expression), matrix) > 1.9


def test_a_trace_sees_the_universe_as_it_is():
    baskets, names = some_baskets()

    class Sink(list):
        def append(self, record):
            mask = rotation._current_parent_context.universe_mask
            super().append((mask.shape, mask.strides, mask.flags.writeable))

    rotation = rotation_of(FixedBaskets, baskets, names, "none", trace_sink=Sink())
    rotation.batch_reference(np.ones((30, 11)))
    assert set(rotation.trace_sink) == {((30, 11), (11, 1), True)}


def test_memory_for_all_days_is_not_needed_before_they_end():
    """A progress that raises ends a history which could never have been kept."""
    baskets, names = some_baskets()
    matrix = np.broadcast_to(np.ones(11), (10**13, 11))

    def stop(done, days):
        raise StopIteration

    with pytest.raises(StopIteration):
        replay_history(
            rotation_of(FixedBaskets, baskets, names, "none"), matrix,
            universe_mask=np.ones(11, dtype=bool), progress=stop,
        )  # fmt: skip


@pytest.mark.parametrize("mask", [[1] * 10 + [0], np.arange(11), np.eye(11)[0] * 0.5])
def test_a_universe_of_numbers_is_one_of_zero_and_others(mask):
    matrix = prices(np.random.default_rng(2), 50, 11)
    baskets, names = some_baskets()
    context = types.SimpleNamespace(universe_mask=np.asarray(mask))
    expected = rotation_of(ByDays, baskets, names, "rank").batch_reference(matrix, context=context)
    output = replay_history(
        rotation_of(FixedBaskets, baskets, names, "rank"), matrix, universe_mask=mask
    )
    assert output.tobytes() == expected.tobytes()


# Threads


@pytest.mark.parametrize("threads", ["1", "2", "3", "7"])
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_any_number_of_threads_gives_the_same(monkeypatch, expression, threads):
    rng = np.random.default_rng(8)
    baskets, names = random_baskets(rng, 30, 500, 4)
    matrix = prices(rng, 300, 30, missing=0.1)
    expected = replayed(rotation_of(FixedBaskets, baskets, names, expression), matrix)
    monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
    assert replayed(rotation_of(FixedBaskets, baskets, names, expression), matrix) == expected


@pytest.mark.parametrize("text", ["0", "-1", "two", "1.5", "257", " 2", "99999999999999999999"])
def test_a_number_of_threads_that_is_none_is_refused(monkeypatch, text):
    baskets, names = some_baskets()
    rotation = rotation_of(FixedBaskets, baskets, names, "none")
    before = leftovers(rotation)
    monkeypatch.setenv("QUORVANE_NUM_THREADS", text)
    with pytest.raises(ValueError, match="QUORVANE_NUM_THREADS must be a whole number from 1 to"):
        rotation.batch_reference(np.ones((3, 11)))
    assert leftovers(rotation) == before


def test_no_number_of_threads_is_one(monkeypatch):
    baskets, names = some_baskets()
    rotation = rotation_of(FixedBaskets, baskets, names, "none")
    monkeypatch.setenv("QUORVANE_NUM_THREADS", "")
    assert rotation.batch_reference(np.ones((3, 11))).shape == (3, 11)
