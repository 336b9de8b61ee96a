"""One day in, one day out: arrays, Series, mappings and tables of one row."""

import datetime

import numpy as np
import pytest

from quorvane.tables import frame_of_kind, read_row

pytestmark = pytest.mark.plain_python

NAN = float("nan")
DAY = datetime.date(2024, 1, 2)
KINDS = ["array", "list", "mapping", "series", "pandas", "polars", "pyarrow", "axes"]


@pytest.fixture(params=KINDS)
def row(request):
    """A day of B and A in a kind of its own, and how to read that kind's results."""

    def make(values=(2.0, 1.0)):
        columns = dict(zip("BA", values, strict=True))
        if request.param == "mapping":
            return columns
        if request.param in ("array", "list", "axes"):
            listed = [*values][::-1]
            return {"array": np.array(listed), "list": listed, "axes": [listed]}[request.param]
        library = pytest.importorskip(request.param.replace("series", "pandas"))
        if request.param == "series":
            return library.Series(columns)
        if request.param != "pandas":
            pytest.importorskip("narwhals")
        made = {name: [value] for name, value in columns.items()}
        return library.table(made) if request.param == "pyarrow" else library.DataFrame(made)

    return make


def numbers(result):
    """The numbers of a row of any kind, by name if it has names."""
    for convert in ("to_pydict", "to_dict"):
        if hasattr(result, convert):
            result = getattr(result, convert)()
    if not isinstance(result, dict):
        return np.ravel(result).tolist()
    return {name: only(value) for name, value in result.items()}


def only(value):
    """The value itself, or the one that it holds below its row's label."""
    value = [*value.values()] if isinstance(value, dict) else value
    return np.ravel(value).tolist()[0]


def test_every_kind_of_day_gives_the_same_vector(row, same):
    read = read_row(row())
    same(read.vector(["A", "B"]), [1.0, 2.0])
    assert read.date is None


def test_a_day_filled_is_of_the_same_kind(row):
    given = row()
    filled = read_row(given).fill([5.0, 6.0], "AB")
    assert type(filled) is (np.ndarray if isinstance(given, list) else type(given))
    found = numbers(filled)
    assert found == ({"B": 6.0, "A": 5.0} if isinstance(found, dict) else [5.0, 6.0])


def test_other_names_give_a_day_of_the_same_kind(row):
    found = numbers(read_row(row()).of_columns([7.0], ["long"]))
    assert found == ({"long": 7.0} if isinstance(found, dict) else [7.0])


def test_infinite_numbers_of_used_instruments_are_refused(row, same):
    read = read_row(row((np.inf, 1.0)), date="2024-01-02", argument="prices")
    with pytest.raises(ValueError, match=r"^prices: 'B' holds inf at 2024-01-02, allowed"):
        read.vector("AB")
    same(read.vector("AB", used=[True, False]), [1.0, np.inf])


def test_what_is_not_there_or_no_number_is_refused(row):
    with pytest.raises(ValueError, match=r"^row: (no instruments 'C', 'D'|got 2)"):
        read_row(row()).vector("ACD")
    with pytest.raises(TypeError, match=r"^row.* (holds|got) .*allowed are numbers"):
        read_row(row(("x", 1.0))).vector("AB")


def test_a_result_has_a_number_for_each_name(row):
    with pytest.raises(ValueError, match=r"^vector: got the shape \(1,\), allowed is \(2,\)"):
        read_row(row()).fill([1.0], "AB")


def test_names_that_are_not_instruments_come_out_missing(frames):
    filled = read_row(frames.plain({"A": [1.0], "x": ["text"]})).fill([2.0], "A")
    assert frames.content(filled) == {"A": [2.0], "x": [None]}
    mapped = read_row({"A": 1.0, "x": "text"}).fill([2.0], "A")
    np.testing.assert_equal(mapped, {"A": 2.0, "x": NAN})


def test_a_table_has_its_own_date_unless_one_is_given(frames):
    given = frames.dated({"A": [1.0]}, [DAY])
    read = read_row(given)
    assert (read.kind, read.names) == (frames.kind, ("A",))
    assert read.date == np.datetime64(DAY)
    assert read.label == "2024-01-02"
    assert read_row(given, date="2024-02-03").label == "2024-02-03"
    assert frames.dates(read.fill([1.0], "A")) == [DAY]


def test_of_several_columns_of_dates_one_is_named_or_none_is_used(frames):
    given = frames.plain({"A": [1.0], "seen": frames.days([DAY]), "day": frames.days([DAY])})
    with pytest.raises(ValueError, match="2 columns hold dates"):
        read_row(given)
    assert read_row(given, date="seen").names == ("A", "day")
    assert read_row(given, date=DAY).names == ("A", "seen", "day")


@pytest.mark.parametrize("rows", [0, 3])
def test_a_table_of_one_row_is_wanted(frames, rows):
    message = rf"^row: one row is wanted, got a table of {rows} rows; use update\(\) for several"
    for given in (frames.plain({"A": np.ones(rows)}), np.ones((rows, 2))):
        with pytest.raises(ValueError, match=message):
            read_row(given)


def test_a_series_of_pandas_may_have_its_date_as_its_name(same):
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame(
        {"A": [1.0], ("B", 1): [2], "x": ["text"]}, index=pandas.DatetimeIndex(["2024-01-02"])
    )
    read = read_row(frame.iloc[0])
    assert read.date == np.datetime64(DAY)
    same(read.vector([("B", 1), "A"]), [2.0, 1.0])
    with pytest.raises(TypeError, match=r"^row of 2024-01-02 holds 'text' \(str\) at 'x'"):
        read.vector(["A", "x"])
    filled = read.fill([5.0], ["A"])
    expected = pandas.Series([5.0, NAN, NAN], index=frame.columns, name=frame.index[0])
    pandas.testing.assert_series_equal(filled, expected)
    assert read_row(pandas.Series({"A": 1.0}, name="AAPL")).date is None
    pairs = read.of_columns([1.0, 2.0], [("A", "B"), ("A", "C")])
    assert pairs.index.nlevels == 1


def test_zoned_days_are_in_utc():
    assert read_row([1.0], date="2024-01-02T00:00-05:00").label == "2024-01-02T05:00Z"
    assert read_row([1.0], date="2024-01-02T00:00Z").is_utc


def test_plain_frames_are_of_the_row_s_kind(row):
    made = frame_of_kind(read_row(row()).kind, {"name": ["x", "y"], "weight": np.array([0.5, 1.0])})
    assert list(made["weight"]) == [0.5, 1.0] or made["weight"].to_pylist() == [0.5, 1.0]
    if isinstance(row(), dict):
        assert made == {"name": ["x", "y"], "weight": [0.5, 1.0]}


@pytest.mark.parametrize("given", [None, 1.0, "AB"])
def test_what_is_no_day_is_a_type_error(given):
    with pytest.raises(TypeError, match=r"^row: got .*allowed are"):
        read_row(given)
