"""Baskets that change by date, against a hook of one's own on the base class."""

import numpy as np
import pytest

import quorvane as qv
from quorvane.functions.rotations.virtualization.base import (
    VirtualizationBase,
    VirtualStructure,
)
from support.tables_of_baskets import DAY, NAMES, START, long_columns, numbers, same_bits

pandas = pytest.importorskip("pandas")

ROWS = [
    (3, "a/b", "A", 1.0),
    (3, "a/b", "B", -1.0),
    (3, "c", "C", 1.0),
    (9, "c", "C", 0.5),
    (9, "c", "D", 0.5),
    (9, "e", "E", 2.0),
    (9, "a/b", "A", 0.0),
    (20, "a/b", "A", 1.0),
    (20, "a/b", "B", -2.0),
    (20, "d", "D", 1.0),
    (31, "d", "D", np.nan),
    (31, "all", "A", 0.1),
    (31, "all", "E", 0.2),
]


class ByHand(VirtualizationBase):
    """Reports each day's baskets; whoever is silent is masked by hand behind each function."""

    _name = "by_hand"

    def __init__(self, lists, expression, hold, policy):
        super().__init__(
            max_structures=10,
            transformation_expression=expression,
            N_alloc=len(NAMES),
            unmap_policy=policy,
        )
        self.lists, self.hold = lists, hold
        self.silent_days = np.full(10, np.inf)
        self.today = {}

    def _refresh_active_structures(self, returns, inputs, nan_masks, combined, N):
        for basket, legs in self.today.items():
            places = tuple((NAMES.index(name), weight) for name, weight in legs.items())
            value = sum(weight * returns[place] for place, weight in places)
            yield VirtualStructure(key=(basket,), legs=places, value=float(value))

    def _run_child_chain(self, txi_values, child_context):
        row = np.array(txi_values, dtype=float)
        self.silent_days = np.where(np.isnan(row), self.silent_days + 1, 0)
        silent = np.zeros(10, bool) if self.hold is None else self.silent_days > self.hold
        for child in self.child_rotations:
            row = np.array(child(row, context=child_context))
            row[silent] = np.nan
        return row


def lists_of(rows, complete):
    """For each date {basket: legs}, written out by hand."""
    lists, running = {}, {}
    for day in sorted({row[0] for row in rows}):
        today = {}
        for _, basket, instrument, weight in (row for row in rows if row[0] == day):
            legs = today.setdefault(basket, {})
            if weight == weight and weight != 0:
                legs[instrument] = weight
        running = today if complete else {**running, **today}
        lists[day] = {basket: legs for basket, legs in running.items() if legs}
    return lists


@pytest.mark.parametrize("complete", [True, False])
@pytest.mark.parametrize("hold", [0, 2, None])
@pytest.mark.parametrize("policy", ["proportional", "equal_split"])
@pytest.mark.parametrize("expression", ["none", "ewma(3);rank", "zscore;ewma(4)"])
def test_a_history_is_that_of_a_hook_written_by_hand(expression, policy, hold, complete):
    values = numbers(45)
    days = START + np.arange(45)
    table = pandas.DataFrame(long_columns(ROWS))
    made = qv.Baskets.from_long(
        table, expression, complete=complete, hold=hold, policy=policy, instruments=NAMES
    )
    found = made.run(values, date=days)
    lists = lists_of(ROWS, complete)
    rotation = ByHand(lists, expression, hold, policy)
    expected = []
    for day, row in enumerate(values):
        first = max((start for start in lists if start <= day), default=None)
        rotation.today = lists.get(first, {})
        expected.append(rotation(row))
    np.testing.assert_allclose(found, expected, rtol=0, atol=1e-12)
    known = dict.fromkeys(basket for each in lists.values() for basket in each)
    assert made.baskets == tuple(known)


def make(rows, expression="none", **options):
    options.setdefault("instruments", [*"AB"])
    return qv.Baskets.from_long(pandas.DataFrame(long_columns(rows)), expression, **options)


def test_a_list_holds_from_the_first_row_on_or_after_its_date():
    made = make([(2, "a", "A", 1.0), (5, "b", "B", 1.0), (6, "a", "B", 1.0)])
    days = START + np.array([0, 1, 3, 4, 7, 8])
    found = made.run(np.ones((6, 2)), date=days)
    nan = np.nan
    expected = [[nan, nan]] * 2 + [[1, nan]] * 2 + [[nan, 1]] * 2
    np.testing.assert_array_equal(found, expected)


def test_a_list_of_the_afternoon_holds_from_the_next_morning():
    table = pandas.DataFrame(
        {"date": ["2024-01-02T15:00"], "basket": ["a"], "instrument": ["A"], "weight": [1.0]}
    )
    made = qv.Baskets.from_long(table, "none")
    found = made.run([[1.0]] * 3, date=["2024-01-01", "2024-01-02", "2024-01-03"])
    np.testing.assert_array_equal(found, [[np.nan], [np.nan], [1.0]])


