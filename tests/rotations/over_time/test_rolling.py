"""Means, deviations and distances of the last days against pandas and exact arithmetic."""

from decimal import Decimal, localcontext
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from quorvane.functions.rotations.longitudinal.rolling import RollingMean, RollingStd, RollingZScore
from support.series import DELIBERATE_ROWS, DENORMAL, HUGE, random_rows, same_bits

EPS = Fraction(2) ** -52
ROLLING = [RollingMean, RollingStd, RollingZScore]


def run(rotation, rows):
    return np.array([rotation(row) for row in rows]).reshape(np.shape(rows))


def column(cls, values, window, min_periods=None):
    return run(cls(window, min_periods, N_alloc=1), np.reshape(values, (-1, 1)))[:, 0]


class Exact:
    """What is to be said of some numbers, without rounding, and how far from it one may be."""

    def __init__(self, window):
        numbers = [Fraction(float(x)) for x in window if np.isfinite(x)]
        self.count = len(numbers)
        self.mean = sum(numbers) / max(self.count, 1)
        self.magnitude = sum(map(abs, numbers)) / max(self.count, 1)
        self.squares = sum((x - self.mean) ** 2 for x in numbers)

    def deviation(self):
        with localcontext() as context:
            context.prec = 60
            square = self.squares / (self.count - 1)
            root = (Decimal(square.numerator) / Decimal(square.denominator)).sqrt()
        return Fraction(root)

    def rounding(self):
        return 2 * self.count * EPS * (1 + self.magnitude / self.deviation())


def assert_within_the_bounds(values, window, min_periods):
    outputs = [column(cls, values, window, min_periods) for cls in ROLLING]
    for day, (mean, deviation, zscore) in enumerate(zip(*outputs, strict=True)):
        exact = Exact(values[max(0, day - window + 1) : day + 1])
        assert np.isnan(mean) == (exact.count < (min_periods or window))
        assert np.isnan(deviation) == (exact.count < max(min_periods or window, 2))
        if not np.isnan(mean):
            allowed = exact.count * EPS * exact.magnitude + Fraction(DENORMAL)
            assert abs(Fraction(mean) - exact.mean) <= allowed
        if np.isnan(deviation) or exact.squares == 0:
            assert np.isnan(deviation) or deviation == 0.0
            assert np.isnan(zscore)
            continue
        expected = exact.deviation()
        assert abs(Fraction(deviation) - expected) <= exact.rounding() * expected
        assert np.isnan(zscore) == (not np.isfinite(values[day]) or deviation == 0.0)
        if not np.isnan(zscore):
            distance = (Fraction(float(values[day])) - exact.mean) / expected
            assert abs(Fraction(zscore) - distance) <= exact.rounding() * (1 + abs(distance))


SERIES = {
    "numbers": lambda rng, days: rng.normal(size=days),
    "far from zero": lambda rng, days: 1e9 + rng.normal(size=days),
    "very far from zero": lambda rng, days: 1e13 + rng.normal(size=days),
    "hardly different": lambda rng, days: 1.0 + rng.integers(0, 4, size=days) * 2.0**-52,
    "of all sizes": lambda rng, days: rng.normal(size=days) * 10.0 ** rng.integers(-60, 60, days),
    "growing": lambda rng, days: 2.0 ** np.arange(days),
    "shrinking": lambda rng, days: 2.0 ** -np.arange(days, dtype=float),
    "of both signs": lambda rng, days: rng.choice([1e12, -1e12], size=days) + rng.normal(size=days),
    "few different": lambda rng, days: rng.choice([0.1, 0.2, -0.0, 0.0], size=days),
}


@pytest.mark.parametrize("missing", [0.0, 0.2, 0.8])
@pytest.mark.parametrize("series", SERIES)
def test_the_errors_stay_within_their_bounds(series, missing):
    rng = np.random.default_rng(1)
    for window, min_periods in ((2, None), (3, 1), (7, 4), (20, 1), (61, 2)):
        values = SERIES[series](rng, 70)
        values[rng.random(70) < missing] = rng.choice([np.nan, np.inf, -np.inf])
        assert_within_the_bounds(values, window, min_periods)


