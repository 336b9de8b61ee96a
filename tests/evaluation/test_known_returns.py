"""What is known of returns serves the next signal, and changes no figure."""

import sys
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import quorvane as qv
from quorvane.evaluation import following, statistics
from quorvane.evaluation.aligned import align
from quorvane.evaluation.evaluation import evaluate_aligned
from quorvane.evaluation.following import KnownReturns

pandas = pytest.importorskip("pandas")


def made(seed, days=120, missing=0.05):
    draw = np.random.default_rng(seed)
    values = draw.normal(scale=0.01, size=(days, 15))
    values[draw.random(values.shape) < missing] = np.nan
    return pandas.DataFrame(values, index=pandas.bdate_range("2023-01-02", periods=days))


def same(left, right):
    pandas.testing.assert_frame_equal(left, right, check_exact=True)


def test_signals_one_after_the_other_get_the_figures_that_each_has_alone():
    returns, known = made(0), KnownReturns()
    late = made(5)
    late.iloc[:40] = np.nan
    for signal in (made(1), made(2, missing=0.3), late, made(1), made(3).iloc[20:80], returns):
        expected = qv.evaluate(signal, returns)
        found = evaluate_aligned(align(signal, returns, None), known)
        same(found.summary, expected.summary)
        same(found.ic, expected.ic)
        same(found.quantile_returns, expected.quantile_returns)


def test_other_horizons_and_lags_are_not_mixed_up():
    returns, signal, known = made(0), made(1), KnownReturns()
    for arguments in ({"lag": 2}, {"horizons": [5, 2]}, {"lag": 2, "horizons": [2]}, {}):
        found = evaluate_aligned(align(signal, returns, None), known, **arguments)
        same(found.ic, qv.evaluate(signal, returns, **arguments).ic)


def test_columns_in_another_order_are_others():
    returns, signal, known = made(0), made(1), KnownReturns()
    for columns in (list(signal.columns), list(signal.columns)[::-1], [3, 5, 7, 9]):
        found = evaluate_aligned(align(signal[columns], returns, None), known)
        same(found.summary, qv.evaluate(signal[columns], returns).summary)


def test_several_threads_may_ask_at_once():
    returns, known = made(0), KnownReturns()
    signals = [made(seed, missing=0.1 * (seed % 3)) for seed in range(1, 13)]
    expected = [qv.evaluate(signal, returns).summary for signal in signals]
    start = threading.Barrier(4)

    def judged(number):
        if number < 4:
            start.wait()
        signal = signals[number]
        return evaluate_aligned(align(signal, returns, None), known).summary

    pause = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)
    try:
        with ThreadPoolExecutor(4) as executor:
            found = list(executor.map(judged, range(12)))
    finally:
        sys.setswitchinterval(pause)
    for left, right in zip(found, expected, strict=True):
        same(left, right)


def test_what_follows_is_found_once_and_ranked_where_it_differs(monkeypatch):
    returns, known = made(0), KnownReturns()
    forward, ranked = [], []
    real_forward, real_ranks = statistics.forward_returns, statistics.twice_ranks
    monkeypatch.setattr(
        following, "forward_returns", lambda *given: forward.append(1) or real_forward(*given)
    )
    monkeypatch.setattr(
        statistics, "twice_ranks", lambda values: ranked.append(len(values)) or real_ranks(values)
    )
    first, second, third = made(1, missing=0.0), made(2, missing=0.0), made(3, missing=0.0)
    second.iloc[7, 3] = np.nan
    third.iloc[:100] = np.nan
    told = []
    for signal in (first, second, third, first, second):
        forward.clear()
        ranked.clear()
        assert len(evaluate_aligned(align(signal, returns, None), known, horizons=[1]).ic) == 120
        told.append((len(forward), ranked[:]))
    # The signal's own, and of the returns those days on which other instruments count.
    assert told == [
        (1, [120, 120]),
        (0, [120, 1]),
        (0, [120, 100]),
        (0, [120]),
        (0, [120]),
    ]


def test_of_large_tables_no_more_is_kept_than_the_last(monkeypatch):
    monkeypatch.setattr(statistics.Ranked, "MOST_BYTES", 1)
    ranked = statistics.Ranked(made(0).to_numpy())
    expected = ranked.among(ranked.finite)
    assert len(ranked._found) == 1
    ranked.among(np.zeros_like(ranked.finite))
    assert len(ranked._found) == 1
    np.testing.assert_array_equal(ranked.among(ranked.finite), expected)


def test_the_t_statistic_adds_without_a_library_of_vectors():
    # Its sums must not depend on how many threads such a library has, or for which processor.
    series = np.random.default_rng(0).normal(size=30_000)
    apart = series - series.mean()
    expected = series.mean() / (np.sqrt((apart * apart).sum()) / len(series))
    assert statistics.t_statistic(series, np.arange(len(series)), 1) == expected
