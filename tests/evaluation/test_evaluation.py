"""evaluate(): tables aligned by name and date, no look-ahead, frames and their summary."""

import sys

import numpy as np
import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")
NAMES = [f"I{i}" for i in range(20)]


def made(days=300, seed=3):
    index = pandas.bdate_range("2023-01-02", periods=days, name="day")
    draw = np.random.default_rng(seed).normal(scale=0.01, size=(days, len(NAMES)))
    return pandas.DataFrame(draw, index=index, columns=NAMES)


def test_a_signal_that_knows_tomorrow_is_perfect():
    returns = made()
    found = qv.evaluate(returns.shift(-1), returns, horizons=[1])
    assert found.ic[1].dropna().eq(1.0).all()
    assert found.quantile_returns[1].dropna().diff(axis=1).iloc[:, 1:].gt(0.0).all().all()


def test_a_signal_that_is_today_s_return_has_no_advantage():
    returns = made(days=2_000)
    found = qv.evaluate(returns, returns, horizons=[1, 5])
    assert found.summary["ic_t"].abs().lt(4.0).all()
    assert found.summary["ic_mean"].abs().lt(0.03).all()


def test_what_comes_later_changes_no_earlier_figure():
    returns = made()
    signal = made(seed=4)
    changed = returns.copy()
    changed.iloc[200:] = 0.5
    before, after = (qv.evaluate(signal, each, horizons=[1, 5]) for each in (returns, changed))
    for name in ("ic", "profit", "quantile_returns"):
        a, b = getattr(before, name), getattr(after, name)
        pandas.testing.assert_frame_equal(a.iloc[:195], b.iloc[:195])
        assert not a.iloc[199:].equals(b.iloc[199:])


def test_a_lag_leaves_days_out():
    returns = made()
    late = qv.evaluate(returns.shift(-3), returns, horizons=[1], lag=3)
    assert late.ic[1].dropna().eq(1.0).all()
    assert qv.evaluate(returns.shift(-3), returns, horizons=[1]).ic[1].abs().mean() < 0.3


def test_columns_and_days_are_found_by_name():
    returns, signal = made(), made(seed=4).iloc[50:250]
    shuffled = returns[NAMES[::-1]].assign(other=1.0)
    expected = qv.evaluate(signal, returns)
    found = qv.evaluate(signal[[*NAMES[5:], *NAMES[:5]]], shuffled)
    pandas.testing.assert_frame_equal(found.ic, expected.ic)
    pandas.testing.assert_frame_equal(found.summary, expected.summary, rtol=1e-12)


def test_what_is_not_in_the_returns_is_named():
    returns = made()
    with pytest.raises(ValueError, match=r"returns: no instrument 'GE'"):
        qv.evaluate(returns.assign(GE=1.0), returns)
    with pytest.raises(ValueError, match=r"no rows for days of the signal: '2023-01-04'"):
        qv.evaluate(returns, returns.drop(pandas.Timestamp("2023-01-04")))
    with pytest.raises(ValueError, match="as many rows, got 300 and 299"):
        qv.evaluate(returns.to_numpy(), returns.to_numpy()[1:])
    with pytest.raises(ValueError, match="one of them is an array"):
        qv.evaluate(returns.to_numpy(), returns)


def test_tables_of_every_kind_give_the_same():
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    returns, signal = made(), made(seed=4)
    expected = qv.evaluate(signal, returns).summary
    arrays = qv.evaluate(signal.to_numpy(), returns.to_numpy()).summary
    pandas.testing.assert_frame_equal(arrays, expected)
    frames = [
        polars.DataFrame({"day": each.index.to_numpy(), **{n: each[n].to_numpy() for n in NAMES}})
        for each in (signal, returns)
    ]
    pandas.testing.assert_frame_equal(qv.evaluate(*frames).summary, expected)


def test_the_summary_says_what_the_frames_say():
    returns, signal = made(), made(seed=4)
    signal.iloc[::7, 3:9] = np.nan
    found = qv.evaluate(signal, returns, horizons=(1, 5), cost=0.001)
    row = found.summary.loc[5]
    assert row["ic_mean"] == pytest.approx(found.ic[5].mean())
    assert row["ic_std"] == pytest.approx(found.ic[5].std())
    assert row["ic_positive"] == pytest.approx((found.ic[5].dropna() > 0.0).mean())
    assert row["days"] == found.ic[5].count()
    assert row["turnover"] == pytest.approx(found.turnover.mean())
    assert row["coverage"] == pytest.approx(signal.notna().mean(axis=1).mean())
    assert row["profit_ratio"] == pytest.approx(found.profit[5].mean() / found.profit[5].std())
    traded = found.weights.diff(5).abs().sum(axis=1)
    assert row["net_mean"] == pytest.approx((found.profit[5] - 0.001 * traded).mean())
    assert row["profit_days"] == found.profit[5].count()
    assert "ic_mean" in repr(found)
    assert "<table" in found._repr_html_()


