"""CSV tables: what is read, what is refused, and that numbers come back bit for bit."""

import gzip
import importlib.util
import json
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from quorvane.cli import csv_table
from quorvane.cli.errors import DataError
from quorvane.cli.limits import MAX_NAME_LENGTH
from quorvane.cli.table import Dates, Table
from quorvane.cli.table_io import read_table, write_table

pytestmark = pytest.mark.plain_python

HAS_ARROW = importlib.util.find_spec("pyarrow") is not None


@pytest.fixture(params=["csv", "pyarrow"])
def reader(request, monkeypatch):
    """Both ways of reading; the second only where pyarrow is installed."""
    if request.param == "pyarrow" and not HAS_ARROW:
        pytest.skip("pyarrow is not installed")
    monkeypatch.setattr(csv_table, "has_library", lambda name: request.param == "pyarrow")
    return request.param


def bits(values):
    return np.asarray(values, dtype=np.float64).view(np.int64).tolist()


def test_dates_and_names_are_kept_as_they_are(reader, write):
    table = read_table(write("t.csv", 'Date,"A, B",C\n3 Jan 2020,1,2\n"4 Jan, 2020",3,4\n'))
    assert table.dates == Dates("Date", ("3 Jan 2020", "4 Jan, 2020"))
    assert table.instruments == ("A, B", "C")
    assert table.values.tolist() == [[1.0, 2.0], [3.0, 4.0]]


@pytest.mark.parametrize("header", ["Date", "date", "DAY", "Timestamp", "datetime", "time", ""])
def test_a_first_column_is_dates_by_its_name(reader, write, header):
    table = read_table(write("t.csv", f"{header},KO\n20200102,1\n20200103,2\n"))
    assert table.dates == Dates(header, ("20200102", "20200103"))
    assert table.instruments == ("KO",)


def test_a_first_column_that_is_no_number_is_dates(reader, write):
    table = read_table(write("t.csv", "when,KO\n2020-01-02,1\n2020-01-03,2\n"))
    assert table.dates == Dates("when", ("2020-01-02", "2020-01-03"))


def test_a_table_of_numbers_alone_has_no_dates(reader, write):
    table = read_table(write("t.csv", "KO,PEP\n1,2\n,4\n"))
    assert table.dates is None
    assert table.instruments == ("KO", "PEP")
    assert table.label(1) == "1"


@pytest.mark.parametrize("cell", [*csv_table.MISSING])
def test_missing_cells_are_nan(reader, write, cell):
    table = read_table(write("t.csv", f"Date,A,B\nd1,{cell},1\nd2,2,{cell}\n"))
    assert np.isnan(table.values).tolist() == [[True, False], [False, True]]


def test_infinities_signs_and_exponents_are_numbers(reader, write):
    table = read_table(write("t.csv", "Date,A\nd,inf\nd,-inf\nd,-0.0\nd,1e-320\nd,+2.5\nd, 7 \n"))
    assert bits(table.values) == bits([[np.inf], [-np.inf], [-0.0], [1e-320], [2.5], [7.0]])


def test_blank_lines_and_a_byte_order_mark_do_not_matter(reader, tmp_path):
    path = tmp_path / "t.csv"
    path.write_bytes(b"\xef\xbb\xbf\nDate,A\r\n\r\nd1,1\r\n\r\nd2,2\r\n\r\n")
    table = read_table(path)
    assert table.dates == Dates("Date", ("d1", "d2"))
    assert table.values.tolist() == [[1.0], [2.0]]


def test_names_are_trimmed(reader, write):
    assert read_table(write("t.csv", "Date, KO ,PEP\nd,1,2\n")).instruments == ("KO", "PEP")


def test_a_compressed_table_is_read(reader, tmp_path):
    path = tmp_path / "t.csv.gz"
    path.write_bytes(gzip.compress(b"Date,A\nd1,1.5\n"))
    assert read_table(path).values.tolist() == [[1.5]]


