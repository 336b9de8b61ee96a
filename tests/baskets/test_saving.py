"""What is stored goes on only where it fits, and the error says what does not."""

import os
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import quorvane as qv
from quorvane.functions.rotations.virtualization.base import VirtualizationBase
from support.tables_of_baskets import DAY, NAMES, START, WEIGHTS, long_columns, numbers, same_bits

LABELS = {"sector": {"e": "oil"}}
OTHERS = {
    "expression": {"expression": "ewma(4);rank"},
    "hold": {"hold": 1},
    "policy": {"policy": "equal_split"},
    "labels": {"labels": LABELS},
    "capacity": {"capacity": 7},
}


def make(weights=WEIGHTS, **options):
    options = {"expression": "ewma(3);rank", "instruments": NAMES, **options}
    return qv.Baskets(weights, **options)


def stored(store, made=None):
    made = make() if made is None else made
    made.run(numbers(10))
    made.save(store)


def refuses(made, store, text):
    """Loading is refused with the text, and the baskets go on as if nothing had been tried."""
    values = numbers()
    days = START + np.arange(40)
    expected = made.run(values, date=days)
    made.run(values[:20], date=days[:20])
    with pytest.raises(qv.StateMismatch, match=text) as caught:
        made.load(store)
    assert isinstance(caught.value, ValueError)
    same_bits(made.update(values[20:], date=days[20:]), expected[20:])
    return str(caught.value)


@pytest.mark.parametrize("name", OTHERS)
def test_another_argument_is_named_with_both_values(store, name):
    stored(store)
    text = refuses(make(**OTHERS[name]), store, name)
    for value in OTHERS[name].values():
        # Of labels, which may be thousands, those that differ are named.
        assert repr(value) in text or (name == "labels" and "'e' is" in text)
    others = set(OTHERS) - {name}
    # Another expression may be of other functions, no argument is named besides.
    assert not any(f"{other}:" in text for other in others)


def test_all_that_differs_is_named_at_once(store):
    stored(store)
    other = make(**{k: v for each in OTHERS.values() for k, v in each.items()})
    text = refuses(other, store, "expression")
    assert all(f"{name}:" in text for name in OTHERS)


@pytest.mark.parametrize(
    "weights",
    [
        {**WEIGHTS, "e": {"E": 2.5}},
        {**WEIGHTS, "e": {"D": 2.0}},
        {k: v for k, v in WEIGHTS.items() if k != "e"} | {"f": {"E": 2.0}},
    ],
)
def test_other_baskets_are_named(store, weights):
    stored(store)
    refuses(make(weights), store, "baskets")


def test_other_functions_behind_the_same_expression_are_named(store):
    stored(store)

    other = make()
    record = store.load("baskets")
    names = record["arguments"]["functions"]
    record["arguments"]["functions"] = [names[0], "elsewhere.Other"]
    store.write("baskets", record)
    refuses(other, store, r"functions.*elsewhere\.Other")


@pytest.mark.parametrize("record", [{}, {"format": 99}, None, 7, [1], "text"])
def test_what_save_did_not_write_is_named_by_its_format(store, record):
    store.write("baskets", record)
    refuses(make(), store, "record format")


def test_a_rotation_s_own_record_is_named_by_its_format(store):
    class Own(VirtualizationBase):
        _name = "own"

    own = Own(max_structures=4, transformation_expression="ewma(3)", N_alloc=5)
    store.write("baskets", own.get_state())
    refuses(make(), store, "record format")


def test_nothing_stored_is_a_lookup_error(store):
    made = make()
    with pytest.raises(LookupError, match="'mine'"):
        made.load(store, name="mine")
    stored(store)
    with pytest.raises(LookupError):
        made.load(store, name="mine")
    made.load(store)


def test_a_reload_goes_back_to_what_was_stored(store):
    values = numbers()
    made = make()
    expected = made.run(values)
    made.run(values[:10])
    made.save(store)
    made.update(values[10:])
    made.load(store)
    same_bits(made.update(values[10:]), expected[10:])


def test_baskets_that_nobody_knows_cannot_be_saved(store):
    with pytest.raises(ValueError, match="nothing to save"):
        qv.Baskets(None, "none").save(store)
    assert store.names() == []


