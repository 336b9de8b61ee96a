"""A replay's output is judged by the returns that it saw, or not at all."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.cli.basket_days import BasketDays, Choices
from quorvane.cli.day_labels import table_moments
from quorvane.cli.inputs import structure_input
from quorvane.cli.table import Dates, Table

pandas = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")

from quorvane.baskets.weights import fixed_book  # noqa: E402
from quorvane.cli.judged import are_returns, judge  # noqa: E402

WEIGHTS = {"a": {"A": 1.0, "B": -1.0}, "b": {"B": 1.0, "C": -1.0}, "c": {"C": 1.0, "D": -1.0}}


def replayed(prices, kind="returns", dates=None):
    """What judge() makes of a table of prices."""
    names = ("A", "B", "C", "D")
    inputs = structure_input(prices, kind)
    days = BasketDays(fixed_book(WEIGHTS, names), Choices("ewma(3);centered_rank"), inputs)
    result = Table(days.compute(0, len(inputs)), names, dates)
    return judge(days, result, table_moments(result, str), kind), result


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
    assert found.has_returns
    assert found.note == "The table's numbers were taken as daily returns, as fractions."
    assert found.evaluation.ic.notna().to_numpy().any()


def test_levels_that_are_no_returns_judge_nothing_and_it_is_said(prices):
    found, _ = replayed(prices, "levels")
    assert not found.has_returns
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
    "texts", [[f"d{n}" for n in range(40)], ["same"] * 40], ids=["own", "same"]
)
def test_other_labels_stay_as_they_are_while_they_tell_the_days(prices, texts):
    found, _ = replayed(prices, dates=Dates("Date", tuple(texts)))
    expected = texts if len(set(texts)) == 40 else list(range(40))
    assert found.evaluation.ic.index.tolist() == expected