@pytest.mark.parametrize("name", ["t.csv", "t.csv.gz"])
def test_what_is_written_is_read_back_bit_for_bit(reader, tmp_path, name):
    rng = np.random.default_rng(5)
    values = rng.integers(-(2**62), 2**62, size=(50, 7)).view(np.float64)
    values[rng.random(values.shape) < 0.2] = np.nan
    values[0] = [0.0, -0.0, np.inf, -np.inf, 5e-324, 1.7976931348623157e308, 0.1]
    values[np.isnan(values)] = np.nan
    table = Table(values, tuple("abcdefg"), Dates("day", tuple(f"d {i}, x" for i in range(50))))
    write_table(tmp_path / name, table)
    back = read_table(tmp_path / name)
    assert bits(back.values) == bits(values)
    assert (back.instruments, back.dates) == (table.instruments, table.dates)


def test_one_missing_cell_alone_in_its_row_is_kept(reader, tmp_path):
    table = Table(np.array([[1.0], [np.nan], [3.0]]), ("A",))
    write_table(tmp_path / "t.csv", table)
    assert bits(read_table(tmp_path / "t.csv").values) == bits(table.values)


def test_the_same_table_gives_the_same_compressed_bytes(tmp_path):
    table = Table(np.ones((2, 1)), ("A",))
    for name in ("a.csv.gz", "b.csv.gz"):
        write_table(tmp_path / name, table)
    assert (tmp_path / "a.csv.gz").read_bytes() == (tmp_path / "b.csv.gz").read_bytes()


@pytest.mark.skipif(not HAS_ARROW, reason="compares with pyarrow")
def test_both_readers_agree_bit_for_bit(write, monkeypatch):
    rng = np.random.default_rng(6)
    texts = [
        f"{x:.{p}g}" for x, p in zip(rng.normal(size=4000), rng.integers(1, 18, 4000), strict=True)
    ]
    rows = [",".join([f"2020-{i:04}", *texts[i * 4 : i * 4 + 4]]) for i in range(1000)]
    path = write("t.csv", "Date,A,B,C,D\n" + "\n".join(rows) + "\n")
    fast = read_table(path)
    monkeypatch.setattr(csv_table, "has_library", lambda name: False)
    slow = read_table(path)
    assert bits(fast.values) == bits(slow.values)
    assert fast.dates == slow.dates


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("", "t.csv: the file is empty, expected a header of instrument names"),
        ("\n\n", "t.csv: the file is empty, expected a header of instrument names"),
        ("Date,A\n", "t.csv: empty table, expected a row for each day below the header"),
        ("Date\nd1\n", "t.csv: no instrument columns, expected one or more"),
        ("Date,A,\nd1,1,2\n", "t.csv: column 3 has no name, expected an instrument's name"),
        (
            "Date,A,B,A\nd1,1,2,3\n",
            "t.csv: instrument 'A' names columns 2 and 4, expected distinct names",
        ),
        (
            "Date,A,B\nd1,1,2\nd2,1,x1\n",
            "t.csv, line 3, column 'B': expected a number or an empty cell, got 'x1'",
        ),
        (
            "Date,A\nd1,1_000\n",
            "t.csv, line 2, column 'A': expected a number or an empty cell, got '1_000'",
        ),
        ("Date,A,B\nd1,1,2\n\nd2,1\n", "t.csv, line 4: 2 cells, expected 3 as in the header"),
        ("Date,A\nd1,1,2\n", "t.csv, line 2: 3 cells, expected 2 as in the header"),
        (
            f"Date,A\nd1,1\n{'d' * 200_000},2\n",
            "t.csv, line 3: not a readable CSV row: field larger than field limit (131072)",
        ),
    ],
    ids=lambda text: text[:20],
)
def test_a_fault_is_named_with_its_place(reader, write, text, message):
    path = write("t.csv", text)
    with pytest.raises(DataError) as raised:
        read_table(path)
    assert str(raised.value) == f"{path.parent}/{message}"


def test_bytes_that_are_not_text_are_refused(reader, tmp_path):
    path = tmp_path / "t.csv"
    path.write_bytes(b"Date,A\n\xff\xfe,1\n")
    with pytest.raises(DataError, match=r"t\.csv: expected UTF-8 text"):
        read_table(path)


