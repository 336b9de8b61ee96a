"""The statistics of an evaluation against SciPy and by hand."""

import numpy as np
import pytest

from quorvane.evaluation import statistics

NAN = float("nan")


def numbers(days=60, columns=12, missing=0.2, seed=5):
    draw = np.random.default_rng(seed)
    table = draw.normal(size=(days, columns))
    table[draw.random(table.shape) < missing] = NAN
    return table


@pytest.mark.parametrize("lag", [1, 3])
@pytest.mark.parametrize("horizon", [1, 2, 5])
def test_forward_returns_compound_from_the_lag_on(horizon, lag):
    returns = numbers(missing=0.05) / 50
    found = statistics.forward_returns(returns, np.arange(len(returns)), horizon, lag)
    for day in range(len(returns)):
        following = returns[day + lag : day + lag + horizon]
        expected = np.prod(1.0 + following, axis=0) - 1.0
        if len(following) < horizon:
            expected = np.full(returns.shape[1], NAN)
        np.testing.assert_allclose(found[day], expected, rtol=1e-12, atol=1e-15)


def test_rank_correlation_is_spearman_s_of_what_both_have():
    stats = pytest.importorskip("scipy.stats")
    left, right = numbers(seed=1).round(1), numbers(seed=2).round(1)
    found = statistics.rank_correlation(*map(statistics.Ranked, (left, right)))
    for day, (a, b) in enumerate(zip(left, right, strict=True)):
        there = ~np.isnan(a) & ~np.isnan(b)
        expected = stats.spearmanr(a[there], b[there]).statistic
        assert found[day] == pytest.approx(expected, abs=1e-12)


def test_rank_correlation_of_too_few_or_of_equal_numbers_is_missing():
    left = np.array([[1.0, 2.0, NAN], [1.0, 1.0, 1.0], [1.0, 2.0, 3.0], [NAN] * 3])
    right = np.array([[3.0, 4.0, 5.0], [1.0, 2.0, 3.0], [1.0, 2.0, 3.0], [1.0, 2.0, 3.0]])
    found = statistics.rank_correlation(*map(statistics.Ranked, (left, right)))
    np.testing.assert_array_equal(found, [NAN, NAN, 1.0, NAN])


def test_quantiles_have_as_many_each_as_can_be():
    signal = np.arange(10.0)[None]
    np.testing.assert_array_equal(
        statistics.quantile_of(signal, 5)[0], [0, 0, 1, 1, 2, 2, 3, 3, 4, 4]
    )
    np.testing.assert_array_equal(statistics.quantile_of(signal[:, :3], 3)[0], [0, 1, 2])
    np.testing.assert_array_equal(statistics.quantile_of(signal[:, :1], 5)[0], [2])


def test_equal_numbers_are_in_one_quantile():
    found = statistics.quantile_of(np.array([[1.0, 1.0, 1.0, 2.0, NAN, np.inf]]), 4)[0]
    np.testing.assert_array_equal(found, [1, 1, 1, 3, NAN, NAN])


def test_a_mean_by_quantile_leaves_missing_returns_out():
    quantile = np.array([[0.0, 0.0, 1.0, 1.0, NAN]])
    forward = np.array([[1.0, 3.0, NAN, NAN, 7.0]])
    np.testing.assert_array_equal(
        statistics.mean_by_quantile(quantile, forward, 3), [[2.0, NAN, NAN]]
    )


def test_weights_have_absolute_sum_one_and_none_where_there_is_no_signal():
    found = statistics.gross_one(np.array([[1.0, -3.0, NAN], [NAN] * 3, [0.0, 0.0, 0.0]]))
    np.testing.assert_array_equal(found, [[0.25, -0.75, 0.0], [0.0] * 3, [0.0] * 3])


def test_turnover_is_the_sum_of_absolute_changes():
    weights = np.array([[0.5, -0.5], [0.5, 0.5], [0.0, 0.0]])
    np.testing.assert_array_equal(
        statistics.turnover(weights, np.array([-1, 0, 1])), [NAN, 1.0, 1.0]
    )


def test_the_row_before_is_the_last_that_lies_so_many_days_back():
    rows = np.array([0, 1, 2, 5, 6, 9])
    np.testing.assert_array_equal(statistics.rows_before(rows, 1, 0), [-1, 0, 1, 2, 3, 4])
    np.testing.assert_array_equal(statistics.rows_before(rows, 3, 0), [-1, -1, -1, 2, 2, 4])
    np.testing.assert_array_equal(statistics.rows_before(rows, 1, 3), [-1, -1, -1, -1, 3, 4])


def test_profit_takes_a_missing_return_for_nothing():
    weights = np.array([[0.5, -0.5], [0.5, -0.5]])
    forward = np.array([[0.1, NAN], [NAN, NAN]])
    both = np.array([True, True])
    np.testing.assert_array_equal(statistics.profit(weights, forward, both), [0.05, NAN])


def test_a_day_without_a_signal_has_no_profit():
    weights, forward = np.array([[0.0, 0.0], [0.0, 0.0]]), np.ones((2, 2))
    found = statistics.profit(weights, forward, np.array([False, True]))
    np.testing.assert_array_equal(found, [NAN, 0.0])


def test_weights_of_huge_numbers_have_absolute_sum_one_too():
    found = statistics.gross_one(np.array([[1e308, -1e308, 1e308, 1e308]]))
    np.testing.assert_array_equal(found, [[0.25, -0.25, 0.25, 0.25]])


@pytest.mark.parametrize("horizon", [1, 2, 5])
def test_the_t_statistic_by_hand(horizon):
    series = np.array([0.3, NAN, -0.1, 0.4, 0.2, -0.3, 0.5])
    known = series[~np.isnan(series)]
    apart = known - known.mean()
    rows = np.arange(len(series))
    # The missing day lies between its neighbours, which are two days apart.
    places = rows[~np.isnan(series)]
    total = 0.0
    for s, a in zip(places, apart, strict=True):
        for t, b in zip(places, apart, strict=True):
            total += max(0.0, 1.0 - abs(s - t) / horizon) * a * b
    expected = known.mean() / np.sqrt(total / len(known) ** 2)
    assert statistics.t_statistic(series, rows, horizon) == pytest.approx(expected, rel=1e-12)


def test_days_that_are_a_horizon_apart_have_nothing_in_common():
    series = np.random.default_rng(3).normal(0.2, size=40)
    far = statistics.t_statistic(series, 5 * np.arange(40), 5)
    assert far == pytest.approx(statistics.t_statistic(series, np.arange(40), 1), rel=1e-12)
    assert far != pytest.approx(statistics.t_statistic(series, np.arange(40), 5), rel=1e-3)


def test_the_t_statistic_of_what_does_not_vary_is_missing():
    assert np.isnan(statistics.t_statistic(np.ones(5), np.arange(5), 1))
    assert np.isnan(statistics.t_statistic(np.array([1.0, NAN]), np.arange(2), 1))
