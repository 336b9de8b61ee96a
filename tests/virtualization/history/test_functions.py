"""Histories of functions over time and across columns are their days, to the bit."""

import types

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.cross_section import (
    CenteredRank,
    Demean,
    Scale,
    Winsorize,
    WithinGroups,
)
from quorvane.functions.rotations.latitudinal.rank import Rank
from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean, ExponentialStd
from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from quorvane.functions.rotations.longitudinal.rolling import RollingMean, RollingStd, RollingZScore
from quorvane.functions.rotations.numerical.clip import Clip
from quorvane.functions.rotations.virtualization.baskets import FixedBaskets
from quorvane.functions.rotations.virtualization.history import replay_history
from support.histories import ByDays, both, leftovers, random_baskets, traced_peak
from support.series import same_bits

SLOTS, INSTRUMENTS = 70, 13
BASKETS, NAMES = random_baskets(np.random.default_rng(1), INSTRUMENTS, SLOTS - 2, 4)
GROUPS = np.random.default_rng(2).integers(-1, 5, size=SLOTS)
OVER_TIME = {
    "mean": lambda slots, window: RollingMean(window, None if window < 3 else 2, N_alloc=slots),
    "deviation": lambda slots, window: RollingStd(max(window, 2), 2, N_alloc=slots),
    "distance": lambda slots, window: RollingZScore(max(window, 2), 2, N_alloc=slots),
    "exponential mean": lambda slots, window: ExponentialMean(1 - 1 / window, N_alloc=slots),
    "exponential deviation": lambda slots, window: ExponentialStd(1 - 1 / window, N_alloc=slots),
    "delay": lambda slots, window: Delay(window, N_alloc=slots),
    "difference": lambda slots, window: Diff(window, N_alloc=slots),
}
ACROSS = {
    "centered rank": lambda slots: CenteredRank(N_alloc=slots),
    "demean": lambda slots: Demean(N_alloc=slots),
    "scale": lambda slots: Scale(N_alloc=slots),
    "winsorize": lambda slots: Winsorize(0.1, N_alloc=slots),
    "clip": lambda slots: Clip(-0.5, 0.75, N_alloc=slots),
    "rank in groups": lambda slots: WithinGroups("rank", GROUPS[:slots], N_alloc=slots),
    "distance in groups": lambda slots: WithinGroups("zscore", GROUPS[:slots], N_alloc=slots),
}
EVERY = [*OVER_TIME, *ACROSS]


def child(name, window=5, slots=SLOTS):
    return OVER_TIME[name](slots, window) if name in OVER_TIME else ACROSS[name](slots)


def rotation_of(cls, *names, window=5):
    children = [child(name, window) for name in names]
    return cls(
        BASKETS,
        NAMES,
        transformation_expression="none",
        child_rotations=children,
        max_structures=SLOTS,
    )


def prices(days, seed=1):
    rng = np.random.default_rng(seed)
    matrix = rng.normal(size=(days, INSTRUMENTS))
    matrix[rng.random(matrix.shape) < 0.05] = np.nan
    matrix[rng.random(matrix.shape) < 0.005] = np.inf
    return matrix


def states(rotation):
    return [each.get_state() for each in rotation.child_rotations if each.stateful]


def same_states(left, right):
    return all(
        one["arguments"] == other["arguments"]
        and one["position"] == other["position"]
        and same_bits(one["memory"], other["memory"])
        for one, other in zip(states(left), states(right), strict=True)
    )


def assert_same(at_once, by_days, *matrices, **options):
    """The histories of both, what is remembered then, and the days after that."""
    for matrix in (*matrices, prices(12, seed=9)):
        got = replay_history(at_once, matrix, **options)
        expected = replay_history(by_days, matrix, **options)
        assert got.tobytes() == expected.tobytes()
        assert same_states(at_once, by_days)
    assert by_days.seen_days == sum(map(len, matrices)) + 12


@pytest.mark.parametrize("threads", [1, 4])
@pytest.mark.parametrize("window", [1, 3, 64, 500])
@pytest.mark.parametrize("name", EVERY)
def test_every_function_gives_what_its_days_give(name, window, threads):
    for days in (1, 9, 18, 26, 200):
        rotations = [rotation_of(cls, name, window=window) for cls in (FixedBaskets, ByDays)]
        assert_same(*rotations, prices(days), threads=threads)


@pytest.mark.parametrize("name", EVERY)
def test_blocks_may_be_longer_and_shorter_than_a_window(name):
    """A block has 512 days at most; these begin and end in the middle of windows and blocks."""
    for window in (2, 511, 512, 513):
        rotations = [rotation_of(cls, name, window=window) for cls in (FixedBaskets, ByDays)]
        assert_same(*rotations, prices(700, 3), prices(530, 4), threads=2)


