"""In one go, in parts, day by day, from a store: the same numbers to the bit."""

import itertools

import numpy as np
import pytest

import quorvane as qv
from quorvane.stores import MemoryStore
from support.tables_of_baskets import EXPRESSIONS, NAMES, START, WEIGHTS, numbers, same_bits

HOLDS = [0, 2, None]
HARDEST = ["none", "ewma(3);rank;ewma(5);sigmoid", "zscore;ewma(3);sigmoid"]


@pytest.mark.parametrize("hold", HOLDS)
@pytest.mark.parametrize("expression", EXPRESSIONS)
def test_parts_steps_and_a_reload_give_the_bits_of_a_run(make, expression, hold, store):
    values = numbers()
    days = START + np.arange(len(values))
    expected = make(expression, hold=hold).run(values, date=days)

    parts = make(expression, hold=hold)
    bounds = [0, 1, 1, 8, 9, 21, 40]
    pairs = list(itertools.pairwise(bounds))
    found = [parts.update(values[a:b], date=days[a:b]) for a, b in pairs]
    assert [len(part) for part in found] == [b - a for a, b in pairs]
    same_bits(np.concatenate(found), expected)

    steps = make(expression, hold=hold)
    found = [steps.step(row, date=day) for row, day in zip(values, days, strict=True)]
    same_bits(np.array(found), expected)
    assert steps.slots == parts.slots

    first, second = make(expression, hold=hold), make(expression, hold=hold)
    first.run(values[:13], date=days[:13])
    first.save(store)
    second.load(store)
    assert (second.slots, second.last_date) == (first.slots, first.last_date)
    same_bits(second.update(values[13:], date=days[13:]), expected[13:])


@pytest.mark.parametrize("expression", HARDEST)
@pytest.mark.parametrize("rows", [0, 1, 40])
def test_every_kind_of_table_goes_on_to_the_bit(make, kind, expression, rows, store):
    values = numbers()[-rows or 40 :]
    table = kind.table(values)
    middle = rows // 2
    expected = make(expression).run(table, date=kind.date(range(rows)))
    made = make(expression)
    first = made.run(kind.part(table, 0, middle), date=kind.date(range(middle)))
    made.save(store)
    made = make(expression)
    made.load(store)
    rest = made.update(kind.part(table, middle, rows), date=kind.date(range(middle, rows)))
    assert type(rest) is type(table)
    same_bits(
        np.concatenate([kind.values(first), kind.values(rest)]).reshape(rows, 5),
        kind.values(expected).reshape(rows, 5),
    )


@pytest.mark.parametrize("expression", HARDEST)
def test_each_kind_of_day_gives_the_bits_of_a_run(make, expression):
    pandas = pytest.importorskip("pandas")
    polars, pyarrow = pytest.importorskip("polars"), pytest.importorskip("pyarrow")
    values = numbers()
    days = START + np.arange(len(values))
    frame = pandas.DataFrame(values, pandas.DatetimeIndex(days, name="day"), [*NAMES])
    expected = make(expression).run(frame)
    by_rows = frame.reset_index()
    mixed = make(expression)
    for i in range(len(frame)):
        kinds = {
            "Series": frame.iloc[i],
            "mapping": frame.iloc[i].to_dict(),
            "pandas": frame.iloc[[i]],
            "polars": polars.from_pandas(by_rows.iloc[[i]]),
            "pyarrow": pyarrow.Table.from_pandas(by_rows.iloc[[i]], preserve_index=False),
            "array": values[i],
            "list": values[i].tolist(),
            "axes": values[[i]],
        }
        name = list(kinds)[i % len(kinds)]
        day = days[i] if name in ("mapping", "array", "list", "axes") else None
        found = mixed.step(kinds[name], date=day)
        assert type(found) is (np.ndarray if name == "list" else type(kinds[name]))
        if isinstance(found, dict):
            found = np.array(list(found.values()))
        elif name == "polars":
            found = found.drop("day").cast(polars.Float64).to_numpy()
        elif name == "pyarrow":
            found = found.drop_columns(["day"]).to_pandas().to_numpy(dtype=float)
        same_bits(np.ravel(found), expected.to_numpy()[i])
        assert mixed.last_date == days[i]


