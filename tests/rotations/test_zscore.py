import numpy as np
import pytest

from quorvane.functions.rotations.latitudinal.normalize import ZScore
from support.series import DELIBERATE_ROWS, random_rows, same_bits

EPS = np.finfo(float).eps


def reference(row):
    """In extended precision, by the definition."""
    row = np.asarray(row, dtype=np.longdouble)
    finite = np.isfinite(row)
    out = np.full(len(row), np.nan)
    if finite.sum() < 2:
        return out
    mean = row[finite].mean()
    std = np.sqrt(((row[finite] - mean) ** 2).mean())
    if std > EPS * abs(mean):
        out[finite] = (row[finite] - mean) / std
    return out


def assert_close(got, expected, row):
    """Within a few roundings of the row's largest value, in units of its deviation."""
    assert (np.isnan(got) == np.isnan(expected)).all()
    finite = np.isfinite(row)
    if not (~np.isnan(expected)).any():
        return
    wide = np.asarray(row, dtype=np.longdouble)[finite]
    std = np.sqrt(((wide - wide.mean()) ** 2).mean())
    rounding = 4 * EPS * (1 + float(np.abs(wide).max() / std))
    assert np.nanmax(np.abs(got - expected)) <= rounding


def scipy_zscore(row):
    stats = pytest.importorskip("scipy.stats")
    finite = np.isfinite(row)
    with np.errstate(all="ignore"):
        return stats.zscore(np.where(finite, row, np.nan), ddof=0, nan_policy="omit")


def overflows(row):
    """Whether the squares of the row leave the range of float64, where SciPy has no answer."""
    finite = np.abs(row[np.isfinite(row)])
    return finite.size > 0 and (finite.max() > 1e150 or finite.max() < 1e-150)


@pytest.mark.parametrize("columns", [2, 5, 130, 3000])
def test_is_scipy_zscore_within_rounding(columns):
    zscore = ZScore(N_alloc=columns)
    compared = 0
    rows = random_rows(columns, days=40, columns=columns)
    rows[np.abs(rows) > 1e100] = np.nan
    for row in rows:
        if np.isfinite(row).sum() < 2 or overflows(row):
            continue
        compared += 1
        assert_close(zscore(row), scipy_zscore(row), row)
    assert compared > 10


@pytest.mark.parametrize("columns", [3, 40, 1025, 100_000])
@pytest.mark.parametrize(("center", "width"), [(0.0, 1.0), (1e6, 1e-3), (-3e-200, 1e-201)])
def test_is_the_definition_within_rounding(columns, center, width):
    rng = np.random.default_rng(columns)
    row = center + width * rng.normal(size=columns)
    row[rng.random(columns) < 0.1] = np.nan
    assert_close(ZScore()(row), reference(row), row)


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_deliberate_rows(row):
    row = np.array(row, dtype=float)
    if np.finfo(np.longdouble).maxexp > 2000:
        assert_close(ZScore()(row), reference(row), row)


@pytest.mark.parametrize("value", [0.1, -7.3, 1e300, 1e-310, 0.0, 3.0])
@pytest.mark.parametrize("columns", [2, 3, 1000])
def test_equal_values_give_nan(value, columns):
    row = np.full(columns + 1, value)
    row[0] = np.nan
    assert np.isnan(ZScore()(row)).all()


def test_a_spread_within_the_rounding_of_the_mean_gives_nan():
    assert np.isnan(ZScore()([1e16, 1e16 + 2, 1e16, 1e16])).all()
    assert not np.isnan(ZScore()([1e15, 1e15 + 2, 1e15, 1e15])).any()


def test_infinities_are_not_values():
    assert same_bits(ZScore()([1.0, np.inf, 3.0, -np.inf]), [-1.0, np.nan, 1.0, np.nan])


@pytest.mark.parametrize("exponent", [-1060, -700, 700, 1018])
def test_is_the_same_at_every_scale(exponent):
    row = np.array([1.0, -2.0, np.nan, 3.5, 0.25])
    assert same_bits(ZScore()(np.ldexp(row, exponent)), ZScore()(row))


def test_columns_that_are_left_out_do_not_count(make_context):
    out = ZScore(N_alloc=3)([1.0, 100.0, 3.0], context=make_context([[1, 0, 1]]))
    assert same_bits(out, [-1.0, np.nan, 1.0])


def test_has_no_state_and_no_parameters():
    zscore = ZScore(N_alloc=2)
    assert zscore.stateful is False
    assert zscore.get_state() == {}
    assert repr(zscore) == "ZScore(N_alloc=2)"
    assert (ZScore._name, ZScore.arity) == ("latitudinal_normalize_092871", 1)