@pytest.mark.parametrize(
    "baskets", [{1: {10: 1.0}, 2: {20: -1.0}}, {("a", 1): {("x", "A"): 1.0}, "é": {"B": 1}}]
)
def test_names_of_any_sort_come_back(store, baskets):
    values = numbers(20, 2)
    expected = qv.Baskets(baskets, "ewma(3)").run(values)
    made = qv.Baskets(baskets, "ewma(3)", labels={"kind": dict.fromkeys(baskets, "x")})
    made.run(values[:10])
    made.save(store)
    other = qv.Baskets(baskets, "ewma(3)", labels={"kind": dict.fromkeys(baskets, "x")})
    other.load(store)
    same_bits(other.update(values[10:]), expected[10:])


# ---- dated --------------------------------------------------------------------------------------

ROWS = [(0, "a", "A", 1.0), (0, "b", "B", 1.0), (5, "a", "A", 2.0), (15, "c", "C", 1.0)]


def dated(rows, **options):
    pandas = pytest.importorskip("pandas")
    return qv.Baskets.from_long(pandas.DataFrame(long_columns(rows)), "ewma(3);rank", **options)


def run_and_save(made, store, rows=10):
    width = len(made.instruments)
    made.run(numbers(rows, width, missing=0), date=START + np.arange(rows))
    made.save(store)


@pytest.mark.parametrize(
    "rows",
    [
        ROWS[:3],
        [*ROWS[:3], (15, "d", "D", 1.0), (15, "e", "E", 1.0)],
        [*ROWS[:3], (11, "a", "B", 1.0)],
        [*ROWS, (20, "b", "B", 1.0)],
        [(20, "b", "B", 1.0), *ROWS],
    ],
    ids=["fewer", "others", "sooner", "more", "newest first"],
)
@pytest.mark.parametrize("options", [{}, {"capacity": 20, "instruments": NAMES}])
def test_rows_after_the_last_computed_day_do_not_matter(store, rows, options):
    run_and_save(dated(ROWS, **options), store)
    made = dated(rows, **options)
    made.load(store)
    assert made.last_date == START + 9 * DAY
    values = np.ones((1, len(made.instruments)))
    # Until the next list the numbers are those that the old table gives too.
    found = dict(zip(made.instruments, made.step(values[0], date=START + 10 * DAY), strict=True))
    old = dated(ROWS, **options)
    old.load(store)
    row = old.step(np.ones(len(old.instruments)), date=START + 10 * DAY)
    expected = dict(zip(old.instruments, row, strict=True))
    assert found["A"] == expected["A"]
    assert np.isnan(found["B"])


@pytest.mark.parametrize(
    "rows",
    [
        [(0, "a", "A", 1.5), *ROWS[1:]],
        [ROWS[0], *ROWS[2:]],
        [*ROWS, (7, "a", "A", 2.0)],
        [*ROWS[:2], *ROWS[3:]],
        [(0, "a", "B", 1.0), *ROWS[1:]],
    ],
    ids=["weight", "basket", "date added", "date gone", "leg"],
)
def test_rows_up_to_the_last_computed_day_are_compared(store, rows):
    run_and_save(dated(ROWS, instruments=NAMES), store)
    with pytest.raises(qv.StateMismatch, match="baskets"):
        dated(rows, instruments=NAMES).load(store)


def test_fixed_and_dated_baskets_are_not_taken_for_each_other(store):
    run_and_save(dated([(0, "a", "A", 1.0), (0, "b", "B", 1.0)]), store)
    fixed = qv.Baskets({"a": {"A": 1.0}, "b": {"B": 1.0}}, "ewma(3);rank")
    with pytest.raises(qv.StateMismatch, match="baskets"):
        fixed.load(store)


# ---- another process ----------------------------------------------------------------------------


def test_a_process_that_is_killed_is_followed_to_the_bit(tmp_path):
    pytest.importorskip("msgpack")
    values = numbers()
    expected = make().run(values)
    np.save(tmp_path / "values.npy", values[:20])
    code = f"""
        import os, numpy as np, quorvane as qv
        values = np.load({str(tmp_path / "values.npy")!r})
        made = qv.Baskets({WEIGHTS!r}, "ewma(3);rank", instruments={NAMES!r})
        store = qv.SqliteStore({str(tmp_path / "store.db")!r})
        for row in values:
            made.step(row)
            made.save(store)
        os.kill(os.getpid(), 9)
    """
    found = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        check=False,
    )
    assert found.returncode == -9
    made = make()
    made.load(qv.SqliteStore(tmp_path / "store.db"))
    same_bits(made.update(values[20:]), expected[20:])
