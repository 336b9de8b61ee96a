"""The numbers of some days ago, and the distances from them, as pandas has both."""

import numpy as np
import pytest

from quorvane.functions.rotations.longitudinal.past_values import Delay, Diff
from support.series import DELIBERATE_ROWS, random_rows, same_bits

BOTH = [Delay, Diff]


def run(rotation, rows):
    return np.array([rotation(row) for row in rows]).reshape(np.shape(rows))


def by_pandas(cls, rows, days):
    frame = pytest.importorskip("pandas").DataFrame(rows)
    return (frame.shift(days) if cls is Delay else frame.diff(days)).to_numpy()


def by_the_rule(cls, rows, days):
    past = np.full_like(rows, np.nan)
    past[days:] = rows[: max(len(rows) - days, 0)]
    with np.errstate(all="ignore"):
        return past if cls is Delay else rows - past


@pytest.mark.parametrize("days", [1, 2, 3, 20, 59, 60, 61, 1000])
@pytest.mark.parametrize("cls", BOTH)
def test_is_pandas_to_the_bit(cls, days):
    for seed in range(5):
        rows = random_rows(seed, days=60, columns=23)
        got = run(cls(days, N_alloc=23), rows)
        assert same_bits(got, by_the_rule(cls, rows, days))
        assert same_bits(got, by_pandas(cls, rows, days))


@pytest.mark.parametrize("cls", BOTH)
def test_is_the_rule_at_any_length(cls):
    for length in range(71):
        rows = random_rows(length, days=length, columns=5)
        assert same_bits(run(cls(4, N_alloc=5), rows), by_the_rule(cls, rows, 4))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
@pytest.mark.parametrize("cls", BOTH)
def test_deliberate_columns(cls, row):
    rows = np.array(row, dtype=float).reshape(-1, 1)
    for days in (1, 2):
        assert same_bits(run(cls(days, N_alloc=1), rows), by_the_rule(cls, rows, days))


def test_infinities_are_numbers_of_some_days_ago():
    rows = [[np.inf, -np.inf, -0.0], [1.0, -np.inf, 0.0]]
    assert same_bits(run(Delay(1, N_alloc=3), rows)[1], rows[0])
    assert same_bits(run(Diff(1, N_alloc=3), rows)[1], [-np.inf, np.nan, 0.0])


@pytest.mark.parametrize("cls", BOTH)
def test_a_million_columns(cls):
    rows = np.random.default_rng(1).normal(size=(5, 1_000_000))
    assert same_bits(run(cls(2, N_alloc=1_000_000), rows), by_the_rule(cls, rows, 2))


@pytest.mark.parametrize("days", [True, 2.0, "20", None, np.int64(20)])
@pytest.mark.parametrize("cls", BOTH)
def test_days_of_another_type(cls, days):
    with pytest.raises(TypeError, match=r"^days must be an int from 1 to 1000000, got .* of type"):
        cls(days, N_alloc=1)


@pytest.mark.parametrize("days", [0, -1, 10**6 + 1, 10**400])
@pytest.mark.parametrize("cls", BOTH)
def test_days_out_of_range(cls, days):
    with pytest.raises(ValueError, match=r"^days must be an int from 1 to 1000000, got "):
        cls(days, N_alloc=1)


@pytest.mark.parametrize("cls", BOTH)
def test_shows_its_days(cls):
    assert repr(cls(20, N_alloc=5)) == f"{cls.__name__}(days=20, N_alloc=5)"
    assert cls(20, N_alloc=5).parameters == {"days": 20}
    assert cls._name == cls.__name__.lower()