def test_memory_goes_on_over_a_change_of_legs_and_over_an_absence():
    rows = [(0, "a", "A", 1.0), (2, "a", "B", 1.0), (3, "b", "A", 1.0), (5, "a", "A", 1.0)]
    made = make(rows, "ewma(3)")
    values = np.array([[1.0, 9.0], [2.0, 9.0], [7.0, 3.0], [5.0, 5.0], [5.0, 5.0], [4.0, 1.0]])
    found = made.run(values, level="basket", date=START + np.arange(6))[:, 0]
    series = pandas.Series([1.0, 2.0, 3.0, np.nan, np.nan, 4.0])
    expected = series.ewm(span=3).mean().where(series.notna())
    np.testing.assert_allclose(found, expected, rtol=0, atol=1e-12)


def test_a_basket_that_ends_takes_part_in_no_rank_and_reaches_nothing():
    rows = [(0, "a", "A", 1.0), (0, "b", "B", 1.0), (2, "b", "B", 1.0)]
    values = np.array([[1.0, 2.0]] * 4)
    found = make(rows, "ewma(3);rank").run(values, date=START + np.arange(4))
    np.testing.assert_array_equal(found, [[0.5, 1.0]] * 2 + [[np.nan, 1.0]] * 2)


def test_a_basket_that_is_gone_is_missing_where_the_baskets_are_shown(kind):
    rows = [(0, "a", "A", 1.0), (1, "b", "B", 1.0), (2, "a", "B", 1.0)]
    made = make(rows)
    table = kind.table(np.array([[1.0, 2.0]] * 3), "AB")
    held = made.run(table, level="basket", date=kind.date(range(3)))
    nan = np.nan
    np.testing.assert_array_equal(kind.values(held), [[1, nan], [nan, 2], [2, nan]])
    if kind.name != "array":
        assert [name for name in kind.columns(held) if name != "day"] == ["a", "b"]


def test_running_baskets_end_where_all_their_weights_are_0_or_missing():
    rows = [(0, "a", "A", 1.0), (0, "b", "B", 1.0), (1, "a", "A", 0.0), (2, "b", "B", np.nan)]
    found = make(rows, complete=False).run(np.ones((3, 2)), date=START + np.arange(3))
    nan = np.nan
    np.testing.assert_array_equal(found, [[1, 1], [nan, 1], [nan, nan]])


def test_a_date_whose_weights_are_all_0_ends_every_basket():
    rows = [(0, "a", "A", 1.0), (1, "a", "A", 0.0), (2, "b", "B", 1.0)]
    found = make(rows).run(np.ones((3, 2)), date=START + np.arange(3))
    nan = np.nan
    np.testing.assert_array_equal(found, [[1, nan], [nan, nan], [nan, 1]])


def test_the_order_of_the_rows_does_not_matter():
    values, days = numbers(45), START + np.arange(45)
    table = pandas.DataFrame(long_columns(ROWS))
    expected = qv.Baskets.from_long(table, "ewma(3);rank", instruments=NAMES).run(values, date=days)
    other = table.sample(frac=1, random_state=1)
    found = qv.Baskets.from_long(other, "ewma(3);rank", instruments=NAMES).run(values, date=days)
    np.testing.assert_allclose(found, expected, rtol=0, atol=1e-12)


@pytest.mark.parametrize("form", ["date", "text", "datetime"])
def test_every_kind_of_long_table_and_of_date_is_read(frames, form):
    columns = long_columns([row for row in ROWS if row[3]])
    dates = columns["date"].astype("datetime64[D]").tolist()
    texts = [str(day) for day in dates]
    columns["date"] = {"text": texts, "date": dates}.get(form, columns["date"].astype("M8[us]"))
    made = qv.Baskets.from_long(frames.plain(columns), "ewma(3);rank", instruments=NAMES)
    table = pandas.DataFrame(long_columns([row for row in ROWS if row[3]]))
    expected = qv.Baskets.from_long(table, "ewma(3);rank", instruments=NAMES)
    values, days = numbers(45), START + np.arange(45)
    same_bits(made.run(values, date=days), expected.run(values, date=days))


def test_columns_of_other_names_are_named():
    table = pandas.DataFrame(long_columns(ROWS)).rename(
        columns={"date": "day", "basket": "pair", "instrument": "ticker", "weight": "w"}
    )
    names = {"date": "day", "basket": "pair", "instrument": "ticker", "weight": "w"}
    made = qv.Baskets.from_long(table, "none", **names)
    assert made.instruments == ("A", "B", "C", "D", "E")
    with pytest.raises(ValueError, match=r"no column.* 'date'.*it has the columns 'day', 'pair'"):
        qv.Baskets.from_long(table, "none")


def test_a_long_table_without_dates_is_of_fixed_baskets():
    table = pandas.DataFrame(long_columns(ROWS[:3])).drop(columns="date")
    found = qv.Baskets.from_long(table, "none", date=None).run([[3.0, 1.0, 2.0]])
    np.testing.assert_array_equal(found, [[2.0, -2.0, 2.0]])