@settings(max_examples=40, deadline=None)
@given(
    names=st.lists(st.sampled_from(EVERY), min_size=1, max_size=4),
    window=st.integers(1, 40),
    parts=st.lists(st.integers(1, 120), min_size=1, max_size=3),
    threads=st.integers(1, 4),
    level=st.sampled_from(["instrument", "structure"]),
)
def test_chains_give_what_their_days_give_in_any_parts(names, window, parts, threads, level):
    rotations = [rotation_of(cls, *names, window=window) for cls in (FixedBaskets, ByDays)]
    histories = [prices(days, seed) for seed, days in enumerate(parts)]
    assert_same(*rotations, *histories, threads=threads, level=level)


@pytest.mark.parametrize("name", EVERY)
def test_a_whole_history_is_its_parts(name):
    matrix = prices(300)
    whole, parts = (rotation_of(FixedBaskets, name, window=20) for _ in range(2))
    expected = replay_history(whole, matrix, threads=2)
    pieces = [replay_history(parts, piece) for piece in np.split(matrix, [1, 60, 61, 77, 250])]
    assert np.vstack(pieces).tobytes() == expected.tobytes()
    assert same_states(whole, parts)


# ---- blocks that are taken back -----------------------------------------------------------------


@pytest.mark.parametrize("threads", [1, 4])
@pytest.mark.parametrize("window", [1, 5, 40, 1000])
@pytest.mark.parametrize("name", OVER_TIME)
def test_blocks_in_which_numpy_would_warn_are_taken_back(name, window, threads, monkeypatch):
    """The sums of one instrument overflow on some days, amid a block and a window."""
    monkeypatch.setenv("QUORVANE_NUM_THREADS", str(threads))
    baskets = {f"b{i}": {"a": 1e300 * (i + 1), "b": -1e300} for i in range(5)}
    matrix = np.random.default_rng(1).normal(size=(700, 2)) * 1e-300
    matrix[[30, 31, 170, 600]] = [[1e8, 1.0], [-1e8, 1.0], [1e8, -1e8], [-1e8, 1e8]]

    def make(cls):
        # The way back overflows where what leaves the children is as large as the weights.
        return cls(
            baskets,
            ["a", "b"],
            transformation_expression="none",
            child_rotations=[child(name, window, 9), Clip(-1e10, 1e10, N_alloc=9)],
            max_structures=9,
        )

    at_once, by_days = both(make, matrix)
    assert at_once[:2] == by_days[:2]
    if name in ("delay", "difference", "mean") and window < len(matrix):
        assert at_once[1], "NumPy warned of nothing"
    rotations = [make(FixedBaskets), make(ByDays)]
    with np.errstate(all="ignore"):
        outputs = [rotation.batch_reference(matrix).tobytes() for rotation in rotations]
        assert outputs[0] == outputs[1]
        assert same_states(*rotations)
        for _ in range(2):
            row = np.array([1e-300, 2e-300])
            assert rotations[0](row).tobytes() == rotations[1](row).tobytes()


@pytest.mark.parametrize("name", EVERY)
def test_a_history_stops_on_the_day_on_which_numpy_raises(name):
    baskets = {"x": {"a": 1e300}, "y": {"b": 1.0}}
    matrix = np.ones((100, 2))
    matrix[77, 0] = 1e8

    def make(cls):
        return cls(
            baskets,
            ["a", "b"],
            transformation_expression="none",
            child_rotations=[Delay(3, N_alloc=2), child(name, 5, 2)],
        )

    rotations = [make(FixedBaskets), make(ByDays)]
    endings = []
    for rotation in rotations:
        with np.errstate(all="raise"):
            try:
                endings.append(rotation.batch_reference(matrix).tobytes())
            except FloatingPointError as error:
                endings.append(str(error))
    assert endings[0] == endings[1]
    assert same_states(*rotations)


# ---- whether a history is computed at once ------------------------------------------------------


def restore(rotation):
    rotation.set_state(rotation.get_state())


def resize(rotation):
    each = rotation.child_rotations[0]
    each.resize(SLOTS + 5)
    each.resize(SLOTS)


def forget(rotation):
    each = rotation.child_rotations[0]
    if each.stateful:
        each.forget([0, 5])


@pytest.mark.parametrize("change", [lambda rotation: None, restore, resize, forget])
@pytest.mark.parametrize("name", EVERY)
def test_a_history_is_computed_at_once(name, change):
    matrix = prices(2000)
    at_once = rotation_of(FixedBaskets, name)
    by_days = rotation_of(ByDays, name)
    for rotation in (at_once, by_days):
        rotation.batch_reference(matrix[:7])
        change(rotation)
    assert traced_peak(at_once, matrix) < 1.5
    assert traced_peak(by_days, matrix) > 1.9
    assert same_states(at_once, by_days)


