"""Rows of a date, keys and a number: keys as codes, every gap with its row."""

import datetime

import numpy as np
import pytest

from quorvane.tables import read_long

pytestmark = pytest.mark.plain_python

DAYS = [datetime.date(2024, 1, day) for day in (3, 2, 3)]
COLUMNS = {"day": DAYS, "basket": ["b", "a", "b"], "leg": [7, 7, 5], "weight": [1, None, 0.5]}


def read(frames, keys=("basket", "leg"), date="day", **columns):
    given = frames.plain({**COLUMNS, **columns})
    return read_long(given, date=date, keys=keys, number="weight")


def test_keys_are_numbered_in_order_of_appearance(frames, same):
    table = read(frames)
    assert table.values_of == {"basket": ("b", "a"), "leg": (7, 5)}
    assert {name: codes.tolist() for name, codes in table.codes.items()} == {
        "basket": [0, 1, 0],
        "leg": [0, 0, 1],
    }
    assert all(codes.dtype == np.intp for codes in table.codes.values())
    same(table.numbers, [1.0, np.nan, 0.5])
    assert table.rows == 3


def test_dates_are_in_any_order_and_text_may_hold_them(frames):
    expected = np.array(DAYS, "datetime64[ns]").tolist()
    for days in (DAYS, [day.isoformat() for day in DAYS]):
        table = read(frames, day=days)
        assert table.dates.tolist() == expected
        assert not table.is_utc
    assert read(frames, date=None).dates is None
    zoned = read(frames, day=["2024-01-03T00:00Z", "2024-01-02T02:00+02:00", "2024-01-03T00:00Z"])
    assert zoned.is_utc
    assert zoned.dates.tolist() == expected


def test_tuples_are_keys(frames):
    table = read(frames, keys=["pair"], pair=[("b", "a"), ("a", "b"), ("b", "a")])
    assert table.values_of["pair"] == (("b", "a"), ("a", "b"))
    assert table.codes["pair"].tolist() == [0, 1, 0]


@pytest.mark.parametrize("kind", ["pandas", "polars", "pyarrow"])
def test_categories_are_text(kind):
    library = pytest.importorskip(kind)
    if kind != "pandas":
        pytest.importorskip("narwhals")
    words = ["y", "x", "y"]
    if kind == "pandas":
        given = library.DataFrame({"key": library.Categorical(words), "n": [1, 2, 3]})
    elif kind == "polars":
        given = library.DataFrame(
            {"key": library.Series(words, dtype=library.Categorical), "n": [1, 2, 3]}
        )
    else:
        given = library.table({"key": library.array(words).dictionary_encode(), "n": [1, 2, 3]})
    table = read_long(given, date=None, keys=["key"], number="n")
    assert table.values_of == {"key": ("y", "x")}
    assert table.codes["key"].tolist() == [0, 1, 0]


@pytest.mark.parametrize(
    ("columns", "message"),
    [
        ({"basket": ["b", None, "b"]}, "table: column 'basket' has no key at row 1"),
        ({"day": [DAYS[0], None, DAYS[1]]}, "table, row 1: the date is missing"),
        ({"day": ["2024-01-01", None, "x"]}, "table, row 1: the date is missing"),
        ({"day": ["2024-01-01", "x", "2024-01-01"]}, "table, row 1: got 'x', allowed is an ISO"),
        ({"weight": [1.0, np.inf, 2.0]}, "table: column 'weight' holds inf at row 1"),
    ],
)
def test_what_is_missing_or_wrong_names_its_row(frames, columns, message):
    with pytest.raises(ValueError, match=f"^{message}"):
        read(frames, **columns)


def test_columns_of_the_wrong_type_are_type_errors(frames):
    with pytest.raises(TypeError, match=r"^table: column 'weight' holds .*allowed are numbers"):
        read(frames, weight=["x", "y", "z"])
    with pytest.raises(TypeError, match=r"^table, row 0: got .*allowed are dates"):
        read(frames, day=[20240101] * 3)


def test_missing_columns_are_named_with_those_there_are(frames):
    message = "^table: no column 'baskt'; did you mean 'basket'.* it has the columns 'day', 'bask"
    with pytest.raises(ValueError, match=message):
        read(frames, keys=["baskt"])


def test_a_table_without_rows_has_no_keys(frames):
    given = frames.plain(COLUMNS)[:0]
    table = read_long(given, date="day", keys=["basket", "leg"], number="weight")
    assert (table.rows, table.dates.size, table.numbers.size) == (0, 0, 0)
    assert table.values_of == {"basket": (), "leg": ()}


def test_arrays_are_no_long_tables():
    with pytest.raises(TypeError, match=r"^weights: got ndarray, allowed are pandas, polars and"):
        read_long(np.ones((2, 2)), date=None, keys=[], number="n", argument="weights")
