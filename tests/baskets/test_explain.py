"""Where an instrument's signal comes from."""

import math

import numpy as np
import pytest

import quorvane as qv
from support.tables_of_baskets import DAY, NAMES, START, WEIGHTS, numbers

EXPRESSION = "ewma(3);rank;zscore"


def total(frame, kind):
    found = kind.columns(frame)["contribution"]
    return math.fsum(found) if found else math.nan


@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("hold", [0, 2, None])
def test_contributions_add_up_to_the_signal(make, kind, policy, hold):
    values = numbers()
    made = make(EXPRESSION, policy=policy, hold=hold)
    table = kind.table(values)
    dates = kind.date(range(40))
    signal = kind.values(made.run(table, date=dates))
    for name, expected in zip(NAMES, signal[-1], strict=True):
        np.testing.assert_allclose(total(made.explain(name), kind), expected, rtol=0, atol=1e-12)
    if dates is not None:
        return
    for day in (0, 3, 12, 21, 39):
        for name, expected in zip(NAMES, signal[day], strict=True):
            found = made.explain(name, str(START + day * DAY), table)
            np.testing.assert_allclose(total(found, kind), expected, rtol=0, atol=1e-12)


def test_the_state_stays(make):
    pandas = pytest.importorskip("pandas")
    values = pandas.DataFrame(numbers(), pandas.DatetimeIndex(START + np.arange(40)), [*NAMES])
    made = make(EXPRESSION)
    expected = made.run(values)
    made.run(values[:20])
    before = (made.slots, made.last_date, repr(made))
    last = made.explain("A")
    made.explain("A", "2024-01-04", values)
    assert (made.slots, made.last_date, repr(made)) == before
    pandas.testing.assert_frame_equal(made.explain("A"), last)
    pandas.testing.assert_frame_equal(made.update(values[20:]), expected[20:])


def test_a_frame_of_the_input_s_kind_has_a_column_per_function(kind):
    made = qv.Baskets(WEIGHTS, " ewma(3) ;none;rank; ewma(3)", instruments=NAMES)
    values = numbers(missing=0)
    table = kind.table(values)
    made.run(table)
    found = made.explain("A")
    expected = np.ndarray if kind.name == "array" else type(table)
    assert type(found) is expected
    columns = kind.columns(found)
    assert list(columns) == [
        "basket",
        "weight",
        "value",
        "ewma(3)",
        "rank",
        "ewma(3) (2)",
        "contribution",
    ]
    assert columns["basket"] == ["a/b", "all"]
    assert columns["weight"] == [1.0, 0.25]
    np.testing.assert_allclose(
        columns["value"], [values[-1, 0] - values[-1, 1], values[-1, :4] @ [0.25, 0.5, 0.75, 1]]
    )
    held = kind.values(made.run(table, level="basket"))[-1]
    np.testing.assert_array_equal(columns["ewma(3) (2)"], [held[0], held[2]])
    np.testing.assert_allclose(columns["contribution"], [held[0], 0.25 * held[2]])


def test_only_structures_that_speak_are_there(kind):
    values = numbers(missing=0)
    values[-1, 1] = np.nan
    made = qv.Baskets(WEIGHTS, "ewma(3)", instruments=NAMES)
    made.run(kind.table(values))
    assert kind.columns(made.explain("A"))["basket"] == []
    assert kind.columns(made.explain("C"))["basket"] == ["c/d"]
    assert next(iter(kind.columns(made.explain("A")))) == "basket"
    held = qv.Baskets(WEIGHTS, "ewma(3)", instruments=NAMES, hold=1)
    held.run(kind.table(values))
    found = kind.columns(held.explain("A"))
    assert found["basket"] == ["a/b", "all"]
    assert all(value is None or math.isnan(value) for value in found["value"])


def test_each_kind_of_day_is_explained_in_its_kind():
    pandas = pytest.importorskip("pandas")
    made = qv.Baskets(WEIGHTS, "none")
    row = dict(zip(NAMES, [1.0, 2.0, 3.0, 4.0, 5.0], strict=True))
    made.step(row)
    assert made.explain("E") == {
        "basket": ["e"],
        "weight": [2.0],
        "value": [10.0],
        "contribution": [20.0],
    }
    made.step(pandas.Series(row))
    assert made.explain("E")["contribution"].tolist() == [20.0]
    made.step(np.ones(5))
    assert made.explain("E")["contribution"].tolist() == [4.0]


