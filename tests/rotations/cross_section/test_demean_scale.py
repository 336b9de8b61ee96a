import math
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.cross_section import Demean, Scale
from support.series import DELIBERATE_ROWS, DENORMAL, HUGE, random_rows, same_bits

EPS = Fraction(2) ** -52
# Half of this is lost where a result is so small that it has fewer digits.
SMALLEST = Fraction(DENORMAL)


def assert_demeaned(row):
    """Within the stated error of the mean, and one rounding of the difference."""
    row = np.asarray(row, dtype=float)
    got, finite = Demean()(row), np.isfinite(row)
    assert np.isnan(got[~finite]).all()
    if not finite.any():
        return
    numbers = [Fraction(x) for x in row[finite].tolist()]
    mean = sum(numbers) / len(numbers)
    allowed = 50 * EPS * sum(map(abs, numbers)) / len(numbers) + SMALLEST
    for x, result in zip(numbers, got[finite].tolist(), strict=True):
        if math.isinf(result):
            assert abs(x - mean) > HUGE
        else:
            assert abs(Fraction(result) - (x - mean)) <= allowed + EPS * abs(x - mean)


def assert_scaled(row):
    row = np.asarray(row, dtype=float)
    got, finite = Scale()(row), np.isfinite(row)
    assert np.isnan(got[~finite]).all()
    numbers = [Fraction(x) for x in row[finite].tolist()]
    gross = sum(map(abs, numbers))
    if gross == 0:
        assert np.isnan(got).all()
        return
    for x, result in zip(numbers, got[finite].tolist(), strict=True):
        assert abs(Fraction(result) - x / gross) <= 50 * EPS * abs(x / gross) + SMALLEST


BOTH = pytest.mark.parametrize("check", [assert_demeaned, assert_scaled])


@BOTH
@pytest.mark.parametrize("columns", [*range(71), 255, 256, 257, 1000])
def test_the_errors_stay_within_their_bounds(check, columns):
    for row in random_rows(columns, days=3, columns=columns):
        check(row)
    rng = np.random.default_rng(columns)
    check(1e9 + rng.normal(size=columns))
    check(rng.normal(size=columns) * 10.0 ** rng.integers(-300, 300, size=columns))


@BOTH
@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_rows(check, row):
    check(row)


@BOTH
@given(st.lists(st.floats(), max_size=40))
def test_any_row(check, row):
    check(row)


@BOTH
@pytest.mark.parametrize("size", [HUGE, 1e300, 1.0, 1e-300, 1e-308, DENORMAL])
@pytest.mark.parametrize("columns", [1, 2, 3, 100, 600])
def test_sums_leave_the_range_of_numbers_neither_above_nor_below(check, size, columns):
    check(np.full(columns, size))
    signs = np.random.default_rng(columns).choice([-1.0, 1.0, 0.5], size=columns)
    check(signs * size)


def test_a_million_columns_are_added_up_as_exactly():
    rng = np.random.default_rng(1)
    row = rng.normal(size=1_000_000) * 10.0 ** rng.integers(-5, 5, size=1_000_000)
    row[rng.random(len(row)) < 0.1] = np.nan
    there = row[~np.isnan(row)]
    magnitudes = math.fsum(np.abs(there))
    mean = math.fsum(there) / len(there)
    bound = 50 * float(EPS) * magnitudes / len(there) + float(EPS) * np.abs(row - mean)
    error = np.abs(Demean()(row) - (row - mean))
    assert not (error > bound).any()
    error = np.abs(Scale()(row) - row / magnitudes)
    assert not (error > 51 * float(EPS) * np.abs(row) / magnitudes).any()


def test_is_as_numpy_has_it():
    row = random_rows(1, days=1, columns=60)[0]
    row[~np.isfinite(row) | (np.abs(row) > 1e30)] = np.nan
    np.testing.assert_allclose(Demean()(row), row - np.nanmean(row), rtol=1e-12)
    np.testing.assert_allclose(Scale()(row), row / np.nansum(np.abs(row)), rtol=1e-12)


def test_infinities_are_not_values():
    assert same_bits(Demean()([1.0, np.inf, 3.0, -np.inf]), [-1.0, np.nan, 1.0, np.nan])
    assert same_bits(Scale()([1.0, np.inf, -3.0, -np.inf]), [0.25, np.nan, -0.75, np.nan])


def test_a_sum_of_zero_is_no_scale():
    assert np.isnan(Scale()([0.0, -0.0, np.nan])).all()


@pytest.mark.parametrize("cls", [Demean, Scale])
def test_a_row_may_lie_in_memory_as_it_likes(cls):
    row = np.random.default_rng(3).normal(size=77)
    expected = cls()(row)
    misaligned = np.frombuffer(b"x" + row.tobytes(), offset=1, dtype=np.float64)
    for other in (np.repeat(row, 2)[::2], row[::-1].copy()[::-1], misaligned, row.astype(">f8")):
        assert same_bits(cls(N_alloc=77)(other), expected)
    cls().compute((row,), None, None, row, 77)
    assert same_bits(row, expected)


def test_columns_that_are_left_out_do_not_count(make_context):
    context = make_context([[1, 0, 1]])
    assert same_bits(Demean(N_alloc=3)([1.0, 100.0, 3.0], context=context), [-1.0, np.nan, 1.0])
    assert same_bits(Scale(N_alloc=3)([1.0, 100.0, 3.0], context=context), [0.25, np.nan, 0.75])


@pytest.mark.parametrize("cls", [Demean, Scale])
def test_has_no_state_and_no_parameters(cls):
    assert cls().stateful is False
    assert cls().get_state() == {}
    assert repr(cls(N_alloc=2)) == f"{cls.__name__}(N_alloc=2)"
    assert (cls._name, cls.arity) == (cls.__name__.lower(), 1)


@pytest.mark.parametrize("number", [0.1, -0.7, 1e300, 5e-324, 1.7e308, 3.0])
@pytest.mark.parametrize("count", [1, 2, 3, 7, 300, 1000])
def test_equal_numbers_are_at_no_distance_from_their_mean(count, number):
    row = np.full(count + 1, number)
    row[-1] = np.nan
    assert Demean(N_alloc=count + 1)(row)[:-1].tolist() == [0.0] * count
