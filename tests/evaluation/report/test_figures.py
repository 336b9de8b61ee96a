"""What a report shows is what the evaluation's frames say."""

import numpy as np
import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")

from evaluation.report.judged import table  # noqa: E402
from quorvane.evaluation.report import figures  # noqa: E402


def compound(means):
    """What 1 has become when each day begins to earn, by the returns of the days before."""
    return (1.0 + means.fillna(0.0)).cumprod()


@pytest.mark.parametrize("lag", [1, 3])
def test_growth_is_the_compound_of_the_one_day_returns_by_quantile(lag):
    found = qv.evaluate(table(seed=1), table(), horizons=[1], quantiles=3, lag=lag)
    grown = figures.growth(found)
    means = found.quantile_returns[1]
    expected = compound(means).shift(lag).fillna(1.0)
    np.testing.assert_allclose(grown.quantiles, expected, rtol=1e-14)
    spread = compound(means[3] - means[1]).shift(lag).fillna(1.0)
    np.testing.assert_allclose(grown.spread, spread, rtol=1e-14)
    assert (grown.quantiles[lag - 1] == 1.0).all()


def test_a_return_counts_on_its_own_day():
    returns = table(instruments=5)
    returns[:] = 0.0
    returns.iloc[60] = 0.1
    signal = table(instruments=5, seed=1)
    for lag in (1, 4):
        grown = figures.growth(qv.evaluate(signal, returns, lag=lag))
        assert (grown.quantiles[:60] == 1.0).all()
        np.testing.assert_allclose(grown.quantiles[60:], 1.1)


def test_what_a_signal_of_each_week_says_is_held_until_the_next():
    returns = table()
    signal = table(seed=1).iloc[::5]
    grown = figures.growth(qv.evaluate(signal, returns, horizons=[1], quantiles=2))
    held = (1.0 + returns).cumprod()
    weekly = held.iloc[5::5].to_numpy() / held.iloc[:-5:5].to_numpy() - 1.0
    upper = signal.rank(axis=1, pct=True).to_numpy()[:-1] > 0.5
    means = [row[chosen].mean() for row, chosen in zip(weekly, upper, strict=True)]
    expected = np.cumprod([1.0, *(1.0 + np.array(means))])
    np.testing.assert_allclose(grown.quantiles[:, 1], expected, rtol=1e-12)


def test_growth_needs_no_horizon_of_one_day_and_stands_still_without_returns():
    returns = table()
    returns.iloc[50:60] = np.nan
    signal = table(seed=1)
    grown = figures.growth(qv.evaluate(signal, returns, horizons=[20]))
    same = figures.growth(qv.evaluate(signal, returns, horizons=[1]))
    np.testing.assert_array_equal(grown.quantiles, same.quantiles)
    assert (grown.quantiles[50:60] == grown.quantiles[49]).all()


def test_a_quantile_that_is_never_held_does_not_grow():
    found = qv.evaluate(table(instruments=3, seed=1), table(instruments=3), quantiles=5)
    grown = figures.growth(found)
    empty = np.isnan(grown.quantiles).all(axis=0)
    assert empty.tolist() == [False, True, False, True, False]


def test_a_long_history_is_drawn_by_few_points_of_which_the_last_is_the_end():
    found = qv.evaluate(table(days=3000, seed=1), table(days=3000), horizons=[1])
    grown = figures.growth(found)
    assert len(grown.days) == figures.MOST_POINTS
    assert grown.days[-1] == 2999
    # What the last day's signal earns is not known yet.
    final = compound(found.quantile_returns[1]).iloc[-2]
    np.testing.assert_allclose(grown.quantiles[-1], final, rtol=1e-12)


def test_holdings_are_the_last_weights_with_the_largest_first():
    signal = table(instruments=30, seed=1)
    found = qv.evaluate(signal, table(instruments=30))
    held = figures.holdings(found)
    last = found.weights.iloc[-1]
    assert held.day == 119
    assert dict(held.longs) == last.nlargest(10).to_dict()
    assert [name for name, _ in held.shorts] == last.nsmallest(10).index.tolist()
    assert held.others == int((last != 0.0).sum()) - len(held.longs) - len(held.shorts)


def test_holdings_are_of_the_last_day_that_has_a_signal():
    signal = table(seed=1)
    signal.iloc[-3:] = np.nan
    assert figures.holdings(qv.evaluate(signal, table())).day == 116
    signal[:] = np.nan
    assert figures.holdings(qv.evaluate(signal, table())) == figures.Holdings(-1, [], [], 0)


def test_the_standard_error_is_the_mean_over_its_t_statistic():
    found = qv.evaluate(table(seed=1), table(), horizons=[1, 5])
    means, errors = figures.correlation_bars(found)
    np.testing.assert_allclose(means / errors, found.summary["ic_t"] * np.sign(means) ** 2)
    assert (errors > 0.0).all()


@pytest.mark.parametrize(("days", "window"), [(1, 1), (7, 1), (400, 100), (5000, 250)])
def test_lines_through_time_are_means_over_a_year_or_a_quarter(days, window):
    assert figures.smoothing(days) == window


def test_a_smoothed_line_is_the_running_mean():
    frame = table(days=80)
    days, means = figures.smoothed(frame)
    assert days.tolist() == list(range(80))
    np.testing.assert_allclose(means[-1], frame.iloc[-20:].mean())
    assert np.isnan(means[8]).all()
    np.testing.assert_allclose(means[9], frame.iloc[:10].mean())


def test_the_heat_map_has_the_highest_mean_above():
    signal = table(seed=1, days=30)
    cells = figures.heat_map(qv.evaluate(signal, table(days=30)))
    assert cells.names == signal.mean().sort_values(ascending=False).index.tolist()
    np.testing.assert_array_equal(cells.means, signal[cells.names].to_numpy().T)
    assert (cells.groups, cells.silent, cells.left_out) == (None, 0, 0)


def test_the_heat_map_keeps_groups_together():
    signal = table(seed=1)
    groups = {name: "abc"[number % 3] for number, name in enumerate(signal.columns)}
    cells = figures.heat_map(qv.evaluate(signal, table()), groups)
    assert cells.groups == [*"aaaabbbbcccc"]
    means = signal.mean()
    for group in "abc":
        inside = [n for n, g in zip(cells.names, cells.groups, strict=True) if g == group]
        assert means[inside].is_monotonic_decreasing


def test_the_heat_map_says_how_many_it_does_not_show():
    signal = table(instruments=100, seed=1)
    signal[["I3", "I4"]] = np.nan
    cells = figures.heat_map(qv.evaluate(signal, table(instruments=100)))
    assert (len(cells.names), cells.silent, cells.left_out) == (40, 2, 58)
    order = signal.mean().drop(["I3", "I4"]).sort_values(ascending=False).index
    assert (cells.names[0], cells.names[-1]) == (order[0], order[-1])


def test_means_over_runs_of_days_leave_out_what_is_missing():
    values = np.array([[1.0, np.nan], [3.0, np.inf], [5.0, np.nan], [np.nan, 2.0], [9.0, 4.0]])
    means, starts = figures.means_over_runs(values, 3)
    np.testing.assert_array_equal(starts, [0, 2, 4])
    np.testing.assert_array_equal(means, [[2.0, np.nan], [5.0, 2.0], [9.0, 4.0]])