def test_a_broken_compressed_file_is_refused(reader, tmp_path):
    whole = gzip.compress(b"Date,A\n" + b"d1,1.5\n" * 500)
    for name, data in [("cut.csv.gz", whole[:-20]), ("plain.csv.gz", b"Date,A\nd,1\n")]:
        (tmp_path / name).write_bytes(data)
        with pytest.raises(DataError, match=r"not a readable gzip file"):
            read_table(tmp_path / name)


def test_a_table_beyond_the_limits_is_refused(reader, write, monkeypatch):
    path = write("t.csv", "Date,A,B\nd1,1,2\nd2,1,2\n")
    monkeypatch.setattr("quorvane.cli.limits.MAX_CELLS", 3)
    with pytest.raises(
        DataError, match=r"2 days of 2 instruments are 4 cells, at most 3 are allow"
    ):
        read_table(path)
    monkeypatch.setattr("quorvane.cli.limits.MAX_INSTRUMENTS", 1)
    with pytest.raises(DataError, match=r"t\.csv: 2 instruments, at most 1 are allowed"):
        read_table(path)


@pytest.mark.parametrize("text", ["d\rx", "d\r\nx", "d\nx"])
def test_a_line_end_in_a_name_or_a_date_is_read_back(reader, tmp_path, text):
    table = Table(np.array([[1.0, 2.0]]), ("A" + text + "B", "C"), Dates(text + "D", (text,)))
    write_table(tmp_path / "t.csv", table)
    back = read_table(tmp_path / "t.csv")
    assert (back.instruments, back.dates) == (table.instruments, table.dates)
    assert back.values.tolist() == [[1.0, 2.0]]


def test_what_pyarrow_alone_takes_for_a_number_is_refused(reader, write):
    with pytest.raises(DataError, match=r"line 3, column 'A': expected a number .*got 'nan\(1\)'"):
        read_table(write("t.csv", "Date,A\nd1,1\nd2,nan(1)\n"))


def test_a_nan_that_is_not_among_the_missing_cells_is_a_number(reader, write):
    assert np.isnan(read_table(write("t.csv", "Date,A\nd1,-nan\nd2,+NaN\n")).values).all()


def test_digits_of_another_script_are_not_numbers(reader, write):
    with pytest.raises(DataError, match="line 2, column 'A': expected a number"):
        read_table(write("t.csv", "Date,A\nd1,\u0661\u0662\n"))
    table = read_table(write("t.csv", "Date,A\nd1,\u00a01\u2003\n"))
    assert table.values.tolist() == [[1.0]]


@pytest.mark.parametrize("name", [b"t\xff.csv", b"t\xff.csv.gz"])
def test_a_file_name_need_not_be_text(reader, tmp_path, name):
    path = tmp_path / os.fsdecode(name)
    text = b"Date,A\nd1,1.5\n"
    path.write_bytes(gzip.compress(text) if name.endswith(b".gz") else text)
    assert read_table(path).values.tolist() == [[1.5]]


@pytest.mark.skipif(not Path("/proc/self/mem").exists(), reason="needs a file that cannot be read")
def test_a_failure_to_read_an_open_file_is_named(reader, tmp_path):
    path = tmp_path / "t.csv"
    path.symlink_to("/proc/self/mem")
    with pytest.raises(DataError, match=r"t\.csv: cannot be read: Input/output error"):
        read_table(path)


def test_a_fault_shows_the_two_ends_of_a_long_cell(reader, write):
    with pytest.raises(DataError, match=r"column 'A': .*got 'xxx.*\.\.\..*xxx'$") as raised:
        read_table(write("t.csv", f"Date,A\nd1,{'x' * 100_000}\n"))
    assert len(str(raised.value)) < 1000


