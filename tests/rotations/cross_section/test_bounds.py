"""Clip and Winsorize against np.clip and np.nanquantile, to the bit."""

import warnings

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.latitudinal.cross_section import Winsorize
from quorvane.functions.rotations.numerical.clip import Clip
from support.series import DELIBERATE_ROWS, DENORMAL, HUGE, random_rows, same_bits

FRACTIONS = [0.0, 1e-300, 0.01, 0.05, 0.25, 1 / 3, 0.49, np.nextafter(0.5, 0.0)]


def clipped(row, low, high):
    """As np.clip does it from NumPy 2 on: a zero that is a bound keeps its sign."""
    row = np.asarray(row, dtype=float)
    if np.isnan([low, high]).any():
        return np.full(row.shape, np.nan)
    raised = np.where(row < low, low, row)
    return np.where(raised > high, high, raised)


def winsorized(row, fraction):
    row = np.asarray(row, dtype=float)
    if np.isnan(row).all():
        return row
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        # Which zero of two signs NumPy takes depends on the order of all.
        return clipped(row, *(np.nanquantile(row, [fraction, 1 - fraction]) + 0.0))


# Around 512 columns quantiles begin to be looked for in buckets.
@pytest.mark.parametrize("columns", [*range(1, 71), 511, 512, 513, 2000, 5000])
def test_is_numpys_quantiles_to_the_bit(columns):
    for row in random_rows(columns, days=3, columns=columns):
        for fraction in FRACTIONS:
            assert same_bits(Winsorize(fraction)(row), winsorized(row, fraction))


