import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.cross_section import CenteredRank
from support.series import DELIBERATE_ROWS, random_rows, same_bits


def by_scipy(row):
    stats = pytest.importorskip("scipy.stats")
    row = np.asarray(row, dtype=float)
    there = ~np.isnan(row)
    count = there.sum()
    out = np.full(len(row), np.nan)
    if count:
        out[there] = (2.0 * stats.rankdata(row[there]) - count - 1.0) / count
    return out


@pytest.mark.parametrize("columns", [*range(1, 71), 128, 129, 700, 5000])
def test_is_the_formula_of_scipys_ranks_to_the_bit(columns):
    rank = CenteredRank(N_alloc=columns)
    for row in random_rows(columns, days=6, columns=columns):
        assert same_bits(rank(row), by_scipy(row))


def test_is_the_formula_for_long_rows():
    rng = np.random.default_rng(1)
    row = rng.normal(size=1_000_000)
    for values in (row, np.round(row, 3), np.where(rng.random(len(row)) < 0.1, np.nan, row)):
        assert same_bits(CenteredRank()(values), by_scipy(values))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_rows(row):
    assert same_bits(CenteredRank()(row), by_scipy(row))
    assert same_bits(CenteredRank(N_alloc=max(len(row), 1))(row), by_scipy(row))


def test_any_bits_are_ranked():
    rng = np.random.default_rng(1)
    for columns in (9, 300, 3000):
        row = rng.integers(0, 2**64, size=columns, dtype=np.uint64).view(np.float64)
        assert same_bits(CenteredRank()(row), by_scipy(row))


@given(st.lists(st.one_of(st.floats(), st.integers(-3, 3).map(float)), max_size=300))
def test_opposite_numbers_have_opposite_ranks(values):
    row = np.array(values, dtype=float)
    ranks, opposite = CenteredRank()(row), CenteredRank()(-row)
    # Of the one in the middle both are 0.0, whose sign is nobody's.
    assert same_bits(ranks, np.where(opposite == 0.0, 0.0, -opposite))
    there = ranks[~np.isnan(ranks)]
    assert ((there > -1.0) & (there < 1.0)).all()


def test_threads_change_no_rank(monkeypatch):
    row = np.round(np.random.default_rng(2).normal(size=100_003), 3)
    row[::7] = np.nan
    outputs = []
    for threads in ("1", "2", "5"):
        monkeypatch.setenv("QUORVANE_NUM_THREADS", threads)
        outputs.append(CenteredRank()(row).tobytes())
    assert outputs[1:] == outputs[:1] * 2


def test_a_row_may_lie_in_memory_as_it_likes():
    row = random_rows(3, days=1, columns=77)[0]
    expected = by_scipy(row)
    misaligned = np.frombuffer(b"x" + row.tobytes(), offset=1, dtype=np.float64)
    for other in (np.repeat(row, 2)[::2], row[::-1].copy()[::-1], misaligned, row.astype(">f8")):
        assert same_bits(CenteredRank(N_alloc=77)(other), expected)
    CenteredRank().compute((row,), None, None, row, 77)
    assert same_bits(row, expected)


def test_columns_that_are_left_out_are_not_ranked(make_context):
    out = CenteredRank(N_alloc=3)([3.0, 1.0, 2.0], context=make_context(np.array([1, 0, 1])))
    assert same_bits(out, [0.5, np.nan, -0.5])


def test_has_no_state_and_no_parameters():
    rank = CenteredRank(N_alloc=2)
    assert rank.stateful is False
    assert rank.get_state() == {}
    assert repr(rank) == "CenteredRank(N_alloc=2)"
    assert (CenteredRank._name, CenteredRank.arity) == ("centered_rank", 1)
    with pytest.raises(TypeError, match="exactly one input is allowed, got 2"):
        rank([1.0, 2.0], [1.0, 2.0])
