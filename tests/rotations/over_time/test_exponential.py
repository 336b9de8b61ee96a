"""Exponentially weighted means and deviations against pandas, to the bit."""

import copy

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quorvane.functions.rotations.longitudinal.ewma import Ewma
from quorvane.functions.rotations.longitudinal.exponential import ExponentialMean, ExponentialStd
from support.series import DELIBERATE_ROWS, HUGE, random_rows, same_bits

BOTH = [ExponentialMean, ExponentialStd]
CENTERS = [0.0, 0.5, 2.3, 9.5, 124.5, 1e6]


def run(rotation, rows):
    return np.array([rotation(row) for row in rows]).reshape(np.shape(rows))


def decay_of(center):
    return 1.0 - 1.0 / (1.0 + center)


def by_pandas(cls, rows, center):
    pandas = pytest.importorskip("pandas")
    weighted = pandas.DataFrame(rows).ewm(com=center)
    return (weighted.mean() if cls is ExponentialMean else weighted.std()).to_numpy()


@pytest.mark.parametrize("center", CENTERS)
@pytest.mark.parametrize("cls", BOTH)
def test_is_pandas_ewm_to_the_bit(cls, center):
    for seed in range(20):
        rows = random_rows(seed, days=60, columns=23)
        got = run(cls(decay_of(center), N_alloc=23), rows)
        assert same_bits(got, by_pandas(cls, rows, center))


@pytest.mark.parametrize("cls", BOTH)
def test_is_pandas_ewm_at_any_length(cls):
    for days in range(71):
        rows = random_rows(days, days=days, columns=3)
        expected = by_pandas(cls, rows, 4.0).reshape(days, 3)
        assert same_bits(run(cls(decay_of(4.0), N_alloc=3), rows), expected)


@pytest.mark.parametrize("cls", BOTH)
def test_is_pandas_ewm_over_a_long_history(cls):
    rows = np.random.default_rng(1).normal(size=(20_000, 1))
    rows[np.random.default_rng(2).random(rows.shape) < 0.3] = np.nan
    got = run(cls(decay_of(20.0), N_alloc=1), rows)
    assert same_bits(got, by_pandas(cls, rows, 20.0))


@pytest.mark.parametrize("row", DELIBERATE_ROWS.values(), ids=DELIBERATE_ROWS.keys())
@pytest.mark.parametrize("cls", BOTH)
def test_deliberate_columns(cls, row):
    rows = np.array(row, dtype=float).reshape(-1, 1)
    got = run(cls(decay_of(2.0), N_alloc=1), rows)
    assert same_bits(got, by_pandas(cls, rows, 2.0).reshape(-1, 1))


@pytest.mark.parametrize("span", [1, 2, 20, 250])
def test_a_span_is_the_mean_that_has_one(span):
    rows = random_rows(span, days=60, columns=9)
    got = run(ExponentialMean(decay_of((span - 1.0) / 2.0), N_alloc=9), rows)
    assert same_bits(got, run(Ewma(span, N_alloc=9), rows))


def test_the_weights_are_powers_of_the_decay():
    values = [8.0, np.nan, 4.0, np.inf, 1.0]
    out = run(ExponentialMean(0.5, N_alloc=1), np.reshape(values, (-1, 1)))[:, 0]
    assert same_bits(out[:2], [8.0, 8.0])
    assert out[2] == (0.25 * 8.0 + 4.0) / 1.25
    assert out[4] == (1.25 * 0.25 * out[2] + 1.0) / (1.25 * 0.25 + 1.0)


def test_a_deviation_is_missing_before_the_second_number():
    out = run(ExponentialStd(0.5, N_alloc=1), np.reshape([np.nan, 3.0, np.inf, 5.0], (-1, 1)))
    assert np.isnan(out[:3]).all()
    assert out[3, 0] > 0.0


@pytest.mark.parametrize("value", [0.1, -7.3, 1e300, HUGE, 1e-310, -0.0])
@pytest.mark.parametrize("center", CENTERS)
def test_equal_numbers_move_nothing(value, center):
    rows = np.full((50, 1), value)
    rows[np.random.default_rng(1).random(50) < 0.2] = np.nan
    mean = run(ExponentialMean(decay_of(center), N_alloc=1), rows)
    deviation = run(ExponentialStd(decay_of(center), N_alloc=1), rows)
    assert (mean[~np.isnan(mean)] == value).all()
    assert (deviation[~np.isnan(deviation)] == 0.0).all()