ROWS = {
    "rounded": lambda rng, n: np.round(rng.normal(size=n), 1),
    "crowded": lambda rng, n: np.append(
        1.0 + rng.integers(0, n, size=n - 1) * 2.0**-52, 1e300
    ),
    "of all sizes": lambda rng, n: rng.normal(size=n) * 10.0 ** rng.integers(-300, 300, size=n),
    "two values": lambda rng, n: rng.choice([-0.0, 5.0], size=n),
    "zeros": lambda rng, n: rng.choice([-0.0, 0.0], size=n),
    "all equal": lambda rng, n: np.full(n, 0.1),
    "denormals": lambda rng, n: rng.integers(-9, 9, size=n) * DENORMAL,
    "huge": lambda rng, n: rng.choice([HUGE, -HUGE, HUGE / 2], size=n),
    "any bits": lambda rng, n: rng.integers(0, 2**64, size=n, dtype=np.uint64).view(np.float64),
    "infinities": lambda rng, n: rng.choice([np.inf, -np.inf, 1.0, 2.0], size=n),
    "one number": lambda rng, n: np.where(np.arange(n) == n // 2, 3.0, np.nan),
    "few infinities": lambda rng, n: np.where(
        rng.random(n) < 1 / n, np.inf, rng.normal(size=n)
    ),
}  # fmt: skip


@pytest.mark.parametrize("columns", [2, 9, 600, 70_000])
@pytest.mark.parametrize("kind", ROWS)
def test_is_numpys_quantiles_for_every_kind_of_row(kind, columns):
    rng = np.random.default_rng(columns)
    row = ROWS[kind](rng, columns)
    for values in (row, np.where(rng.random(columns) < 0.2, np.nan, row)):
        for fraction in FRACTIONS:
            assert same_bits(Winsorize(fraction)(values), winsorized(values, fraction))


def test_is_numpys_quantiles_for_a_million_columns():
    row = np.random.default_rng(1).normal(size=1_000_000)
    row[::13] = np.nan
    assert same_bits(Winsorize(0.01)(row), winsorized(row, 0.01))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
@pytest.mark.parametrize("fraction", FRACTIONS)
def test_deliberate_rows(row, fraction):
    assert same_bits(Winsorize(fraction)(row), winsorized(row, fraction))


@given(st.lists(st.floats(), max_size=40), st.floats(0.0, 0.5, exclude_max=True))
def test_any_row_is_winsorized_as_numpy_does_it(row, fraction):
    assert same_bits(Winsorize(fraction)(row), winsorized(row, fraction))


def test_there_is_no_quantile_between_two_equal_infinities():
    row = [-np.inf, -np.inf, -np.inf, 1.0, 2.0]
    assert np.isnan(Winsorize(0.1)(row)).all()
    one = [-np.inf, 1.0, 2.0, 3.0]
    assert same_bits(Winsorize(0.1)(one), winsorized(one, 0.1))


def test_one_workspace_serves_rows_of_all_lengths():
    rng, winsorize = np.random.default_rng(2), Winsorize(0.1, N_alloc=9000)
    for columns in (9000, 3, 5000, 600, 8999, 1):
        row = rng.normal(size=columns)
        assert same_bits(winsorize(row), winsorized(row, 0.1))


@given(
    st.lists(st.floats(), max_size=40),
    st.floats(allow_nan=False),
    st.floats(allow_nan=False),
)
def test_any_row_is_clipped_as_numpy_does_it(row, one, other):
    low, high = min(one, other), max(one, other)
    assert same_bits(Clip(low, high)(row), clipped(row, low, high))


@pytest.mark.parametrize("columns", [*range(71), 1000, 1_000_000])
def test_clips_rows_of_any_length(columns):
    row = random_rows(1, days=1, columns=columns)[0]
    for low, high in ((-1.0, 1.0), (-np.inf, 0.0), (-0.0, 0.0), (0.0, -0.0), (np.inf, np.inf)):
        assert same_bits(Clip(low, high)(row), clipped(row, low, high))


@pytest.mark.skipif(
    np.lib.NumpyVersion(np.__version__) < "2.0.0", reason="older NumPy loses signs of zero"
)
@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
def test_is_numpys_clip_to_the_bit(row):
    for low, high in ((-1.0, 1.0), (-np.inf, 0.0), (-0.0, 0.0), (0.0, -0.0), (np.inf, np.inf)):
        assert same_bits(Clip(low, high)(row), np.clip(np.array(row, dtype=float), low, high))


def test_a_zero_that_is_a_bound_keeps_its_sign():
    for low, high in ((0.0, 1.0), (-0.0, 1.0), (-1.0, 0.0), (-1.0, -0.0)):
        assert same_bits(Clip(low, high)([0.0, -0.0]), [0.0, -0.0])


@pytest.mark.parametrize("make", [lambda: Clip(-0.5, 0.5), lambda: Winsorize(0.1)])
def test_a_row_may_lie_in_memory_as_it_likes(make):
    row = np.random.default_rng(3).normal(size=77)
    expected = make()(row)
    misaligned = np.frombuffer(b"x" + row.tobytes(), offset=1, dtype=np.float64)
    for other in (np.repeat(row, 2)[::2], row[::-1].copy()[::-1], misaligned, row.astype(">f8")):
        assert same_bits(make()(other), expected)
    make().compute((row,), None, None, row, 77)
    assert same_bits(row, expected)


def test_columns_that_are_left_out_do_not_count(make_context):
    out = Winsorize(0.25, N_alloc=4)([1.0, 2.0, 1e9, 3.0], context=make_context([[1, 1, 0, 1]]))
    assert same_bits(out, [1.5, 2.0, np.nan, 2.5])


@pytest.mark.parametrize("fraction", [True, "0.1", None, np.float32(0.1), [0.1]])
def test_a_fraction_of_another_type(fraction):
    with pytest.raises(
        TypeError, match=r"^fraction must be a number from 0 on and below 0\.5, got"
    ):
        Winsorize(fraction)


@pytest.mark.parametrize("fraction", [0.5, -0.1, 1, np.nan, np.inf, 10**400])
def test_a_fraction_out_of_range(fraction):
    with pytest.raises(ValueError, match=r"^fraction must be a number from 0 on and below 0\.5"):
        Winsorize(fraction)
    winsorize = Winsorize(0)
    winsorize.fraction = fraction
    with pytest.raises(ValueError, match=r"^fraction must be a number from 0 on and below 0\.5"):
        winsorize([1.0])


@pytest.mark.parametrize("bound", [True, "1", None, np.float32(1), [1]])
def test_a_bound_of_another_type(bound):
    with pytest.raises(TypeError, match=r"^low must be a number, got .* of type"):
        Clip(bound, 1.0)
    with pytest.raises(TypeError, match=r"^high must be a number, got .* of type"):
        Clip(1.0, bound)


def test_bounds_that_are_none():
    with pytest.raises(ValueError, match=r"^low must be a number, got nan"):
        Clip(np.nan, 1.0)
    with pytest.raises(ValueError, match=r"^high must be a number, got 1000"):
        Clip(0.0, 10**400)
    with pytest.raises(ValueError, match=r"^low must not be above high, got 2 and 1\.0$"):
        Clip(2, 1.0)
    clip = Clip(0, 1)
    clip.low = 2
    with pytest.raises(ValueError, match=r"^low must not be above high, got 2 and 1$"):
        clip([1.0])


def test_shows_its_parameters():
    assert repr(Clip(-1, 2.5, N_alloc=3)) == "Clip(low=-1, high=2.5, N_alloc=3)"
    assert repr(Winsorize(0.1, N_alloc=3)) == "Winsorize(fraction=0.1, N_alloc=3)"
    assert (Clip._name, Winsorize._name) == ("clip", "winsorize")
    assert Clip(0, 1).stateful is Winsorize(0.1).stateful is False