def test_weights_turnover_and_profit_are_those_of_pandas():
    returns, signal = made(), made(seed=4)
    signal.iloc[10] = np.nan
    found = qv.evaluate(signal, returns, horizons=[1])
    weights = signal.div(signal.abs().sum(axis=1), axis=0).fillna(0.0)
    pandas.testing.assert_frame_equal(
        found.weights,
        weights,
        check_freq=False,
        check_names=False,
        check_index_type=False,
        rtol=1e-12,
    )
    turnover = weights.diff().abs().sum(axis=1, min_count=1)
    np.testing.assert_allclose(found.turnover, turnover, rtol=1e-12)
    profit = (weights * returns.shift(-1)).sum(axis=1, min_count=1)
    profit.iloc[10] = np.nan
    np.testing.assert_allclose(found.profit[1], profit, rtol=1e-9, atol=1e-18)


def test_days_before_the_first_signal_change_no_figure():
    returns, signal = made(), made(seed=4)
    late = signal.copy()
    late.iloc[:100] = np.nan
    whole = qv.evaluate(late, returns).summary.drop(columns="coverage")
    part = qv.evaluate(signal.iloc[100:], returns).summary.drop(columns="coverage")
    pandas.testing.assert_frame_equal(whole, part)


def test_days_that_are_named_are_found_by_name():
    returns = made().rename_axis(None)
    numbered = returns.set_axis(returns.index.strftime("%Y%m%d").astype(int))
    signal = numbered.shift(1)
    expected = qv.evaluate(returns.shift(1), returns).summary
    found = qv.evaluate(signal.iloc[2:], numbered)
    assert found.ic.index.equals(numbered.index[2:])
    assert found.summary["ic_mean"].to_numpy() == pytest.approx(
        expected["ic_mean"].to_numpy(), abs=0.02
    )
    with pytest.raises(ValueError, match="no rows for days of the signal: 20230102"):
        qv.evaluate(numbered, numbered.iloc[1:])
    with pytest.raises(ValueError, match="their days descend"):
        qv.evaluate(numbered.iloc[::-1], numbered.iloc[::-1])
    with pytest.raises(ValueError, match="in the order of those of the returns"):
        qv.evaluate(numbered.iloc[[0, 2, 1]], numbered)
    with pytest.raises(ValueError, match="must name each day once"):
        qv.evaluate(numbered, numbered.iloc[[0, 0, 1]])
    with pytest.raises(ValueError, match="no rows for days of the signal: 20230102"):
        qv.evaluate(numbered, returns.reset_index(drop=True))


def test_frames_have_the_signal_s_own_days():
    returns = made().tz_localize("America/New_York")
    found = qv.evaluate(returns, returns)
    assert found.ic.index.equals(returns.index)
    assert found.turnover.index.name == "date"
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    frame = polars.from_pandas(returns.reset_index())
    assert qv.evaluate(frame, frame).ic.index.equals(returns.index.tz_convert("UTC"))


def test_a_column_of_days_that_is_not_of_dates_is_to_be_named():
    polars = pytest.importorskip("polars")
    pytest.importorskip("narwhals")
    texts = made().reset_index().astype({"day": str})
    frame = polars.from_pandas(texts)
    with pytest.raises((ValueError, TypeError)):
        qv.evaluate(frame, frame)
    numbers = polars.from_pandas(texts.drop(columns="day").assign(day=range(300)))
    with pytest.raises(ValueError, match="name the one that says the days with date="):
        qv.evaluate(numbers, numbers)
    named = qv.evaluate(frame, frame, date="day").summary
    pandas.testing.assert_frame_equal(named, qv.evaluate(made(), made()).summary)


def test_instruments_may_be_named_as_the_columns_of_the_long_table():
    frame = made(days=3).iloc[:, :2].set_axis(["date", "signal"], axis=1)
    assert (
        qv.evaluate(frame, frame).to_long()["instrument"].tolist() == ["date"] * 3 + ["signal"] * 3
    )