@pytest.mark.parametrize("change", ["grow", "save and load", "failed update"])
def test_the_last_day_is_explained_after(change, make, store):
    pandas = pytest.importorskip("pandas")
    values = pandas.DataFrame(numbers(), pandas.DatetimeIndex(START + np.arange(40)), [*NAMES])
    made = make(EXPRESSION)
    made.run(values)
    expected = {name: made.explain(name) for name in NAMES}
    assert sum(map(len, expected.values())) > 0
    if change == "grow":
        made.grow(30)
    elif change == "failed update":
        with pytest.raises(ValueError, match="ascend"):
            made.update(values[::-1])
    else:
        made.save(store)
        made = make(EXPRESSION)
        made.load(store)
    for name in NAMES:
        found = made.explain(name)
        np.testing.assert_array_equal(found["basket"].tolist(), expected[name]["basket"].tolist())
        np.testing.assert_array_equal(found["contribution"], expected[name]["contribution"])


def test_the_last_day_is_explained_after_more_rows():
    pandas = pytest.importorskip("pandas")
    from support.tables_of_baskets import long_columns

    made = qv.Baskets.from_long(pandas.DataFrame(long_columns([(0, "a", "A", 2.0)])), "none")
    made.run([[3.0]], date=[START])
    made.extend(pandas.DataFrame(long_columns([(1, "b", "B", 1.0)])))
    assert made.explain("A")["contribution"].tolist() == [12.0]


def test_a_day_of_an_array_is_named_by_its_number():
    made = qv.Baskets(WEIGHTS, "none", instruments=NAMES)
    values = numbers(missing=0)
    found = made.explain("E", 3, values)
    np.testing.assert_allclose(found["contribution"], [4 * values[3, 4]])


def test_a_day_of_an_index_of_any_sort_is_named_by_its_label():
    pandas = pytest.importorskip("pandas")
    made = qv.Baskets({"a": {"A": 1.0}}, "none")
    for index, label in ((["x", "y"], "y"), ([30, 7], 7), ([2, 1], 1)):
        given = pandas.DataFrame({"A": [1.0, 2.0]}, index=index)
        assert made.explain("A", label, given)["contribution"].tolist() == [2.0]


def test_without_a_day_the_last_one_of_the_returns_is_explained():
    made = qv.Baskets({"a": {"A": 1.0}}, "none")
    assert made.explain("A", returns=[[1.0], [2.0]])["contribution"].tolist() == [2.0]
    assert made.slots.known == 0


def test_what_is_not_there_is_a_lookup_error():
    pandas = pytest.importorskip("pandas")
    made = qv.Baskets({"a": {"A": 1.0}}, "none")
    values = pandas.DataFrame({"A": [1.0]}, pandas.DatetimeIndex(["2024-01-01"]))
    with pytest.raises(LookupError, match="no day was computed"):
        made.explain("A")
    made.run(values)
    with pytest.raises(LookupError, match="'B'"):
        made.explain("B")
    with pytest.raises(LookupError, match="give the returns"):
        made.explain("A", "2024-01-02")
    with pytest.raises(LookupError, match="2024-01-02"):
        made.explain("A", "2024-01-02", values)
    with pytest.raises(LookupError):
        made.explain("A", returns=values[:0])
    assert len(made.explain("A", "2024-01-01")) == 1
    made.reset()
    with pytest.raises(LookupError, match="no day was computed"):
        made.explain("A")


def test_baskets_that_are_columns_are_explained_too(kind):
    made = qv.Baskets(None, "rank")
    table = kind.table(numbers(missing=0))
    signal = kind.values(made.run(table))[-1]
    name = 2 if kind.name == "array" else "C"
    found = kind.columns(made.explain(name))
    assert found["basket"] == [name]
    assert found["contribution"] == [signal[2]]
