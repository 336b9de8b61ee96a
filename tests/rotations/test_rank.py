import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.rank import Rank
from support.series import DELIBERATE_ROWS, random_rows, same_bits


def by_counting(row):
    row = np.asarray(row, dtype=float)
    there = row[~np.isnan(row)]
    below = (there[None, :] < row[:, None]).sum(axis=1)
    equal = (there[None, :] == row[:, None]).sum(axis=1)
    with np.errstate(all="ignore"):
        ranks = (below + (equal + 1) / 2) / np.float64(len(there))
    return np.where(np.isnan(row), np.nan, ranks)


def pandas_rank(row):
    pandas = pytest.importorskip("pandas")
    series = pandas.Series(row, dtype=float)
    return series.rank(method="average", na_option="keep", pct=True).to_numpy()


@pytest.mark.parametrize("columns", [2, 17, 64, 65, 129, 700])
def test_is_pandas_rank_to_the_bit(columns):
    rank = Rank(N_alloc=columns)
    for row in random_rows(columns, days=30, columns=columns):
        assert same_bits(rank(row), pandas_rank(row))


@pytest.mark.parametrize("columns", [5_000, 70_000, 200_000])
def test_is_pandas_rank_for_long_rows(columns):
    rng = np.random.default_rng(columns)
    rank = Rank(N_alloc=columns)
    normal = rng.normal(size=columns)
    rounded = np.round(normal, 2)
    crowded = 1.0 + rng.integers(0, columns, size=columns) * 2.0**-52
    crowded[0] = 1e300
    for row in (normal, rounded, crowded, np.exp(50 * normal), np.sort(normal)):
        row[rng.random(columns) < 0.1] = np.nan
        assert same_bits(rank(row), pandas_rank(row))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_rows(row):
    assert same_bits(Rank(N_alloc=max(len(row), 1))(row), by_counting(row))
    assert same_bits(Rank()(row), pandas_rank(row))


def test_any_bits_are_ranked():
    rng = np.random.default_rng(1)
    for columns in (9, 300, 3000):
        row = rng.integers(0, 2**64, size=columns, dtype=np.uint64).view(np.float64)
        assert same_bits(Rank()(row), by_counting(row))


def test_one_workspace_serves_rows_of_all_lengths():
    rng = np.random.default_rng(2)
    rank = Rank(N_alloc=9000)
    for columns in (9000, 3, 5000, 200, 8999):
        row = rng.normal(size=columns)
        assert same_bits(rank(row), by_counting(row))


def test_columns_that_are_left_out_are_not_ranked(make_context):
    out = Rank(N_alloc=3)([3.0, 1.0, 2.0], context=make_context(np.array([1, 0, 1])))
    assert same_bits(out, [1.0, np.nan, 0.5])


def test_has_no_state_and_no_parameters():
    rank = Rank(N_alloc=2)
    assert rank.stateful is False
    assert rank.get_state() == {}
    assert repr(rank) == "Rank(N_alloc=2)"
    assert (Rank._name, Rank.arity) == ("latitudinal_rank_688068", 1)
    with pytest.raises(TypeError, match="unexpected keyword argument 'window'"):
        Rank(window=2)
