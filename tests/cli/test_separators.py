"""Separators are found in the header, and said; decimal commas are not numbers."""

import numpy as np
import pytest

from quorvane.cli import csv_table
from quorvane.cli.errors import DataError
from quorvane.cli.separators import find_separator
from quorvane.cli.structures import read_structures
from quorvane.cli.table_io import read_table

pytestmark = pytest.mark.plain_python


@pytest.fixture(params=["csv", "pyarrow"])
def reader(request, monkeypatch):
    """Both ways of reading; the second only where pyarrow is installed."""
    if request.param == "pyarrow":
        pytest.importorskip("pyarrow")
    monkeypatch.setattr(csv_table, "has_library", lambda name: request.param == "pyarrow")


@pytest.mark.parametrize(
    ("header", "row", "separator"),
    [
        ("Date,A,B", "d1,1,2", ","),
        ("Date;A;B", "d1;1;2", ";"),
        ("Date\tA\tB", "d1\t1\t2", "\t"),
        ("Date|A|B", "d1|1|2", "|"),
        ("Date;A, Inc;B", "d1;1;2", ";"),
        ("Date,A;1,B;2", "d1,1,2", ","),
        ('Date,"A;B;C;D"', 'd1,"1"', ","),
        ("Date;A;B", "d1;1,5;2,5", ";"),
        ("Date;A;B", "d1;1", ";"),
        ("A", "1", ","),
        ("", "", ","),
    ],
)
def test_the_separator_cuts_header_and_row_alike(header, row, separator):
    assert find_separator(header, row) == separator


@pytest.mark.parametrize("separator", [";", "\t", "|"])
def test_a_table_with_another_separator_is_the_same_table(reader, write, separator):
    text = 'Date,"A b",C\n2020-01-02,1.5,\n"2020-01-03",nan,-2e3\n'
    usual = read_table(write("t.csv", text))
    other = read_table(write("o.csv", text.replace(",", separator)))
    assert np.array_equal(usual.values, other.values, equal_nan=True)
    assert (usual.instruments, usual.dates) == (other.instruments, other.dates)
    assert (usual.taken, other.taken) == ((), (f"found {separator!r} between columns",))


def test_blank_lines_in_front_do_not_hide_the_separator(reader, write):
    assert read_table(write("t.csv", "\n\nA;B\n\n1;2\n")).values.tolist() == [[1.0, 2.0]]


def test_a_row_is_bounded_from_the_first_line_on(reader, write, monkeypatch):
    monkeypatch.setattr("quorvane.cli.limits.MAX_ROW_LENGTH", 100)
    path = write("t.csv", 'Date,"' + "a" * 80 + "\n" + "a" * 80 + "\n" + "a" * 5000 + '"\n')
    with pytest.raises(DataError, match=r"t\.csv, line 2: a row of more than 100 characters"):
        read_table(path)


def test_a_decimal_comma_is_named_as_what_it_is(reader, write):
    path = write("t.csv", "Date;A\n2020-01-02;1,5\n")
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value) == (
        f"{path}, line 2, column 'A': expected a number or an empty cell, got '1,5'; "
        f"decimal commas are not read, write a point; found ';' between columns"
    )


def test_a_row_of_another_width_says_what_was_found(reader, write):
    path = write("t.csv", "Date;A;B\n2020-01-02;1;2\n2020-01-03;1\n")
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value).endswith(
        "line 3: 2 cells, expected 3 as in the header; found ';' between columns"
    )


def test_structures_may_have_another_separator(write):
    path = write("s.csv", "key;instrument;weight\na, b;KO;1.5\n")
    read = read_structures(path, ["KO"])
    assert read.latest == {"a, b": {"KO": 1.5}}
    assert read.taken == ("found ';' between columns",)
    path = write("s.csv", "key;instrument;weight\na;KO;1,5\n")
    with pytest.raises(DataError, match=r"line 2, column 'weight': .* decimal commas are not"):
        read_structures(path, ["KO"])


def test_the_summary_says_what_was_found(replay, prices):
    assert "read as" not in replay().out
    prices.write_text(prices.read_text().replace(",", ";"))
    assert "  read as         found ';' between columns\n" in replay().out