def test_a_day_by_array_after_a_day_by_name_is_the_next_day():
    values = numbers()
    made = qv.Baskets(WEIGHTS, "ewma(3);rank", instruments=NAMES)
    expected = made.run(values)
    made.reset()
    found = [made.step(row if i % 3 else row[::1].tolist()) for i, row in enumerate(values)]
    same_bits(np.array(found), expected)


def test_an_array_of_any_layout_is_the_same_day():
    values = numbers(missing=0)
    made = qv.Baskets(WEIGHTS, "ewma(3)", instruments=NAMES)
    expected = made.run(values)
    made.reset()
    rows = [values[0], values.T.copy()[:, 1], values[2].astype(">f8"), values[3][::-1][::-1]]
    same_bits(np.array([made.step(row) for row in rows]), expected[:4])


@pytest.mark.parametrize("level", ["instrument", "basket"])
def test_no_rows_give_no_rows_and_change_nothing(make, kind, level):
    values = numbers()
    made = make("ewma(3);rank")
    made.run(kind.table(values), date=kind.date(range(40)))
    before = (made.slots, made.last_date)
    table = kind.table(values[:0])
    found = made.update(table, level=level, date=kind.date(range(0)))
    assert type(found) is type(table)
    width = 5 if level == "instrument" else len(made.baskets)
    assert kind.values(found).shape == (0, width)
    assert (made.slots, made.last_date) == before


def test_dates_must_come_after_the_last_computed_day(make, kind):
    values = numbers()
    made = make("ewma(3)")
    made.run(kind.table(values), date=kind.date(range(40)))
    text = "dates must come after 2024-02-09, the last computed day, got 2024-02-09"
    expected = made.slots
    with pytest.raises(ValueError, match=text):
        made.update(kind.table(values[:1], first=39), date=kind.date(range(39, 40)))
    with pytest.raises(ValueError, match=text):
        made.step(values[0], date="2024-02-09")
    assert made.slots == expected


def test_a_part_that_is_refused_changes_nothing(make, kind):
    values = numbers()
    expected = make("ewma(3);rank").run(kind.table(values), date=kind.date(range(40)))
    made = make("ewma(3);rank")
    made.run(kind.table(values[:20]), date=kind.date(range(20)))
    bad = values[20:].copy()
    bad[5, 1] = np.inf
    with pytest.raises(ValueError, match="'B' holds inf at"):
        made.update(kind.table(bad, first=20), date=kind.date(range(20, 40)))
    with pytest.raises(ValueError, match="level must be one of"):
        made.update(kind.table(values[20:], first=20), level="slot", date=kind.date(range(20, 40)))
    found = made.update(kind.table(values[20:], first=20), date=kind.date(range(20, 40)))
    same_bits(kind.values(found), kind.values(expected)[20:])


def test_a_failed_run_leaves_the_baskets_where_they_were(make):
    values, days = numbers(), START + np.arange(40)
    made = make("ewma(3);rank")
    expected = made.run(values, date=days)
    made.run(values[:20], date=days[:20])
    with pytest.raises(ValueError, match="ascend"):
        made.run(values, date=days[::-1])
    same_bits(made.update(values[20:], date=days[20:]), expected[20:])


def test_baskets_that_nobody_named_go_on_from_a_store_too(kind, store):
    values = numbers()
    expected = kind.values(qv.Baskets(None, "ewma(3);rank").run(kind.table(values)))
    first = qv.Baskets(None, "ewma(3);rank")
    first.run(kind.table(values[:20]))
    first.save(store)
    second = qv.Baskets(None, "ewma(3);rank")
    second.load(store)
    found = second.update(kind.table(values[20:], first=20))
    same_bits(kind.values(found), expected[20:])


def test_two_baskets_of_one_store_do_not_meet(make, store):
    values, days = numbers(), START + np.arange(40)
    for name, rows in (("a", 10), ("b", 20)):
        made = make("ewma(3)")
        made.run(values[:rows], date=days[:rows])
        made.save(store, name=name)
    expected = make("ewma(3)").run(values, date=days)
    for name, rows in (("a", 10), ("b", 20)):
        made = make("ewma(3)")
        made.load(store, name=name)
        same_bits(made.update(values[rows:], date=days[rows:]), expected[rows:])
    assert isinstance(store, MemoryStore)