def test_a_memory_that_is_too_large_is_not_held_twice():
    rotations = [rotation_of(cls, "delay", window=250_000) for cls in (FixedBaskets, ByDays)]
    assert rotations[0].child_rotations[0]._memory.size > 2**24
    assert traced_peak(rotations[0], prices(2000)) > 1.9
    rotations[1].batch_reference(prices(2000)[:30])
    rotations[1].batch_reference(prices(2000))
    assert same_states(*rotations)


@pytest.mark.parametrize("name", EVERY)
def test_an_overridden_compute_sees_every_day(name):
    log = []

    class Counting(type(child(name))):
        def compute(self, *args):
            log.append(args[-1])
            return super().compute(*args)

    rotations = [rotation_of(FixedBaskets, name) for _ in range(2)]
    rotations[0].child_rotations[0].__class__ = Counting
    matrix = prices(50)
    outputs = [rotation.batch_reference(matrix).tobytes() for rotation in rotations]
    assert outputs[0] == outputs[1]
    assert len(log) == 50


def a_window_that_is_none(each):
    for name in ("window", "days", "decay", "fraction", "low", "function"):
        if hasattr(each, name):
            setattr(each, name, "none")


def another_window(each):
    for name, value in {"window": 4, "days": 4, "decay": 0.5, "fraction": 0.2, "low": 0.0}.items():
        if hasattr(each, name):
            setattr(each, name, value)


def a_view_as_memory(each):
    if each.stateful:
        each._memory = each._memory[:]


def a_position_outside(each):
    if each.stateful:
        each._position[0] = 1000.0


def a_memory_that_is_too_short(each):
    if each.stateful:
        each._memory = each._memory[:-1].copy()


def no_columns(each):
    each._n_alloc = None


@pytest.mark.parametrize(
    "replace",
    [
        a_window_that_is_none,
        another_window,
        a_view_as_memory,
        a_position_outside,
        a_memory_that_is_too_short,
        no_columns,
    ],
)
@pytest.mark.parametrize("name", EVERY)
def test_whatever_is_replaced_between_two_histories_counts(name, replace):
    matrix = prices(60)

    def played(cls):
        rotation = rotation_of(cls, name)
        log = [rotation.batch_reference(matrix).tobytes()]
        replace(rotation.child_rotations[0])
        try:
            log.append(rotation.batch_reference(matrix).tobytes())
        except (ValueError, TypeError, AssertionError) as error:
            log.append(repr(error))
        return log

    assert played(FixedBaskets) == played(ByDays)


def test_one_memory_for_two_is_nobodys_own():
    matrix = prices(60)

    def played(cls):
        rotation = rotation_of(cls, "mean", "deviation", "delay", "delay")
        children = rotation.child_rotations
        children[3]._memory = children[2]._memory
        children[1]._position = children[0]._position
        return rotation.batch_reference(matrix).tobytes(), leftovers(rotation)

    assert played(FixedBaskets) == played(ByDays)


def test_groups_that_change_while_a_history_goes_on_count_from_then_on():
    groups = np.zeros(SLOTS, np.int64)
    rotation = FixedBaskets(
        BASKETS,
        NAMES,
        transformation_expression="none",
        child_rotations=[WithinGroups("rank", groups, N_alloc=SLOTS)],
        max_structures=SLOTS,
    )
    told = []

    def change(done, days):
        told.append(done)
        groups[: SLOTS // 2] = len(told) % 2

    matrix = prices(20_000)
    output = replay_history(rotation, matrix, progress=change)
    assert 0 < told[0] <= len(matrix)
    first = rotation_of(FixedBaskets, "demean")
    first.child_rotations[0] = WithinGroups("rank", np.zeros(SLOTS, np.int64), N_alloc=SLOTS)
    expected = first.batch_reference(matrix[: told[0]])
    assert output[: told[0]].tobytes() == expected.tobytes()
    if len(told) > 1:
        first.child_rotations[0].groups[: SLOTS // 2] = 1
        assert output[told[0]].tobytes() == first(matrix[told[0]]).tobytes()


def test_whoever_is_left_out_is_missing():
    universe = np.random.default_rng(3).random((60, INSTRUMENTS)) < 0.8
    context = types.SimpleNamespace(universe_mask=universe)
    for name in EVERY:
        outputs = [
            rotation_of(cls, name, "centered rank").batch_reference(prices(60), context=context)
            for cls in (FixedBaskets, ByDays)
        ]
        assert outputs[0].tobytes() == outputs[1].tobytes()


@pytest.mark.parametrize("before", ["mean", "rank in groups"])
def test_functions_of_all_kinds_stand_side_by_side(before):
    rotations = []
    for cls in (FixedBaskets, ByDays):
        rotation = rotation_of(cls, before, "winsorize", "distance", "difference", "clip")
        rotation.child_rotations.append(Rank(N_alloc=SLOTS))
        rotations.append(rotation)
    assert_same(*rotations, prices(1100), threads=3)
