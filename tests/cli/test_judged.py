"""A replay's output is judged by the returns that it saw, or not at all."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.basket_days import BasketDays, Choices
from quorvane.cli.day_labels import table_moments
from quorvane.cli.inputs import are_prices, are_returns, structure_input
from quorvane.cli.table import Dates, Table

pandas = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")

from quorvane.baskets.weights import fixed_book  # noqa: E402
from quorvane.cli.judged import judge  # noqa: E402

WEIGHTS = {"a": {"A": 1.0, "B": -1.0}, "b": {"B": 1.0, "C": -1.0}, "c": {"C": 1.0, "D": -1.0}}


def replayed(prices, kind="returns", dates=None):
    """What judge() makes of a table of prices."""
    names = ("A", "B", "C", "D")
    inputs = structure_input(prices, kind)
    days = BasketDays(fixed_book(WEIGHTS, names), Choices("ewma(3);centered_rank"), inputs)
    result = Table(days.compute(0, len(inputs)), names, dates)
    table = Table(prices, names, dates)
    return judge(days, table, result, table_moments(result, str), kind), result


@pytest.fixture
def prices():
    draw = np.random.default_rng(1).normal(scale=0.01, size=(40, 4))
    return 100.0 * np.cumprod(1.0 + draw, axis=0)


def test_it_is_the_evaluation_of_the_output_by_the_prices_returns(prices):
    found, result = replayed(prices)
    returns = structure_input(prices, "returns")
    frames = [pandas.DataFrame(each, columns=list("ABCD")) for each in (result.values, returns)]
    expected = qv.evaluate(*frames)
    pandas.testing.assert_frame_equal(found.evaluation.summary, expected.summary)
    assert found.note == "Returns are those of the table's prices from row to row."
    assert found.structures.parts.is_whole


def test_levels_that_are_returns_are_taken_as_such_and_it_is_said(prices):
    returns = structure_input(prices, "returns")[1:]
    found, _ = replayed(returns, "levels")
    assert found.note == "The table's numbers were taken as daily returns, as fractions."
    assert found.evaluation.ic.notna().to_numpy().any()


def test_levels_that_are_no_returns_judge_nothing_and_it_is_said(prices):
    found, _ = replayed(prices, "levels")
    assert found.note == "The table's numbers are no daily returns, so nothing is judged by them."
    assert found.evaluation.ic.isna().to_numpy().all()
    assert found.evaluation.turnover.notna().any()


@pytest.mark.parametrize(
    ("numbers", "are"),
    [
        ([0.01, -0.02, 0.5], True),
        ([0.01, -0.02, 30.0], True),
        ([-1.0, 0.0, 0.0], False),
        ([1.2, 0.9, -0.3], False),
        ([np.nan, np.inf], True),
        ([], True),
    ],
    ids=str,
)
def test_returns_lose_less_than_all_and_are_mostly_small(numbers, are):
    assert are_returns(np.array(numbers)) is are


def test_days_are_dates_where_the_labels_are(prices):
    text = tuple(str(day) for day in np.datetime64("2020-01-30") + np.arange(40))
    found, _ = replayed(prices, dates=Dates("Date", text))
    assert found.evaluation.ic.index[0] == pandas.Timestamp("2020-01-30")


@pytest.mark.parametrize(
    ("numbers", "are"),
    [([1.0, 2.0], True), ([*[50.0] * 20, -37.6], True), ([0.01, -0.01], False), ([], True)],
    ids=str,
)
def test_prices_are_hardly_ever_zero_or_less(numbers, are):
    assert are_prices(np.array(numbers)) is are


def test_numbers_that_are_no_prices_are_told():
    found, _ = replayed(np.random.default_rng(1).normal(size=(40, 4)))
    assert found.note.endswith("Many of its numbers are zero or less, and no prices.")


@pytest.mark.parametrize(
    "texts",
    [[f"d{n}" for n in range(40)], ["same"] * 40, [f"w{n:03}" for n in range(40, 0, -1)]],
    ids=["own", "same", "falling"],
)
def test_other_labels_stay_as_they_are(prices, texts):
    found, _ = replayed(prices, dates=Dates("Date", tuple(texts)))
    assert found.evaluation.ic.index.tolist() == texts
    assert found.evaluation.ic.notna().to_numpy().any()


def test_days_with_an_offset_are_those_of_the_file(prices):
    days = np.datetime64("2020-01-30") + np.arange(40)
    text = tuple(f"{day}T00:00:00+09:00" for day in days)
    found, _ = replayed(prices, dates=Dates("Date", text))
    assert str(found.evaluation.ic.index[-1]) == f"{days[-1]} 00:00:00+09:00"
    mixed = tuple(f"{day}T00:00:00+0{9 - day.astype(int) % 2}:00" for day in days)
    found, _ = replayed(prices, dates=Dates("Date", mixed))
    assert found.evaluation.ic.index.tolist() == list(mixed)


def test_days_beyond_nanoseconds_are_dates_all_the_same(prices):
    text = tuple(str(day) for day in np.datetime64("3000-01-30") + np.arange(40))
    found, _ = replayed(prices, dates=Dates("Date", text))
    assert str(found.evaluation.ic.index[0]) == "3000-01-30 00:00:00"
