"""Dates must ascend, or are sorted when that is wanted; other labels are left alone."""

import numpy as np
import pytest

from quorvane.cli.day_labels import canonical, in_order, looks_like_date, moments_of, table_moments
from quorvane.cli.errors import DataError
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import place_of, read_table, write_table


def place(row):
    return f"row {row}"


def ordered(labels, sort=False):
    table = Table(np.arange(float(len(labels)))[:, None], ("A",), Dates("day", tuple(labels)))
    return in_order(table, table_moments(table, place), place, sort=sort)


@pytest.mark.parametrize(
    "labels",
    [
        ["2020-01-02", "2020-01-03"],
        ["20200102", "20200103"],
        [" 2020-01-02", "2020-01-02 00:00:01"],
        ["2020-01-02T10:00", "2020-01-02T10:00:00.000000001"],
        ["2020-03-29T01:30:00+01:00", "2020-03-29T03:00:00+02:00"],
        ["0002-01-01", "9999-12-31"],
    ],
)
def test_dates_that_ascend_are_taken_as_they_are(labels):
    table, moments = ordered(labels)
    assert table.dates.text == tuple(labels)
    assert len(moments.values) == 2
    assert table.taken == ()


@pytest.mark.parametrize(
    "labels",
    [
        ["d2", "d1"],
        ["Mon", "Mon"],
        ["31/12/2019", "01/01/2019"],
        ["99999999", "1"],
        ["10000102", "10000101"],
    ],
)
def test_labels_that_are_no_dates_are_left_alone(labels):
    table, moments = ordered(labels)
    assert (table.dates.text, moments) == (tuple(labels), None)


@pytest.mark.parametrize(
    ("labels", "message"),
    [
        (["2020-01-03", "2020-01-02"], "row 1: the date '2020-01-02' comes after '2020-01-03', "
         "expected dates that ascend; --sort sorts the days"),
        (["2020-01-02", "20200102"], "row 1: the date '20200102' comes twice, expected each date "
         "once"),
        (["2020-01-02", "x"], "row 1: expected a date such as 2000-01-31, got 'x'"),
        (["x", "2020-01-02"], "row 0: expected a date such as 2000-01-31, got 'x'"),
        (["2020-01-02", ""], "row 1: expected a date such as 2000-01-31, got ''"),
        (["2020-02-29", "2021-02-29"], "row 1: expected a date such as 2000-01-31, "
         "got '2021-02-29'"),
        (["2020-02-29 00:00", "2021-02-29 00:00"], "row 1: expected a date such as 2000-01-31, "
         "got '2021-02-29 00:00'"),
        (["1500-01-02 10:00", "1600-01-02 10:00"], "row 0: the date 1500-01-02T10:00 does not "
         "fit into nanoseconds"),
        (["2020-01-02", "2020-01-03T00:00Z"], "row 1: dates with and without a time zone"),
    ],
)  # fmt: skip
def test_dates_that_are_not_in_order_or_none_are_refused(labels, message):
    with pytest.raises(DataError) as raised:
        ordered(labels)
    assert str(raised.value).startswith(message)


def test_sorting_moves_the_numbers_with_their_dates():
    table, moments = ordered(["2020-01-04", "2020-01-02", "2020-01-03"], sort=True)
    assert table.dates.text == ("2020-01-02", "2020-01-03", "2020-01-04")
    assert table.values[:, 0].tolist() == [1.0, 2.0, 0.0]
    assert (moments.values[1:] > moments.values[:-1]).all()
    assert table.taken == ("sorted by date, 3 days moved",)


def test_sorting_what_is_in_order_says_nothing():
    assert ordered(["2020-01-02", "2020-01-03"], sort=True)[0].taken == ()


def test_a_date_that_comes_twice_is_refused_when_sorted_too():
    with pytest.raises(DataError, match=r"^row 2: the date '2020-01-02' comes twice"):
        ordered(["2020-01-02", "2020-01-03", "2020-01-02"], sort=True)


def test_sorting_needs_dates():
    with pytest.raises(DataError, match="--sort sorts days by their dates, got 'd1', no date"):
        ordered(["d1", "d2"], sort=True)
    table = Table(np.ones((2, 1)), ("A",))
    with pytest.raises(DataError, match="--sort sorts days by their dates, got no dates"):
        in_order(table, table_moments(table, place), place, sort=True)


def test_one_day_may_be_written_in_several_ways():
    same = ["2020-01-02", "20200102", " 2020-01-02 00:00:00", "2020-01-02T00:00", "2020-01-02 "]
    assert {canonical(label) for label in same} == {"2020-01-02"}
    assert canonical("2020-01-02 00:00:01") != canonical("2020-01-02")
    assert not looks_like_date("20201302")


def test_a_date_that_fits_no_nanosecond_is_named_where_one_is_needed():
    moments = moments_of(["1500-01-01", "2020-01-02"], place)
    with pytest.raises(DataError, match="row 0: the date 1500-01-01 does not fit"):
        moments.nanoseconds(place)


@pytest.mark.parametrize("name", ["t.csv", "t.csv.gz", "t.parquet"])
def test_the_place_of_a_day_is_its_line_or_row(tmp_path, write, name):
    if name.endswith(".parquet"):
        pytest.importorskip("pyarrow")
    table = Table(np.ones((3, 1)), ("A",), Dates("Date", ("2020-01-02", "2020\n", "2020-01-03")))
    write_table(tmp_path / name, table)
    where = {"t.parquet": "row 3"}.get(name, "line 5")
    assert place_of(tmp_path / name, 2) == f"{tmp_path / name}, {where}"


def test_the_command_names_the_line(replay, prices):
    lines = prices.read_text().splitlines()
    prices.write_text("\n".join([*lines[:3], "", lines[4], lines[3], *lines[5:]]))
    outcome = replay()
    assert outcome.status == 1
    assert outcome.err == (
        f"quorvane replay: error: {prices}, line 6: the date '2020-01-06' comes after "
        f"'2020-01-07', expected dates that ascend; --sort sorts the days\n"
    )


@pytest.mark.parametrize("name", ["t.csv", "t.parquet"])
def test_sorted_days_give_what_the_sorted_table_gives(replay, prices, tmp_path, name):
    if name.endswith(".parquet"):
        pytest.importorskip("pyarrow")
    assert replay(expression="ewma(3);rank").status == 0
    whole = (tmp_path / "output.csv").read_bytes()
    table, order = read_table(prices), [3, 0, 6, 2, 1, 5, 4]
    text = tuple(table.dates.text[row] for row in order)
    shuffled = Table(table.values[order], table.instruments, Dates("Date", text))
    write_table(tmp_path / name, shuffled)
    outcome = replay("--sort", table=tmp_path / name, expression="ewma(3);rank")
    assert outcome.status == 0, outcome.err
    assert "read as         sorted by date, 6 days moved" in outcome.out
    assert (tmp_path / "output.csv").read_bytes() == whole


def test_the_summary_says_of_labels_that_they_are_no_dates(replay, write):
    path = write("t.csv", "Date,KO,PEP,XOM,CVX\nd1,1,2,3,4\nd1,1,2,3,4\n")
    assert "d1 to d1 (labels, no dates: in the file's order)" in replay(table=path).out
