"""A whole history: the numbers of pandas, by name, in the kind of table that was given."""

import importlib.metadata

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.demo import find_prices, same_sector_pairs
from support.tables_of_baskets import DAY, EXPRESSIONS, NAMES, START, WEIGHTS, numbers, same_bits

NAN = float("nan")


def stocks_of_the_sp500():
    pandas = pytest.importorskip("pandas")
    prices = find_prices()
    if prices is None:
        pytest.skip("the prices are not installed")
    returns = pandas.read_csv(prices, index_col=0, parse_dates=True).pct_change()
    return returns, {f"{a}/{b}": {a: 1.0, b: -1.0} for a, b in same_sector_pairs()}


def stocks_with_holes():
    """Five stocks, listed one after the other; the package that brings them is not run."""
    pandas = pytest.importorskip("pandas")
    try:
        files = importlib.metadata.files("bokeh_sampledata") or []
    except importlib.metadata.PackageNotFoundError:
        pytest.skip("the sample stocks are not installed")
    stocks = next(file.locate() for file in files if file.name == "stocks.csv.gz")
    rows = pandas.read_csv(stocks, skipinitialspace=True, parse_dates=["Date"])
    prices = rows.pivot(index="Date", columns="Ticker", values="Adj Close")
    assert prices.isna().any().any()
    returns = prices.pct_change(fill_method=None)
    returns = returns.mask(np.random.default_rng(1).random(returns.shape) < 0.03)
    weights = {"big": {"AAPL": 0.5, "MSFT": 0.5}, "fb": {"FB": 1.0, "GOOG": -1.0}}
    return returns, {**weights, "ibm": {"IBM": 2.0}, "g": {"GOOG": 0.3, "IBM": -0.7}}


@pytest.mark.parametrize("data", [stocks_of_the_sp500, stocks_with_holes])
def test_ranks_of_averages_are_those_of_pandas(data):
    pandas = pytest.importorskip("pandas")
    returns, baskets = data()
    weights = pandas.DataFrame(baskets).reindex(returns.columns)
    legs = weights.notna().astype(float)
    weights = weights.fillna(0.0)
    values = (returns.fillna(0.0) @ weights).where(returns.isna().astype(float) @ legs == 0)
    averages = values.ewm(span=20).mean().where(values.notna())
    ranks = averages.rank(axis=1, pct=True)
    expected = (ranks.fillna(0.0) @ weights.T).where(ranks.notna().astype(float) @ legs.T > 0)
    made = qv.Baskets(baskets, "ewma(20);rank")
    found = made.run(returns)
    pandas.testing.assert_frame_equal(found, expected, rtol=0, atol=1e-12)
    held = made.run(returns, level="basket")
    pandas.testing.assert_frame_equal(held, ranks, rtol=0, atol=1e-12)


@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_a_history_is_the_same_for_every_kind_of_table(make, kind, expression):
    values = numbers()
    dates = START + np.arange(len(values))
    made = make(expression)
    expected = made.run(values, date=dates)
    table = kind.table(values)
    found = made.run(table, date=kind.date(range(len(values))))
    assert type(found) is type(table)
    same_bits(kind.values(found), expected)
    same_bits(kind.values(made.run(table, date=kind.date(range(40)))), expected)
    held = made.run(table, level="basket", date=kind.date(range(len(values))))
    same_bits(kind.values(held), made.run(values, level="basket", date=dates))
    assert kind.values(held).shape == (40, len(made.baskets))


@pytest.mark.parametrize("expression", ["ewma(3);rank", "ewma(3);zscore"])
def test_permuted_columns_give_permuted_results_to_the_bit(make, kind, expression):
    values = numbers()
    order = [3, 0, 4, 2, 1]
    permuted = tuple(NAMES[i] for i in order)
    dates = kind.date(range(len(values)))
    # The array's order is that of the instruments, a frame's columns are found by name.
    other = make(expression, instruments=permuted if kind.name == "array" else NAMES)
    found = other.run(kind.table(values[:, order], permuted), date=dates)
    expected = make(expression).run(kind.table(values), date=dates)
    same_bits(kind.values(found), kind.values(expected)[:, order])


def test_other_columns_come_out_missing_and_rows_stay_as_they_are(frames):
    values = numbers(columns=6)
    given = frames.table(values, ("B", "other", *"DACE"))
    found = qv.Baskets(WEIGHTS, "none").run(given)
    assert list(frames.columns(found)) == list(frames.columns(given))
    assert np.isnan(frames.values(found)[:, 1]).all()
    if frames.name == "pandas":
        frames.library.testing.assert_index_equal(found.index, given.index, exact=True)
        assert found.index.freq == given.index.freq
        return
    assert frames.columns(found)["day"] == frames.columns(given)["day"]
    name = "type" if frames.name == "pyarrow" else "dtype"
    assert getattr(found["day"], name) == getattr(given["day"], name)