@pytest.mark.parametrize(
    ("text", "place"),
    [
        ("Date,{}\nd1,1\n", "t.csv, column 2: a name"),
        ("Date{},A\nd1,1\n", "t.csv, column 1: a name"),
        ("Date,A\nd1,1\nd{},2\n", "t.csv, line 3: a date"),
    ],
)
def test_names_and_dates_have_a_longest_length(reader, write, text, place):
    long = "\u20ac" * MAX_NAME_LENGTH
    read_table(write("t.csv", text.format(long[5:])))
    with pytest.raises(DataError) as raised:
        read_table(write("t.csv", text.format(long + "x")))
    assert f"{place} of 10" in str(raised.value)
    assert str(raised.value).endswith("characters, at most 1000 are allowed")


def test_a_table_of_too_many_dates_is_refused(reader, write, monkeypatch):
    monkeypatch.setattr("quorvane.cli.limits.MAX_DATED_DAYS", 1)
    assert read_table(write("t.csv", "A\n1\n2\n")).values.tolist() == [[1.0], [2.0]]
    with pytest.raises(DataError, match=r"2 days with dates, at most 1 are allowed"):
        read_table(write("t.csv", "Date,A\nd1,1\nd2,1\n"))


ENDLESS = {
    "one cell": (b"Date,A\nd1,", b"1"),
    "one header": (b"Date", b",A"),
    "one row of cells": (b"Date,A\nd1", b",1"),
    "one row of quoted line ends": (b"Date,A\nd1", b',"\n"'),
    "long dates": (b"Date,A\n", b"d" * 2000 + b",1\n"),
    "too many days": (b"A\n", b"1\n"),
    "too many dates": (b"Date,A\n", b"d,1\n"),
}


@pytest.mark.parametrize(("head", "more"), ENDLESS.values(), ids=ENDLESS)
def test_a_small_file_of_a_large_text_is_refused_in_little_memory(reader, tmp_path, head, more):
    path = tmp_path / "t.csv.gz"
    path.write_bytes(gzip.compress(head + more * (20_000_000 // len(more)), 1))
    told = told_of_reading(path, reader, rows=10_000, cells=1000, dated_days=1000)
    assert re.search(r"t\.csv\.gz.* (row|date|days) ", told["error"])
    assert told["python"] < 4_000_000
    assert told["pyarrow"] < 4_000_000


def test_numbers_take_no_more_memory_than_their_cells(write):
    told = told_of_reading(write("t.csv", "A\n" + "1\n" * 30_000), "csv")
    assert told["sum"] == 30_000.0
    assert told["python"] < 1_000_000


READING = """
import json, os, sys, tracemalloc
from pathlib import Path
from quorvane.cli import csv_arrow, csv_table, limits
from quorvane.cli.errors import DataError
from quorvane.cli.table_io import read_table

path, reader, most = Path(sys.argv[1]), sys.argv[2], json.loads(sys.argv[3])
csv_table.has_library = lambda name: reader == "pyarrow"
limits.MAX_ROW_LENGTH = most.get("rows", limits.MAX_ROW_LENGTH)
limits.MAX_CELLS = most.get("cells", limits.MAX_CELLS)
limits.MAX_DATED_DAYS = most.get("dated_days", limits.MAX_DATED_DAYS)
csv_arrow._BLOCK_BYTES = 1 << 20
told = {"python": 0, "pyarrow": 0}
if reader == "pyarrow":
    import pyarrow
    pool = pyarrow.proxy_memory_pool(pyarrow.default_memory_pool())
    pyarrow.set_memory_pool(pool)
tracemalloc.start()
try:
    told["sum"] = float(read_table(path).values.sum())
except DataError as error:
    told["error"] = str(error)
told["python"] = tracemalloc.get_traced_memory()[1]
if reader == "pyarrow":
    told["pyarrow"] = pool.max_memory()
print(json.dumps(told), flush=True)
os._exit(0)
"""


def told_of_reading(path, reader, **most):
    """Read with these limits: the error or the numbers' sum, and the most memory held at a time.

    In an interpreter of its own, that ends while it still traces memory: pyarrow's threads may not
    be done when the reader gives up, and switching it off while they allocate can crash Python.
    """
    done = subprocess.run(
        [sys.executable, "-c", READING, str(path), reader, json.dumps(most)],
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    )
    return json.loads(done.stdout)
