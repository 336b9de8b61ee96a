"""Dates: every form of them becomes the same nanoseconds, and what is wrong names its row."""

import datetime

import numpy as np
import pytest

from quorvane.tables import as_date, read_table

pytestmark = pytest.mark.plain_python

NEW_YEAR = np.datetime64("2024-01-01", "ns")
EAST = datetime.timezone(datetime.timedelta(hours=2))


@pytest.mark.parametrize(
    "value",
    [
        "2024-01-01",
        "2024-01-01 00:00",
        "2024-01-01T00:00:00.000000000",
        datetime.date(2024, 1, 1),
        datetime.datetime(2024, 1, 1),
        np.datetime64("2024-01-01"),
        np.datetime64("2024", "Y"),
    ],
)
def test_every_form_of_a_date_is_the_same_date(value):
    assert as_date(value) == (NEW_YEAR, False)


@pytest.mark.parametrize(
    "value",
    [
        "2024-01-01T00:00Z",
        "2024-01-01T02:00+02:00",
        "2023-12-31 22:30:00-0130",
        datetime.datetime(2024, 1, 1, 2, tzinfo=EAST),
    ],
)
def test_a_date_that_knows_its_zone_is_in_utc(value):
    assert as_date(value) == (NEW_YEAR, True)


@pytest.mark.parametrize("zone", [None, "America/New_York"])
def test_a_pandas_date_keeps_its_nanoseconds(zone):
    pandas = pytest.importorskip("pandas")
    moment = pandas.Timestamp(1704067200000000001, tz=zone)
    expected = pandas.Timestamp(moment).tz_convert("UTC") if zone else moment
    assert as_date(moment) == (expected.to_datetime64(), zone is not None)
    assert as_date(pandas.Period("2024-01", "M")) == (NEW_YEAR, False)


@pytest.mark.parametrize(
    "text", ["2024", "2024-02-30", "today", "NaT", "", "2024-01-01Z", "1/2/24"]
)
def test_text_that_is_no_iso_date_is_refused(text):
    with pytest.raises(ValueError, match=rf"^as_of: got '{text}', allowed is an ISO date"):
        as_date(text, "as_of")


@pytest.mark.parametrize("value", [20240101, 1.5, True, ["2024-01-01"]])
def test_what_is_no_date_is_a_type_error(value):
    with pytest.raises(TypeError, match=r"^date: got .*allowed is an ISO date"):
        as_date(value)


@pytest.mark.parametrize("value", [None, float("nan"), np.datetime64("NaT", "D")])
def test_a_missing_date_is_refused(value):
    with pytest.raises(ValueError, match="the date is missing"):
        as_date(value)


@pytest.mark.parametrize(
    "value", ["1677-09-20", "9999-12-31", datetime.datetime.max.replace(tzinfo=EAST)]
)
def test_a_date_that_nanoseconds_cannot_hold_is_refused(value):
    with pytest.raises(ValueError, match=r"does not fit into nanoseconds, .* 1677-09-22 to 2262"):
        as_date(value)


@pytest.mark.parametrize("days", [["2024-01-03", "2024-01-02"], ["2024-01-03", "2024-01-03"]])
def test_dates_must_ascend(frames, days):
    days = [datetime.date.fromisoformat(day) for day in days]
    message = f"^prices: row 1 has the date {days[1]} after 2024-01-03 in row 0"
    with pytest.raises(ValueError, match=message):
        read_table(frames.dated({"A": [1.0, 2.0]}, days), argument="prices")


def test_a_gap_in_the_dates_names_its_row(frames):
    with pytest.raises(ValueError, match=r"^table, row 1: the date is missing"):
        read_table(frames.dated({"A": [1.0, 2.0]}, [datetime.date(2024, 1, 2), None]))


def test_dates_in_a_table_that_nanoseconds_cannot_hold_name_their_row(frames):
    days = [datetime.datetime(2024, 1, 1), datetime.datetime(2500, 1, 1)]
    with pytest.raises(ValueError, match=r"^table, row 1: the date 2500-01-01.* does not fit"):
        read_table(frames.dated({"A": [1.0, 2.0]}, days))


def test_zoned_dates_are_read_in_utc_and_given_back_as_they_were(frames):
    days = [datetime.datetime(2024, 1, day, tzinfo=EAST) for day in (1, 2)]
    given = frames.dated({"A": [1.0, 2.0]}, days)
    table = read_table(given)
    assert table.is_utc
    assert table.dates[0] == np.datetime64("2023-12-31T22:00")
    assert table.label(0) == "2023-12-31T22:00Z"
    filled = table.fill([[1.0], [2.0]], ["A"])
    assert frames.content(filled) == frames.content(given)