def test_a_leg_that_comes_twice_is_an_error_that_names_it():
    with pytest.raises(ValueError, match=r"2024-01-03, basket 'a', instrument 'A'"):
        make([(2, "a", "A", 1.0), (3, "a", "A", 1.0), (2, "b", "A", 1.0), (2, "a", "A", 0.0)])


def test_dated_baskets_need_dates(frames):
    made = make([(0, "a", "A", 1.0)], instruments=[*"A"])
    with pytest.raises(ValueError, match="the table has no dates"):
        made.run(np.ones((2, 1)))
    with pytest.raises(ValueError, match="the table has no dates"):
        made.run(frames.plain({"A": [1.0]}))
    for row in ([1.0], {"A": 1.0}, frames.plain({"A": [1.0]})):
        with pytest.raises(ValueError, match=r"the row has no date: give it with date="):
            made.step(row)
        made.reset()
        assert made.step(row, date="2024-01-01") is not None
    assert made.last_date == START


def test_dates_of_another_sort_than_the_baskets_are_refused():
    made = make([(0, "a", "A", 1.0)], instruments=[*"A"])
    with pytest.raises(ValueError, match="time zone"):
        made.run([[1.0]], date=["2024-01-01T00:00Z"])


# ---- later rows ---------------------------------------------------------------------------------


@pytest.mark.parametrize("complete", [True, False])
@pytest.mark.parametrize("cut", [9, 20, 31])
def test_baskets_that_are_extended_are_those_of_the_whole_table(complete, cut):
    values, days = numbers(45), START + np.arange(45)
    table = pandas.DataFrame(long_columns(ROWS))
    options = {"expression": "ewma(3);rank", "complete": complete}
    expected = qv.Baskets.from_long(table, instruments=NAMES, **options).run(values, date=days)
    early = table["date"] < START + cut * DAY
    made = qv.Baskets.from_long(table[early], instruments=NAMES, **options)
    first = made.run(values[: cut - 1], date=days[: cut - 1])
    made.extend(table[~early])
    rest = made.update(values[cut - 1 :], date=days[cut - 1 :])
    same_bits(np.concatenate([first, rest]), expected)
    same_bits(made.run(values, date=days), expected)


@pytest.mark.parametrize("complete", [True, False])
def test_later_rows_may_end_every_basket(complete):
    made = make([(0, "a", "A", 1.0)], complete=complete, instruments=[*"A"])
    made.extend(pandas.DataFrame(long_columns([(1, "a", "A", 0.0)])))
    found = made.run(np.ones((2, 1)), date=START + np.arange(2))
    np.testing.assert_array_equal(found, [[1.0], [np.nan]])


def test_later_rows_may_bring_new_instruments():
    made = make([(0, "a", "A", 1.0)], "ewma(3)", instruments=[*"A"])
    made.run([[1.0]], date=[START])
    made.extend(pandas.DataFrame(long_columns([(1, "a", "A", 1.0), (1, "b", "B", 1.0)])))
    assert made.instruments == ("A", "B")
    found = made.update([[1.0, 5.0]], date=[START + DAY])
    np.testing.assert_allclose(found, [[1.0, 5.0]])


def test_rows_that_are_not_later_are_refused():
    made = make([(0, "a", "A", 1.0), (5, "b", "B", 1.0)])
    for day in (3, 5):
        with pytest.raises(ValueError, match="dates must come after 2024-01-06"):
            made.extend(pandas.DataFrame(long_columns([(day, "c", "A", 1.0)])))
    made.run(np.ones((20, 2)), date=START + np.arange(20))
    with pytest.raises(ValueError, match="2024-01-20"):
        made.extend(pandas.DataFrame(long_columns([(8, "c", "A", 1.0)])))


def test_only_dated_baskets_are_extended():
    with pytest.raises(TypeError, match="dated"):
        qv.Baskets({"a": {"A": 1.0}}, "none").extend(None)


@pytest.mark.parametrize("complete", [True, False])
def test_later_rows_are_read_as_if_they_had_been_there_from_the_first(complete, store):
    rows = [
        (0, "c", "C", 1.0),
        (2, "e", "E", 1.0),
        (2, "c", "C", 2.0),
        (4, "a", "A", 1.0),
        (4, "c", "C", 1.0),
        (4, "e", "E", 2.0),
    ]
    values, days = numbers(8, missing=0), START + np.arange(8)

    def make(rows):
        table = pandas.DataFrame(long_columns(rows))
        return qv.Baskets.from_long(table, "zscore", complete=complete, instruments=NAMES)

    whole, made = make(rows), make(rows[:1])
    for first, last in ((1, 3), (3, 6)):
        made.extend(pandas.DataFrame(long_columns(rows[first:last])))
    same_bits(made.run(values[:6], date=days[:6]), whole.run(values[:6], date=days[:6]))
    made.save(store)
    whole.load(store)
    same_bits(whole.update(values[6:], date=days[6:]), made.update(values[6:], date=days[6:]))