@settings(max_examples=60, deadline=None)
@given(
    values=st.lists(
        st.one_of(st.floats(-1e100, 1e100), st.just(np.nan), st.just(np.inf)), max_size=40
    ),
    window=st.integers(1, 12),
)
def test_means_of_any_numbers_stay_within_their_bound(values, window):
    for day, mean in enumerate(column(RollingMean, values, window, 1)):
        exact = Exact(values[max(0, day - window + 1) : day + 1])
        assert np.isnan(mean) == (exact.count == 0)
        if exact.count:
            allowed = exact.count * EPS * exact.magnitude + Fraction(DENORMAL)
            assert abs(Fraction(mean) - exact.mean) <= allowed


@pytest.mark.parametrize("days", range(0, 71, 7))
def test_is_pandas_rolling_at_any_length(days):
    pandas = pytest.importorskip("pandas")
    rows = np.random.default_rng(days).normal(size=(days, 5))
    rows[np.random.default_rng(1).random(rows.shape) < 0.2] = np.nan
    rows[np.random.default_rng(2).random(rows.shape) < 0.05] = -np.inf
    for window, least in ((1, 1), (2, 1), (2, 2), (9, 3), (20, 20), (100, 1)):
        rolled = pandas.DataFrame(rows).rolling(window, min_periods=least)
        expected = {RollingMean: rolled.mean(), RollingStd: rolled.std()}
        for cls, frame in expected.items():
            if window == 1 and cls is RollingStd:
                continue
            got = run(cls(window, least, N_alloc=5), rows)
            np.testing.assert_allclose(got, frame.to_numpy(), rtol=1e-9, atol=1e-12)


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_columns_have_a_number_where_pandas_has_one(row):
    pandas = pytest.importorskip("pandas")
    values = np.array(row, dtype=float)
    values[np.abs(values) > 1e150] /= 1e200
    rolled = pandas.Series(values).rolling(3, min_periods=1)
    assert (np.isnan(column(RollingMean, values, 3, 1)) == np.isnan(rolled.mean())).all()
    assert (np.isnan(column(RollingStd, values, 3, 1)) == np.isnan(rolled.std())).all()


def test_a_window_of_one_day_is_the_day():
    rows = random_rows(3, days=40, columns=11)
    rows[rows == 0.0] = 0.0
    assert same_bits(
        run(RollingMean(1, N_alloc=11), rows), np.where(np.isfinite(rows), rows, np.nan)
    )


def test_a_window_may_be_longer_than_the_history():
    values = [1.0, 2.0, np.nan, 6.0]
    assert same_bits(column(RollingMean, values, 1000, 1), [1.0, 1.5, 1.5, 3.0])
    assert np.isnan(column(RollingMean, values, 1000)).all()
    assert same_bits(column(RollingStd, values, 1000, 1)[:2], [np.nan, np.sqrt(0.5)])


def test_the_fewest_numbers_count_the_numbers_and_not_the_days():
    values = [np.nan, 1.0, np.inf, 3.0, np.nan, np.nan, np.nan]
    expected = [np.nan, np.nan, np.nan, 2.0, 2.0, np.nan, np.nan]
    assert same_bits(column(RollingMean, values, 4, 2), expected)


@pytest.mark.parametrize("trace", [1e300, HUGE, -HUGE, 1e16, np.inf, DENORMAL])
@pytest.mark.parametrize("cls", ROLLING)
def test_what_has_left_the_window_leaves_no_trace(cls, trace):
    values = np.random.default_rng(1).normal(size=60)
    for window in (2, 3, 7, 16):
        for day in range(20):
            other = values.copy()
            other[day] = other[day + 1] = trace
            got, expected = (column(cls, each, window) for each in (other, values))
            # Sums are added up in blocks of a window: the same blocks, the same bits.
            assert same_bits(got[day + 1 + window :], expected[day + 1 + window :])


@pytest.mark.parametrize("value", [0.1, -7.3, 1e300, HUGE, 1e-310, DENORMAL, 0.0, -0.0])
@pytest.mark.parametrize("window", [2, 3, 10, 33])
def test_equal_numbers_have_no_deviation_and_no_distance(value, window):
    values = np.full(80, value)
    values[np.random.default_rng(2).random(80) < 0.2] = np.nan
    deviation = column(RollingStd, values, window, 1)
    assert (deviation[~np.isnan(deviation)] == 0.0).all()
    assert not np.isnan(deviation).all()
    assert np.isnan(column(RollingZScore, values, window, 1)).all()