def test_a_decay_of_zero_forgets_at_once():
    rows = random_rows(1, days=30, columns=7)
    last = np.full(7, np.nan)
    for row, mean in zip(rows, run(ExponentialMean(0.0, N_alloc=7), rows), strict=True):
        last = np.where(np.isfinite(row), row, last)
        assert (np.isnan(mean) == np.isnan(last)).all()
        assert (mean[~np.isnan(mean)] == last[~np.isnan(last)]).all()
    assert np.isnan(run(ExponentialStd(0.0, N_alloc=7), rows)).all()


@given(
    decay=st.one_of(st.floats(0.0, 1.0, exclude_max=True), st.sampled_from([0.0, 1.0 - 2.0**-53])),
    values=st.lists(st.floats(width=64), max_size=30),
    repeats=st.integers(1, 20),
)
def test_the_state_of_any_history_is_taken_back(decay, values, repeats):
    for cls in BOTH:
        rotation, other = cls(decay, N_alloc=1), cls(decay, N_alloc=1)
        run(rotation, np.reshape(values * repeats, (-1, 1)))
        other.set_state(copy.deepcopy(rotation.get_state()))
        assert same_bits(rotation([1.5]), other([1.5]))
        assert same_bits(rotation.get_state()["memory"], other.get_state()["memory"])


def test_a_variance_that_overflowed_is_taken_back():
    rotation, other = ExponentialStd(0.9, N_alloc=2), ExponentialStd(0.9, N_alloc=2)
    run(rotation, [[1e300, HUGE], [-1e300, -HUGE], [1e300, HUGE]])
    assert not np.isfinite(rotation.get_state()["memory"][3]).any()
    other.set_state(rotation.get_state())
    assert same_bits(rotation([1.0, 2.0]), other([1.0, 2.0]))


@pytest.mark.parametrize("weight", [-0.5, 2.0**53 + 2, np.nan, np.inf])
@pytest.mark.parametrize(("cls", "rows"), [(ExponentialMean, [1]), (ExponentialStd, [1, 2])])
def test_weights_that_no_history_gives_are_refused(cls, rows, weight):
    rotation = cls(0.9, N_alloc=2)
    rotation([1.0, np.nan])
    for row in rows:
        state = rotation.get_state()
        state["memory"][row, 0] = weight
        with pytest.raises(ValueError, match="holds weights that no history gives"):
            rotation.set_state(state)
        # Of a column that has seen nothing they say nothing.
        state["memory"][row] = [1.0, weight]
        rotation.set_state(state)


def test_a_variance_below_zero_is_refused():
    rotation = ExponentialStd(0.9, N_alloc=2)
    state = rotation.get_state()
    state["memory"][:] = [[1.0], [1.0], [1.0], [-1.0]]
    with pytest.raises(ValueError, match="holds variances below 0"):
        rotation.set_state(state)


@pytest.mark.parametrize("cls", BOTH)
def test_there_is_one_position(cls):
    rotation = cls(0.9, N_alloc=2)
    with pytest.raises(ValueError, match=r"state\['position'\] must be 0, got 1$"):
        rotation.set_state({**rotation.get_state(), "position": 1})


@pytest.mark.parametrize("decay", [True, "0.5", None, np.float32(0.5), 0.5j])
@pytest.mark.parametrize("cls", BOTH)
def test_a_decay_of_another_type(cls, decay):
    with pytest.raises(
        TypeError, match=r"^decay must be a number from 0 on and below 1, got .* of"
    ):
        cls(decay, N_alloc=1)


@pytest.mark.parametrize("decay", [1, 1.0, -1e-300, -1, np.nan, np.inf, 10**400])
@pytest.mark.parametrize("cls", BOTH)
def test_a_decay_out_of_range(cls, decay):
    with pytest.raises(ValueError, match=r"^decay must be a number from 0 on and below 1, got "):
        cls(decay, N_alloc=1)


@pytest.mark.parametrize("cls", BOTH)
def test_a_decay_that_was_replaced_is_checked_again(cls):
    rotation = cls(0.5, N_alloc=1)
    rotation.decay = 2.0
    with pytest.raises(ValueError, match=r"^decay must be .*, got 2\.0$"):
        rotation([1.0])
    rotation.decay = 0
    rotation([1.0])


def test_shows_its_decay():
    assert repr(ExponentialMean(0.9, N_alloc=5)) == "ExponentialMean(decay=0.9, N_alloc=5)"
    assert ExponentialStd(0.9, N_alloc=5).parameters == {"decay": 0.9}
    assert (ExponentialMean._name, ExponentialStd._name) == ("ewma", "ewm_std")