def test_an_index_that_is_not_of_dates_is_carried():
    pandas = pytest.importorskip("pandas")
    given = pandas.DataFrame({"A": [1.0, 2.0], "B": [3.0, NAN]}, index=["z", "a"])
    found = qv.Baskets({"p": {"A": 1, "B": 1}}, "none").run(given)
    expected = pandas.DataFrame({"A": [4.0, NAN], "B": [4.0, NAN]}, index=["z", "a"])
    pandas.testing.assert_frame_equal(found, expected)


def test_a_column_of_dates_is_named_where_there_are_several():
    pandas = pytest.importorskip("pandas")
    days = pandas.date_range("2024-01-01", periods=2)
    given = pandas.DataFrame({"seen": days, "A": [1.0, 2.0], "day": days})
    made = qv.Baskets({"p": {"A": 1.0}}, "none")
    with pytest.raises(ValueError, match="2 columns hold dates"):
        made.run(given)
    found = made.run(given, date="day")
    assert list(found.columns) == ["seen", "A", "day"]
    assert found["day"].equals(given["day"])
    assert made.last_date == np.datetime64("2024-01-02")


@pytest.mark.parametrize(
    "values", [[[1, 2], [3, 4]], np.asfortranarray([[1.0, 2.0], [3.0, 4.0]]), np.eye(2, dtype="f4")]
)
def test_arrays_of_any_sort_come_out_as_float64_in_c_order(values):
    found = qv.Baskets(None, "none", instruments=[*"AB"]).run(values)
    assert found.flags.c_contiguous
    assert found.dtype == np.float64
    np.testing.assert_array_equal(found, values)


def test_without_weights_each_column_is_a_basket_of_its_own(kind):
    values = numbers()
    made = qv.Baskets(None, "ewma(3);rank")
    assert made.instruments == ()
    found = kind.values(made.run(kind.table(values)))
    names = range(5) if kind.name == "array" else NAMES
    own = qv.Baskets({name: {name: 1.0} for name in names}, "ewma(3);rank")
    same_bits(found, own.run(values))
    assert made.baskets == made.instruments == tuple(names)
    assert made.run(kind.table(values[:, :2], NAMES[:2])) is not None
    assert made.baskets == tuple(names)[:2]


@pytest.mark.parametrize("go_on", ["run", "update"])
def test_after_a_reset_each_column_of_another_table_is_a_basket(go_on):
    values = numbers()
    made = qv.Baskets(None, "ewma(3);rank")
    made.run(framed(values[:, :2]))
    made.reset()
    found = getattr(made, go_on)(framed(values))
    same_bits(found.to_numpy(), qv.Baskets(None, "ewma(3);rank").run(values))


def framed(values):
    pandas = pytest.importorskip("pandas")
    return pandas.DataFrame(values, columns=list(NAMES[: values.shape[1]]))


def test_a_run_is_the_same_every_time_wherever_the_baskets_stand(make):
    values, days = numbers(), START + np.arange(40)
    made = make("ewma(3);rank")
    expected = made.run(values, date=days)
    made.step(values[0], date=days[-1] + DAY)
    same_bits(made.run(values, date=days), expected)
    made.reset()
    assert made.slots.speaking == made.slots.known == 0
    assert made.last_date is None
    same_bits(made.update(values, date=days), expected)


def test_threads_change_nothing():
    values = numbers(rows=400)
    expected = qv.Baskets(WEIGHTS, "ewma(3);rank", instruments=NAMES, threads=1).run(values)
    found = qv.Baskets(WEIGHTS, "ewma(3);rank", instruments=NAMES, threads=3).run(values)
    same_bits(found, expected)


def test_an_equal_split_gives_each_leg_the_same_with_its_sign():
    made = qv.Baskets({"p": {"A": 3.0, "B": -1.0}}, "none", policy="equal_split")
    np.testing.assert_array_equal(made.run([[1.0, 1.0]]), [[1.0, -1.0]])


def test_different_baskets_are_different_whatever_their_names():
    baskets = {"a": {"A": 1.0}, ("a",): {"B": 1.0}, ("a", 1): {"A": 1.0}, 1: {"B": 2.0}}
    found = qv.Baskets(baskets, "none").run([[1.0, 3.0]])
    np.testing.assert_array_equal(found, [[2.0, 15.0]])


def test_nothing_is_written_to_what_was_given(make):
    values, days = numbers(), START + np.arange(40)
    values.flags.writeable = False
    made = make("ewma(3);rank")
    first = made.run(values, date=days)
    kept = first.copy()
    rows = [made.step(values[i], date=days[-1] + (1 + i) * DAY) for i in range(3)]
    copies = [row.copy() for row in rows]
    made.step(values[3], date=days[-1] + 9 * DAY)
    same_bits(first, kept)
    same_bits(np.array(rows), np.array(copies))