def test_a_column_of_text_may_be_named_as_the_dates(frames):
    given = frames.plain({"A": [1.0, 2.0], "when": ["2024-01-02", "2024-01-03"]})
    assert read_table(given).dates is None
    table = read_table(given, date="when")
    assert table.names == ("A",)
    assert table.label(1) == "2024-01-03"
    with pytest.raises(TypeError, match=r"^table, row 0: got .*allowed are dates"):
        read_table(given, date="A")


def test_one_column_of_dates_is_found_and_of_several_one_is_named(frames):
    day = frames.days([datetime.date(2024, 1, 2)])
    given = frames.plain({"A": [1.0], "seen": day, "day": day})
    with pytest.raises(ValueError, match=r"2 columns hold dates \('seen', 'day'\).*date="):
        read_table(given)
    table = read_table(given, date="day")
    assert table.names == ("A", "seen")
    filled = frames.content(table.fill([[2.0]], ["A"]))
    assert list(filled) == ["A", "seen", "day"]
    assert filled["seen"] == [None]
    with pytest.raises(ValueError, match="no column 'dat'; did you mean 'day'"):
        read_table(given, date="dat")
    with pytest.raises(TypeError, match=r"^date: got list, allowed is the name of a column"):
        read_table(given, date=["day"])


@pytest.mark.parametrize(
    "make",
    [
        lambda pd, days: pd.Index(days, dtype=object),
        lambda pd, days: pd.Index([datetime.datetime(d.year, d.month, d.day) for d in days]),
        lambda pd, days: pd.PeriodIndex(days, freq="D"),
        lambda pd, days: pd.DatetimeIndex(days).as_unit("s"),
        lambda pd, days: pd.Index(days, dtype="date32[pyarrow]"),
        lambda pd, days: pd.Index(days, dtype="timestamp[ns][pyarrow]"),
    ],
)
def test_an_index_of_pandas_that_holds_dates_is_the_dates_and_comes_back(make):
    pandas = pytest.importorskip("pandas")
    pytest.importorskip("pyarrow")
    days = [datetime.date(2024, 1, 2), datetime.date(2024, 1, 3)]
    given = pandas.DataFrame({"A": [1.0, 2.0]}, index=make(pandas, days))
    table = read_table(given)
    assert table.dates.tolist() == np.array(days, "datetime64[ns]").tolist()
    pandas.testing.assert_index_equal(table.fill([[1.0], [2.0]], "A").index, given.index)
    named = given.rename_axis("when")
    assert read_table(named, date="when").dates.tolist() == table.dates.tolist()


def test_an_index_of_pandas_without_dates_is_carried():
    pandas = pytest.importorskip("pandas")
    given = pandas.DataFrame({"A": [1.0, np.inf]}, index=pandas.Index(["x", "y"], name="run"))
    table = read_table(given)
    assert table.dates is None
    with pytest.raises(ValueError, match="'A' holds inf at y"):
        table.matrix(["A"])
    pandas.testing.assert_index_equal(table.fill([[1.0], [2.0]], "A").index, given.index)


def test_an_array_has_its_dates_beside_it():
    for days in (["2024-01-02", "2024-01-03"], np.array(["2024-01-02", "2024-01-03"], "M8[D]")):
        assert read_table(np.ones((2, 1)), date=days).label(1) == "2024-01-03"
    with pytest.raises(ValueError, match=r"date: got the shape \(1,\), .*each of 2 rows"):
        read_table(np.ones((2, 1)), date=["2024-01-02"])
    with pytest.raises(ValueError, match=r"^date, row 1: dates with and without a time zone"):
        read_table(np.ones((2, 1)), date=["2024-01-02", "2024-01-03T00:00Z"])


@pytest.mark.parametrize(
    ("texts", "same"),
    [
        (["2024-01-02", "2024-01-03"], True),
        (["2024-01-02", "2024-01-03T00:00"], True),
        (["2024-01-02", "2024-02-30"], False),
        (["1500-01-01", "2024-01-02"], False),
    ],
)
def test_many_texts_at_once_are_dates_or_errors_as_each_is_alone(texts, same):
    def each_alone():
        return [as_date(text)[0] for text in texts]

    if same:
        dates = read_table(np.ones((len(texts), 1)), date=texts).dates
        assert dates.tolist() == [moment.astype(np.int64) for moment in each_alone()]
        return
    with pytest.raises(ValueError, match="date"):
        each_alone()
    with pytest.raises(ValueError, match="date"):
        read_table(np.ones((len(texts), 1)), date=texts)