def test_a_horizon_beyond_the_end_has_no_figures():
    returns = made(days=10)
    found = qv.evaluate(returns, returns, horizons=[10**9], lag=10**12)
    assert found.summary["days"].tolist() == [0]


def test_a_long_table_has_a_row_for_each_signal():
    signal = made(days=3).iloc[:, :2]
    signal.iloc[1, 0] = np.nan
    long = qv.evaluate(signal, made(days=3)).to_long()
    assert long.columns.tolist() == ["date", "instrument", "signal"]
    assert len(long) == 5
    wide = long.pivot(index="date", columns="instrument", values="signal")
    np.testing.assert_array_equal(wide.to_numpy(), signal.to_numpy())


@pytest.mark.parametrize(
    ("options", "error", "text"),
    [
        ({"horizons": 5}, TypeError, "horizons must be several ints"),
        ({"horizons": []}, ValueError, "horizons must be at least one"),
        ({"horizons": [1, 1]}, ValueError, "each once"),
        ({"horizons": [0]}, ValueError, "horizons must be at least 1, got 0"),
        ({"horizons": [1.5]}, TypeError, "horizons must be an int, got 1.5"),
        ({"quantiles": 1}, ValueError, "quantiles must be at least 2, got 1"),
        ({"lag": 0}, ValueError, "lag must be at least 1, got 0"),
        ({"cost": -0.1}, ValueError, "cost must be finite and at least 0"),
        ({"cost": "1"}, TypeError, "cost must be a number"),
        ({"cost": float("nan")}, ValueError, "cost must be finite"),
    ],
)
def test_an_argument_that_makes_no_sense_is_refused(options, error, text):
    returns = made(days=5)
    with pytest.raises(error, match=text):
        qv.evaluate(returns, returns, **options)


def test_a_signal_without_a_number_has_no_figures():
    returns = made(days=10)
    found = qv.evaluate(returns * np.nan, returns, horizons=[1])
    assert found.summary.loc[1, "days"] == 0
    assert np.isnan(found.summary.loc[1, "ic_mean"])
    assert found.summary.loc[1, "coverage"] == 0.0
    assert len(found.to_long()) == 0


def test_without_pandas_it_says_what_to_install(monkeypatch):
    returns = made(days=10).to_numpy()
    monkeypatch.setitem(sys.modules, "pandas", None)
    found = qv.evaluate(returns, returns)
    with pytest.raises(ImportError, match=r"pip install 'quorvane\[evaluation\]'"):
        found.ic  # noqa: B018


def test_rows_that_were_cut_off_are_told_by_their_numbers():
    returns = made(days=60).reset_index(drop=True)
    whole = qv.evaluate(returns.shift(-1), returns, horizons=[1]).ic[1]
    assert whole.dropna().eq(1.0).all()
    later = qv.evaluate(returns.shift(-1)[10:], returns, horizons=[1]).ic[1]
    pandas.testing.assert_series_equal(later, whole[10:], check_names=False)
    with pytest.raises(ValueError, match="no rows for days of the signal: 59"):
        qv.evaluate(returns[1:], returns[:-1], horizons=[1])
    with pytest.raises(ValueError, match="no rows for days of the signal: 0"):
        qv.evaluate(returns[:-1], returns[1:], horizons=[1])


def test_text_that_is_no_date_has_no_order():
    returns = made(days=5)
    returns.index = ["w5", "w4", "w3", "w2", "w1"]
    assert len(qv.evaluate(returns, returns, horizons=[1]).ic) == 5


@pytest.mark.parametrize("form", ["%Y-%m-%d", "%Y%m%d"])
def test_dates_as_text_that_are_in_no_order_are_refused(form):
    returns = made(days=20)
    returns.index = returns.index.strftime(form)
    assert len(qv.evaluate(returns, returns, horizons=[1]).ic) == 20
    shuffled = returns.sample(frac=1.0, random_state=1)
    with pytest.raises(ValueError, match="their days descend; allowed is the order of time"):
        qv.evaluate(shuffled, shuffled, horizons=[1])


def test_horizons_and_lags_beyond_everything_find_nothing():
    returns = made(days=5)
    found = qv.evaluate(returns, returns, horizons=[1, 10**20], lag=10**20)
    assert found.ic.isna().all().all()
    assert found.summary["days"].tolist() == [0, 0]
