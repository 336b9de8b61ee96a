"""A function within groups is that function of each group's columns by themselves."""

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.cross_section import (
    CenteredRank,
    Demean,
    WithinGroups,
)
from quorvane.functions.rotations.latitudinal.normalize import ZScore
from quorvane.functions.rotations.latitudinal.rank import Rank
from support.series import DELIBERATE_ROWS, random_rows, same_bits

FUNCTIONS = {"rank": Rank, "centered_rank": CenteredRank, "zscore": ZScore, "demean": Demean}
EVERY = pytest.mark.parametrize("function", FUNCTIONS)


def by_group(function, row, groups):
    row = np.asarray(row, dtype=float)
    groups = np.asarray(groups)[: len(row)]
    groups = np.append(groups, np.full(len(row) - len(groups), -1))
    out = np.full(len(row), np.nan)
    for group in np.unique(groups[groups >= 0]):
        out[groups == group] = FUNCTIONS[function]()(row[groups == group])
    return out


@pytest.mark.parametrize("columns", [*range(71), 600, 5000])
@EVERY
def test_is_the_function_of_each_group(function, columns):
    rng = np.random.default_rng(columns)
    for row in random_rows(columns, days=3, columns=columns):
        for count in (1, 2, 7, 10**12):
            groups = rng.integers(-1, count, size=columns)
            rotation = WithinGroups(function, groups, N_alloc=max(columns, 1))
            assert same_bits(rotation(row), by_group(function, row, groups))


@EVERY
def test_a_million_columns(function):
    rng = np.random.default_rng(1)
    row, groups = rng.normal(size=1_000_000), rng.integers(-1, 20, size=1_000_000)
    row[rng.random(len(row)) < 0.1] = np.nan
    assert same_bits(WithinGroups(function, groups)(row), by_group(function, row, groups))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
@EVERY
def test_deliberate_rows(function, row):
    for groups in (np.zeros(len(row), np.int64), np.arange(len(row)) % 2, np.arange(len(row))):
        assert same_bits(WithinGroups(function, groups)(row), by_group(function, row, groups))


@EVERY
@given(
    columns=st.lists(
        st.tuples(
            st.one_of(st.floats(), st.integers(-2, 2).map(float)),
            st.one_of(st.integers(-2, 3), st.integers(-(2**63), 2**63 - 1)),
        ),
        max_size=30,
    )
)
def test_any_groups(function, columns):
    row = [value for value, _ in columns]
    groups = np.array([group for _, group in columns], dtype=np.int64)
    assert same_bits(WithinGroups(function, groups)(row), by_group(function, row, groups))


@EVERY
def test_the_groups_are_read_on_each_day(function):
    rng = np.random.default_rng(3)
    groups = rng.integers(-1, 4, size=50)
    rotation, other = WithinGroups(function, groups), WithinGroups(function, groups[::2].copy())
    for day in range(20):
        groups[rng.integers(0, 50, size=day % 3)] = rng.integers(-1, 4, size=day % 3)
        row = rng.normal(size=50 - day)
        assert same_bits(rotation(row), by_group(function, row, groups))
        # Another instance in between has other groups.
        assert same_bits(other(row), by_group(function, row, other.groups))
    rotation.groups = np.arange(3)
    assert same_bits(rotation(row), by_group(function, row, np.arange(3)))


@EVERY
def test_columns_beyond_the_groups_have_none(function):
    assert same_bits(WithinGroups(function, np.array([0, 0]))([1.0, 3.0, 5.0])[2:], [np.nan])
    assert np.isnan(WithinGroups(function, np.empty(0, np.int64))([1.0, 2.0])).all()
    assert np.isnan(WithinGroups(function, np.full(2, -(2**63)))([1.0, 2.0])).all()


@EVERY
def test_a_row_may_lie_in_memory_as_it_likes(function):
    row, groups = np.random.default_rng(3).normal(size=77), np.arange(77) % 5
    expected = by_group(function, row, groups)
    misaligned = np.frombuffer(b"x" + row.tobytes(), offset=1, dtype=np.float64)
    for other in (np.repeat(row, 2)[::2], row[::-1].copy()[::-1], misaligned, row.astype(">f8")):
        assert same_bits(WithinGroups(function, groups, N_alloc=77)(other), expected)
    WithinGroups(function, groups).compute((row,), None, None, row, 77)
    assert same_bits(row, expected)


def test_columns_that_are_left_out_do_not_count(make_context):
    rotation = WithinGroups("demean", np.array([0, 0, 0, 1]), N_alloc=4)
    out = rotation([1.0, 100.0, 3.0, 7.0], context=make_context([[1, 0, 1, 1]]))
    assert same_bits(out, [-1.0, np.nan, 1.0, 0.0])


@pytest.mark.parametrize(
    "groups",
    [
        [0, 1],
        None,
        np.array([0.0, 1.0]),
        np.array([0, 1], np.int32),
        np.array([0, 1], np.uint64),
        np.array([0, 1], ">i8"),
        np.arange(4)[::2],
        np.zeros((1, 2), np.int64),
        np.array(3),
        np.frombuffer(b"x" + bytes(16), np.int64, offset=1),
        np.arange(2).view(np.recarray),
    ],
    ids=repr,
)
def test_groups_of_another_kind_are_refused(groups):
    with pytest.raises(TypeError, match=r"^groups must be a contiguous array of int64, got"):
        WithinGroups("rank", groups)
    rotation = WithinGroups("rank", np.zeros(2, np.int64))
    rotation.groups = groups
    with pytest.raises(TypeError, match=r"^groups must be a contiguous array of int64, got"):
        rotation([1.0, 2.0])


def test_groups_of_64_bits_by_any_name_are_taken():
    for name in (np.int64, np.longlong, np.intp):
        assert WithinGroups("rank", np.zeros(2, name))([1.0, 2.0]).tolist() == [0.5, 1.0]
    read_only = np.frombuffer(bytes(16), np.int64)
    assert WithinGroups("rank", read_only)([1.0, 2.0]).tolist() == [0.5, 1.0]


def test_groups_that_become_fewer_in_the_middle_of_a_day_do_no_harm():
    groups = np.arange(100_000)
    rotation = WithinGroups("demean", groups)

    class Row:
        def __array__(self, dtype=None, copy=None):
            groups.resize(1, refcheck=False)
            return np.ones(100_000)

    output = np.empty(100_000)
    rotation.compute((Row(),), None, None, output, 100_000)
    assert output[0] == 0.0


def test_a_function_that_there_is_not():
    groups = np.zeros(2, np.int64)
    with pytest.raises(ValueError, match=r"^function must be one of rank, centered_rank, zscore, "):
        WithinGroups("ranks", groups)
    with pytest.raises(TypeError, match=r"^function must be one of .*, got 3$"):
        WithinGroups(3, groups)
    rotation = WithinGroups("rank", groups)
    rotation.function = "demean"
    assert rotation([1.0, 3.0]).tolist() == [-1.0, 1.0]
    rotation.function = None
    with pytest.raises(TypeError, match=r"^function must be one of .*, got None$"):
        rotation([1.0, 3.0])


def test_has_no_state():
    rotation = WithinGroups("rank", np.zeros(2, np.int64), N_alloc=2)
    assert rotation.stateful is False
    assert rotation.get_state() == {}
    assert (WithinGroups._name, WithinGroups.arity) == ("within_groups", 1)