def test_numbers_that_become_equal_have_no_deviation_from_then_on():
    values = [1e6, 3.0, *[0.1] * 30]
    for window in (2, 5, 8):
        deviation = column(RollingStd, values, window)
        assert (deviation[window + 1 :] == 0.0).all()
        assert (deviation[window - 1 : window + 1] > 0.0).all()


def test_a_distance_is_missing_where_today_is():
    zscore = column(RollingZScore, [1.0, 2.0, np.nan, np.inf, 3.0], 5, 2)
    assert np.isnan(zscore[2:4]).all()
    assert zscore[4] == 1.0


@pytest.mark.parametrize("cls", ROLLING)
def test_numbers_near_the_end_of_the_range_crash_nothing_and_are_forgotten(cls):
    values = np.concatenate([[HUGE, HUGE, -HUGE, HUGE, -HUGE] * 3, np.arange(20.0)])
    got = column(cls, values, 4)
    assert same_bits(got[20:], column(cls, np.where(np.abs(values) > 1e300, 0.0, values), 4)[20:])


@pytest.mark.parametrize("cls", ROLLING)
def test_a_million_columns_are_each_by_themselves(cls):
    rng = np.random.default_rng(4)
    rows = rng.normal(size=(4, 1_000_000))
    rows[rng.random(rows.shape) < 0.1] = np.nan
    wide, some = cls(3, 1, N_alloc=1_000_000), [0, 1, 777_777, 999_999]
    narrow = cls(3, 1, N_alloc=4)
    for row in rows:
        assert same_bits(wide(row)[some], narrow(row[some]))


@pytest.mark.parametrize("cls", ROLLING)
@pytest.mark.parametrize("columns", [1, 2, 7, 8, 9, 31, 64, 70, 257])
def test_neighbours_have_no_say(cls, columns):
    rows = random_rows(columns, days=30, columns=columns)
    together = run(cls(5, 2, N_alloc=columns), rows)
    for each in {0, columns // 2, columns - 1}:
        assert same_bits(together[:, each], column(cls, rows[:, each], 5, 2))


@pytest.mark.parametrize("window", [True, 2.0, "20", None, np.int64(20)])
@pytest.mark.parametrize("cls", ROLLING)
def test_a_window_of_another_type(cls, window):
    with pytest.raises(TypeError, match=r"^window must be an int from [12] to 1000000, got .* of"):
        cls(window, N_alloc=1)


@pytest.mark.parametrize("window", [0, -1, 10**6 + 1, 10**400])
@pytest.mark.parametrize("cls", ROLLING)
def test_a_window_out_of_range(cls, window):
    with pytest.raises(ValueError, match=r"^window must be an int from [12] to 1000000, got "):
        cls(window, N_alloc=1)


@pytest.mark.parametrize("cls", [RollingStd, RollingZScore])
def test_a_deviation_needs_two_days(cls):
    with pytest.raises(ValueError, match=r"^window must be an int from 2 to 1000000, got 1$"):
        cls(1, N_alloc=1)


@pytest.mark.parametrize("cls", ROLLING)
def test_the_fewest_numbers_are_from_one_to_the_window(cls):
    with pytest.raises(ValueError, match=r"^min_periods must be an int from 1 to 1000000, got 0$"):
        cls(5, 0, N_alloc=1)
    with pytest.raises(ValueError, match=r"^min_periods must be at most the window 5, got 6$"):
        cls(5, 6, N_alloc=1)
    with pytest.raises(TypeError, match=r"^min_periods must be an int .*, got 2\.0 of type float$"):
        cls(5, 2.0, N_alloc=1)
    assert cls(5, 5, N_alloc=1).min_periods == 5
    assert cls(5, N_alloc=1).min_periods is None


@pytest.mark.parametrize(("cls", "name"), [*zip(ROLLING, ["mean", "std", "zscore"], strict=True)])
def test_shows_its_arguments(cls, name):
    assert repr(cls(20, N_alloc=5)) == f"{cls.__name__}(window=20, min_periods=None, N_alloc=5)"
    assert cls(20, 3, N_alloc=5).parameters == {"window": 20, "min_periods": 3}
    assert (cls._name, cls.arity) == (f"rolling_{name}", 1)


def test_squares_that_overflow_leave_no_zscore():
    rotation = RollingZScore(3, N_alloc=2)
    rows = [rotation(np.array(row)).copy() for row in ([1e200, 1.0], [2e200, 2.0], [5e200, 6.0])]
    assert np.isnan(rows[-1][0])
    assert rows[-1][1] > 1.0
